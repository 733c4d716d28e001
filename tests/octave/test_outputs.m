% The three-output and one-output forms of dhc on small generated images:
% every field, shape and order, and the tree against the label map.

% Four quadrants, two bands, gain-driven splitting into at most four classes.
[img, truth] = dhc_quadrants(16, 20, 2);
s = dhc_test_settings();
[out, summary, reports] = dhc(DhcProblem(img), s);

dhc_check(isequal(fieldnames(out), {'segmentation'; 'fragmentation'}), 'output field names and order');
dhc_check(isequal(size(out), [1 1]), 'output is 1x1');
seg = out.segmentation;
dhc_check(isa(seg, 'double') && isequal(size(seg), [16 20]), 'segmentation is a 16x20 double matrix');
dhc_check(isempty(out.fragmentation), 'fragmentation stays empty without fragmentation');
dhc_check(all(seg(:) > 0), 'the whole frame is segmented');
dhc_check(dhc_same_partition(seg, truth), 'the four quadrants are found');
dhc_check(summary.NClass == 4 && summary.NSplit == 3, 'two-way splits to four classes: 3 splits');
dhc_check_tree(img, seg, summary, reports);
% Gain-driven splitting refreshes the energy of every workspace it scores:
% half the summed squared Mahalanobis distances, n * d / 2.
dhc_check(all(abs([reports.TlkE] - [reports.area] * 2 / 2) < 1e-6 * [reports.area]), 'energies refreshed');
leaves = reports([reports.nChildren] == 0);
dhc_check(~isempty(leaves) && all(arrayfun(@(r) isempty(r.children) && isempty(r.area_k), leaves)), ...
          'leaf reports: children and area_k empty');
% The root's offspring row lists all four classes; deeper rows two, padded.
dhc_check(isequal(sort(summary.OffspringMat(1, :)), sort(summary.Classes')), 'root row: every class');
dhc_check(all(sum(summary.OffspringMat(2:end, :) ~= 0, 2) == 2), 'deeper rows: two classes each');

% The same run again gives the same results: the module keeps no state.
[out2, summary2, reports2] = dhc(DhcProblem(img), s);
dhc_check(isequal(out2, out) && isequal(summary2, summary) && isequal(reports2, reports), 'repeatable');

% One class allowed: no split; the summary has an empty split order.
s1 = s;
s1.unsupSet.classicSet.maxNumberOfClasses = 1;
[out, summary, reports] = dhc(DhcProblem(img), s1);
dhc_check(numel(reports) == 1 && summary.NClass == 1 && summary.NSplit == 0, 'one class: root only');
dhc_check(isempty(summary.SplitOrder) && isempty(summary.OffspringMat), 'no split: empty SplitOrder, OffspringMat');
dhc_check(isequal(summary.Classes, reports.label) && all(out.segmentation(:) == reports.label), 'root label');
dhc_check_tree(img, out.segmentation, summary, reports);

% maxNumberOfClasses is truncated toward zero: 3.9 allows three classes.
s39 = s;
s39.unsupSet.classicSet.maxNumberOfClasses = 3.9;
[~, summary, ~] = dhc(DhcProblem(img), s39);
dhc_check(summary.NClass == 3, 'maxNumberOfClasses 3.9 acts as 3 (got %d)', summary.NClass);

% One-output form: fragmentation on.  Fragments are connected pieces inside
% the classes, so every fragment lies inside one class.
sf = s;
sf.fragmentation = 1;
out = dhc(DhcProblem(img), sf);
dhc_check(isequal(fieldnames(out), {'segmentation'; 'fragmentation'}), 'one-output field names');
frag = out.fragmentation;
dhc_check(isequal(size(frag), [16 20]) && all(frag(:) > 0), 'fragmentation covers the frame');
pairs = unique([frag(:) out.segmentation(:)], 'rows');
dhc_check(numel(unique(pairs(:, 1))) == rows(pairs), 'each fragment lies in one class');
dhc_check(dhc_same_partition(out.segmentation, truth), 'segmentation with fragmentation');
% The quadrants are connected, so each class is exactly one fragment.
dhc_check(dhc_same_partition(frag, truth), 'one fragment per quadrant');

% One-output form: split-wise disconnection (no fragmentation matrix then).
sd = s;
sd.unsupSet.splitwiseDisconnect = 1;
sd.fragmentation = 1;
out = dhc(DhcProblem(img), sd);
dhc_check(isempty(out.fragmentation), 'no fragmentation matrix with split-wise disconnection');
dhc_check(all(out.segmentation(:) > 0), 'split-wise disconnection segments the frame');

% Progress lines of the core reach the Octave console (evalc captures what
% mexPrintf prints): with variable multiplicity the mean-shift estimate
% reports its sample size, min(pixels, 3000) = 320, and the modes it found.
sv = s;
sv.unsupSet.variableMultiplicity = 1;
console = evalc('[out, summary, reports] = dhc(DhcProblem(img), sv);');
dhc_check(~isempty(strfind(console, 'N.L.P. = 320')), 'progress line on the console: [%s]', console);
dhc_check(~isempty(strfind(console, 'Modes found:')), 'modes on the console: [%s]', console);
dhc_check_tree(img, out.segmentation, summary, reports);

% Plain structs are accepted in place of the objects.
warning('off', 'Octave:classdef-to-struct');
p = struct('data', img, 'initSeg', [], 'roi', [], 'gt', []);
st = struct(s);
st.unsupSet = struct(s.unsupSet);
st.unsupSet.classicSet = struct(s.unsupSet.classicSet);
st.unsupSet.blindSet = struct(s.unsupSet.blindSet);
st.supSet = struct(s.supSet);
st.engineSet = struct(s.engineSet);
[outS, summaryS, reportsS] = dhc(p, st);
[outO, summaryO, reportsO] = dhc(DhcProblem(img), s);
dhc_check(isequal(outS, outO) && isequal(summaryS, summaryO) && isequal(reportsS, reportsO), 'structs = objects');
% A struct without the optional maps works as well.
outS = dhc(struct('data', img), sf);
dhc_check(all(outS.segmentation(:) > 0), 'data-only struct');

printf('test_outputs: passed\n');
