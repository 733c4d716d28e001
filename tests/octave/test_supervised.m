% Supervised runs: the class structure given by paths, seeded from a ground
% truth of well separated classes, reproduces that ground truth.

[img, truth] = dhc_quadrants(16, 16, 2);
s = dhc_test_settings();
s.supervisedMode = 1;

% Two classes, flat: left and right halves labelled 5 and 9.
gt = 5 + 4 * (truth == 2 | truth == 4);
s.supSet.numberOfClasses = 2;
s.supSet.structureLevels = [1 1];
s.supSet.structurePaths = [0 1];
[out, summary, reports] = dhc(DhcProblem(img, [], [], gt), s);
dhc_check(isequal(out.segmentation, gt), 'two classes: the ground truth is reproduced');
dhc_check(summary.NClass == 2 && summary.NSplit == 1, 'two classes: one split');
dhc_check(isempty(out.fragmentation), 'no fragmentation');

% Four classes in two levels: {1, 2} under the first child of the root and
% {3, 4} under the second (column vectors are read as well as rows).
s.supSet.numberOfClasses = 4;
s.supSet.structureLevels = [2; 2; 2; 2];
s.supSet.structurePaths = [0 0  0 1  1 0  1 1];
[out, summary, reports] = dhc(DhcProblem(img, [], [], truth), s);
dhc_check(isequal(out.segmentation, truth), 'four classes: the ground truth is reproduced');
dhc_check(summary.NClass == 4 && summary.NSplit == 3, 'four classes: three splits');
dhc_check(all(arrayfun(@(r) r.depth == 2 || r.nChildren > 0, reports)), 'every class at depth 2');
dhc_check(numel(reports) == 7, 'root, two inner nodes, four classes');

% Supervised runs with fragmentation use the one-output form.
s.fragmentation = 1;
out = dhc(DhcProblem(img, [], [], truth), s);
dhc_check(isequal(out.segmentation, truth), 'fragmentation run: same classes');
dhc_check(dhc_same_partition(out.fragmentation, truth), 'one fragment per connected class');

printf('test_supervised: passed\n');
