% The three-output and one-output forms of dhc on small generated images:
% every field, shape and order, the tree against the label map, the console
% lines, and a supervised run reproducing its ground truth.

[img, truth] = dhc_quadrants(16, 20, 2);
s = dhc_test_settings();
[out, summary, reports] = dhc(DhcProblem(img), s);
dhc_check(isequal(fieldnames(out), {'segmentation'; 'fragmentation'}) && isscalar(out), 'output fields');
dhc_check(isa(out.segmentation, 'double') && isequal(size(out.segmentation), [16 20]) && ...
          isempty(out.fragmentation), 'a 16x20 double map, no fragmentation matrix');
dhc_check(dhc_same_partition(out.segmentation, truth) && summary.NSplit == 3, 'quadrants in three splits');
dhc_check_tree(img, out.segmentation, summary, reports);
% Gain-driven splitting scores every region, which refreshes its energy.
dhc_check(all(abs([reports.TlkE] - [reports.area]) < 1e-6 * [reports.area]), 'energies n * 2 / 2');
% The root's row lists all four classes, the two deeper rows two each.
dhc_check(all(sum(summary.OffspringMat ~= 0, 2) == [4; 2; 2]), 'OffspringMat rows padded with zeros');

% One class allowed: the root alone, no split order.
s1 = s;
s1.unsupSet.classicSet.maxNumberOfClasses = 1;
[out, summary, reports] = dhc(DhcProblem(img), s1);
dhc_check(isscalar(reports) && all(out.segmentation(:) == reports.label), 'one class: the root alone');
dhc_check_tree(img, out.segmentation, summary, reports);

% One-output form: fragmentation.  The quadrants are connected, so each class
% is one fragment.
sf = s;
sf.fragmentation = 1;
out = dhc(DhcProblem(img), sf);
dhc_check(isequal(fieldnames(out), {'segmentation'; 'fragmentation'}), 'one-output field names');
dhc_check(dhc_same_partition(out.segmentation, truth) && dhc_same_partition(out.fragmentation, truth), ...
          'four classes, one fragment each');
% Split-wise disconnection leaves no fragmentation matrix.
sf.unsupSet.splitwiseDisconnect = 1;
out = dhc(DhcProblem(img), sf);
dhc_check(isempty(out.fragmentation) && all(out.segmentation(:) > 0), 'split-wise disconnection');

% The core's progress lines reach the console (evalc captures mexPrintf):
% variable multiplicity reports the mean-shift sample, min(pixels, 3000).
sv = s;
sv.unsupSet.variableMultiplicity = 1;
console = evalc('[out, summary, reports] = dhc(DhcProblem(img), sv);');
dhc_check(~isempty(strfind(console, 'N.L.P. = 320')) && ~isempty(strfind(console, 'Modes found:')), ...
          'progress lines on the console: [%s]', console);

% Supervised: four classes, {1, 2} under the root's first child and {3, 4}
% under its second.  The label map shows the ground truth's labels.
gt = 2 * truth + 3;
sup = s;
sup.supervisedMode = 1;
sup.supSet = struct('numberOfClasses', 4, 'structureLevels', [2 2 2 2], ...
                    'structurePaths', [0 0  0 1  1 0  1 1]);
[out, summary, reports] = dhc(DhcProblem(img, [], [], gt), sup);
dhc_check(isequal(out.segmentation, gt), 'the ground truth is reproduced');
leaves = reports([reports.nChildren] == 0);
dhc_check(numel(reports) == 7 && all([leaves.depth] == 2), 'root, two inner regions, four leaves');

printf('test_outputs: passed\n');
