function [status, output] = dhc_child_octave(code)
  % [status, output] = dhc_child_octave(code)  Runs code in a fresh Octave
  % with the test path, for calls that may end their process.
  octave = getenv('DHC_OCTAVE');
  dhc_check(~isempty(octave), 'DHC_OCTAVE is not set');
  cmd = sprintf('"%s" --quiet --norc --no-window-system --eval "addpath(%s); %s" 2>&1', octave, ...
                getenv('DHC_ADDPATH'), code);
  [status, output] = system(cmd);
end
