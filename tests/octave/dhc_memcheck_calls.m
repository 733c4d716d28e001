function dhc_memcheck_calls(n)
  % dhc_memcheck_calls(n)  n rounds of seven calls of every kind, for the
  % memory check: three outputs, one output with fragmentation, supervised,
  % masked, a fatal condition (-20), a failed rank assertion and a refused
  % output count.
  [img, truth] = dhc_quadrants(16, 16, 2);
  s = dhc_test_settings();
  sf = s;
  sf.fragmentation = 1;
  sv = s;
  sv.supervisedMode = 1;
  sv.supSet.numberOfClasses = 4;
  sv.supSet.structureLevels = [2 2 2 2];
  sv.supSet.structurePaths = [0 0 0 1 1 0 1 1];
  sb = s;
  sb.unsupSet.blind = 1;
  sb.unsupSet.blindSet.metric = 99;
  mask = ones(16);
  mask(:, 1:3) = 0;
  for i = 1:n
    [a, b, c] = dhc(DhcProblem(img), s);
    a = dhc(DhcProblem(img), sf);
    [a, b, c] = dhc(DhcProblem(img, [], [], truth), sv);
    [a, b, c] = dhc(DhcProblem(img, [], mask), s);
    dhc_expect_error(@() dhc_three(DhcProblem(img), sb), 'dhc:fatal:m20');
    dhc_expect_error(@() dhc_three(DhcProblem(img, ones(16, 16, 2)), s), 'dhc:assert');
    dhc_expect_error(@() dhc_three(DhcProblem(img), sf), '');
  end
end
