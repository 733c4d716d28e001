function literal = dhc_literal_build()
  % True when the module under test was built with DHC_MEX_LITERAL_EXIT: a
  % fatal condition then ends the host process, a failed assertion aborts it.
  literal = strcmp(getenv('DHC_MEX_LITERAL_EXIT'), '1');
end
