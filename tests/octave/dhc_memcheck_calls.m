function dhc_memcheck_calls(n)
  % dhc_memcheck_calls(n)  n rounds of ten calls of every kind, for the
  % memory check: three outputs, one output with fragmentation, supervised,
  % masked, sparse, a fatal condition (-2), a failed rank assertion, a refused
  % output count, and refusals of negative ground-truth labels and of NaN data.
  [img, truth] = dhc_quadrants(16, 16, 2);
  p = DhcProblem(img);
  s = dhc_test_settings();
  sf = s;
  sf.fragmentation = 1;
  sv = s;
  sv.supervisedMode = 1;
  sv.supSet = struct('numberOfClasses', 4, 'structureLevels', [2 2 2 2], 'structurePaths', [0 0 0 1 1 0 1 1]);
  % Two equal bands make the class models singular: the supervised split fails.
  twin = img;
  twin(:, :, 2) = twin(:, :, 1);
  pf = DhcProblem(twin, [], [], 1 + (truth > 2));
  s2 = sv;
  s2.supSet = struct('numberOfClasses', 2, 'structureLevels', [1 1], 'structurePaths', [0 1]);
  withNaN = img;
  withNaN(5) = NaN;
  for i = 1:n
    [a, b, c] = dhc(p, s);
    a = dhc(p, sf);
    [a, b, c] = dhc(DhcProblem(img, [], [], truth), sv);
    [a, b, c] = dhc(DhcProblem(img, [], truth < 4), s);
    dhc_expect_error('dhc:fatal:m2', '-2', 3, @dhc, pf, s2);
    dhc_expect_error('dhc:assert', '(nd == 2)', 3, @dhc, DhcProblem(img, ones(16, 16, 2)), s);
    dhc_expect_error('', 'Check usage!', 3, @dhc, p, sf);
    [a, b, c] = dhc(DhcProblem(img(:, :, 1), [], sparse(truth < 4)), s);
    dhc_expect_error('dhc:badGroundTruth', 'negative label', 3, @dhc, DhcProblem(img, [], [], 2 - truth), sv);
    dhc_expect_error('dhc:badValue', 'NaN', 3, @dhc, DhcProblem(withNaN), s);
  end
end
