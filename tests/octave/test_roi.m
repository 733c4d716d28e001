% The region of interest: empty initSeg and roi mean the whole frame with one
% initial label; zeros of a given initSeg and pixels of roi other than 1 are
% left out and read 0; a 2-D data array is one band.

[img, truth] = dhc_quadrants(12, 14, 2);
s = dhc_test_settings();

% Empty initSeg and roi: the whole frame, as with an explicit all-ones initSeg
% and an all-ones mask.
[a, sa, ra] = dhc(DhcProblem(img, [], []), s);
[b, sb, rb] = dhc(DhcProblem(img, ones(12, 14), []), s);
[c, sc, rc] = dhc(DhcProblem(img, [], ones(12, 14)), s);
dhc_check(all(a.segmentation(:) > 0), 'empty maps: the whole frame is segmented');
dhc_check(isequal(a, b, c) && isequal(sa, sb, sc) && isequal(ra, rb, rc), 'empty maps = all ones');
root = ra([ra.depth] == 0);
dhc_check(root.area == 12 * 14, 'the root covers the frame');

% initSeg with zeros (and negative labels) and an empty roi: those pixels are
% outside the region of interest and read 0.
init = ones(12, 14);
init(1, :) = 0;
init(:, end) = -3;
[out, summary, reports] = dhc(DhcProblem(img, init), s);
seg = out.segmentation;
dhc_check(all(seg(init <= 0) == 0), 'pixels labelled 0 or below read 0');
dhc_check(all(seg(init > 0) > 0), 'the other pixels are segmented');
dhc_check(reports([reports.depth] == 0).area == nnz(init > 0), 'the root covers the selected pixels');
dhc_check_tree(img, seg, summary, reports);

% A mask selects the pixels equal to 1 only; initSeg then only gives labels.
mask = zeros(12, 14);
mask(3:10, 2:12) = 1;
mask(5, 5) = 2;
[out, summary, reports] = dhc(DhcProblem(img, [], mask), s);
seg = out.segmentation;
dhc_check(isequal(seg > 0, mask == 1), 'the mask selects exactly the pixels equal to 1');
dhc_check_tree(img, seg, summary, reports);

% An initial segmentation seeds the tree: its regions are never merged, so
% every final class lies inside one initial region.
init = 1 + (repmat(1:14, 12, 1) > 7);
[out, summary, reports] = dhc(DhcProblem(img, init), s);
seg = out.segmentation;
dhc_check(all(seg(:) > 0), 'an initSeg without zeros covers the frame');
pairs = unique([seg(:) init(:)], 'rows');
dhc_check(numel(unique(pairs(:, 1))) == rows(pairs), 'each class inside one initial region');

% A 2-D data array is one band.
[img1, truth1] = dhc_quadrants(12, 14, 1);
dhc_check(ndims(img1) == 2, 'the one-band test image is 2-D');
[out, summary, reports] = dhc(DhcProblem(img1), s);
dhc_check(all([reports.bands] == 1), 'one band');
dhc_check(all(arrayfun(@(r) isscalar(r.mi) && isscalar(r.sigma), reports)), 'scalar mean and variance');
dhc_check(dhc_same_partition(out.segmentation, truth1), 'four levels give the four quadrants');
dhc_check_tree(img1, out.segmentation, summary, reports);

% Values are truncated toward zero: adding fractions below 1 away from zero
% changes nothing.
frac = img + 0.9;
[out2, summary2, reports2] = dhc(DhcProblem(frac), s);
[out3, summary3, reports3] = dhc(DhcProblem(img), s);
dhc_check(isequal(out2, out3) && isequal(reports2, reports3), 'positive fractions are dropped');
neg = -img;
[out4, ~, reports4] = dhc(DhcProblem(neg - 0.9), s);
[out5, ~, reports5] = dhc(DhcProblem(neg), s);
dhc_check(isequal(out4, out5) && isequal(reports4, reports5), 'negative fractions are dropped');

printf('test_roi: passed\n');
