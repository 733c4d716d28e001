function dhc_check(cond, fmt, varargin)
  % dhc_check(cond, fmt, ...)  Fails the running test (an error, hence a
  % non-zero Octave exit status) unless cond is true and non-empty.
  if isempty(cond) || ~all(cond(:))
    error('dhc_test:failed', ['check failed: ' fmt], varargin{:});
  end
end
