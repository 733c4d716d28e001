% The region of interest and the data: empty initSeg and roi mean the whole
% frame; initSeg labels of 0 or below and roi values other than 1 leave their
% pixels out (0 in "segmentation"); a 2-D data array is one band; values
% truncate toward zero.

[img, truth] = dhc_quadrants(12, 14, 2);
s = dhc_test_settings();

[a, sa, ra] = dhc(DhcProblem(img, [], []), s);
[b, sb, rb] = dhc(DhcProblem(img, ones(12, 14), ones(12, 14)), s);
dhc_check(isequal(a, b) && isequal(sa, sb) && isequal(ra, rb), 'empty maps = all ones');
dhc_check(all(a.segmentation(:) > 0) && ra([ra.depth] == 0).area == 12 * 14, 'the whole frame');

% Two initial regions with a border labelled 0 and -3: the border reads 0, and
% the initial regions are never merged, so each class lies inside one.
init = 1 + (repmat(1:14, 12, 1) > 7);
init(1, :) = 0;
init(:, end) = -3;
[out, summary, reports] = dhc(DhcProblem(img, init), s);
seg = out.segmentation;
dhc_check(isequal(seg > 0, init > 0), 'pixels labelled 0 or below read 0, the others are segmented');
pairs = unique([seg(init > 0) init(init > 0)], 'rows');
dhc_check(numel(unique(pairs(:, 1))) == rows(pairs), 'each class inside one initial region');
dhc_check_tree(img, seg, summary, reports);

% A mask selects the pixels equal to 1 only, at an offset from the corner.
mask = zeros(12, 14);
mask(3:10, 2:12) = 1;
mask(5, 5) = 2;
[out, summary, reports] = dhc(DhcProblem(img, [], mask), s);
dhc_check(isequal(out.segmentation > 0, mask == 1), 'the mask selects exactly the pixels equal to 1');
dhc_check_tree(img, out.segmentation, summary, reports);

% A 2-D data array is one band.
[img1, truth1] = dhc_quadrants(12, 14, 1);
[out, summary, reports] = dhc(DhcProblem(img1), s);
dhc_check(dhc_same_partition(out.segmentation, truth1), 'four levels give the four quadrants');
dhc_check_tree(img1, out.segmentation, summary, reports);

% Fractions below 1 away from zero change nothing; rounding, or flooring the
% negative band, would change the means.
neg = img;
neg(:, :, 2) = -neg(:, :, 2);
[a, sa, ra] = dhc(DhcProblem(neg + 0.9 * sign(neg)), s);
[b, sb, rb] = dhc(DhcProblem(neg), s);
dhc_check(isequal(a, b) && isequal(ra, rb), 'values truncate toward zero');

printf('test_roi: passed\n');
