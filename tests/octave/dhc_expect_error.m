function err = dhc_expect_error(id, text, nout, fn, varargin)
  % err = dhc_expect_error(id, text, nout, fn, args...)  Calls fn(args...) with
  % nout outputs; it must raise an error with identifier id ('' for none)
  % whose message contains text.
  out = cell(1, nout);
  try
    [out{:}] = fn(varargin{:});
  catch err
    dhc_check(strcmp(err.identifier, id) && ~isempty(strfind(err.message, text)), ...
              'error "%s: %s", expected "%s" with "%s"', err.identifier, err.message, id, text);
    return;
  end
  dhc_check(false, 'no error, expected "%s" with "%s"', id, text);
end
