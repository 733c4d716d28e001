function err = dhc_expect_error(fn, id, text)
  % err = dhc_expect_error(fn, id [, text])  Calls fn, which must raise an
  % error with identifier id ('' for none) whose message contains text.
  raised = false;
  try
    fn();
  catch err
    raised = true;
  end
  dhc_check(raised, 'expected an error with identifier "%s"', id);
  dhc_check(strcmp(err.identifier, id), 'identifier "%s", expected "%s" (message: %s)', ...
            err.identifier, id, err.message);
  if nargin >= 3
    dhc_check(~isempty(strfind(err.message, text)), 'message "%s" lacks "%s"', err.message, text);
  end
end
