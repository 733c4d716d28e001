function [out, summary, reports] = dhc_three(problem, settings)
  % The three-output call of dhc, usable inside anonymous functions.
  [out, summary, reports] = dhc(problem, settings);
end
