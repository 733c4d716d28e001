% dhc_cut rebuilds from the gateway's three outputs every band of
% `dhc segment --levels` (which --cut N writes too), by number of splits and
% by number of classes, for binary and ternary splits and a supervised run;
% impossible cuts are refused.

tool = getenv('DHC_TOOL');
file = @(name) fullfile(getenv('DHC_TEST_TMP'), ['cut_' name '.hraw']);

[img, truth] = dhc_quadrants(24, 28, 3);
s = dhc_test_settings();
base = {'UNSUPERVISED_MODE_CONF.SplitGainThreshold=0', 'UNSUPERVISED_MODE_CONF.MaxNumberOfClasses=4', ...
        'UNSUPERVISED_MODE_CONF.MinRegionArea=4'};
ternary = s;
ternary.unsupSet.multiplicity = 3;
ternary.unsupSet.classicSet.maxNumberOfClasses = 5;
sup = s;
sup.supervisedMode = 1;
sup.supSet = struct('numberOfClasses', 4, 'structureLevels', [2 2 2 2], 'structurePaths', [0 0 0 1 1 0 1 1]);
cases = {
  'binary', s, base, false
  'ternary', ternary, [base {'POTTS_MODEL.Multiplicity=3', 'UNSUPERVISED_MODE_CONF.MaxNumberOfClasses=5'}], false
  'supervised', sup, [base {'SEGM_MAIN_CONFIGURATION.SupervisedMode=1', 'SUPERVISED_MODE_CONF.NumberOfClasses=4', ...
                            'SUPERVISED_MODE_CONF.StructureLevels={2 2 2 2}', ...
                            'SUPERVISED_MODE_CONF.StructurePaths={0 0 0 1 1 0 1 1}'}], true
};
dhc_write_hraw(file('image'), img);
dhc_write_hraw(file('gt'), truth);
for c = 1:rows(cases)
  [name, settings, sets, supervised] = cases{c, :};
  p = DhcProblem(img);
  cmd = sprintf('"%s" segment "%s" -q', tool, file('image'));
  if supervised
    p.gt = truth;
    cmd = [cmd sprintf(' --gt "%s"', file('gt'))];
  end
  sets = strcat({' --set "'}, sets, {'"'});
  cmd = [cmd sets{:}];
  [status, output] = system(sprintf('%s -o "%s" --levels "%s"', cmd, file('labels'), file('levels')));
  dhc_check(status == 0, '%s: dhc segment failed (%d): %s', name, status, output);
  levels = dhc_read_hraw(file('levels'));
  [out, summary, reports] = dhc(p, settings);
  seg = out.segmentation;
  dhc_check(size(levels, 3) == summary.NSplit + 1, '%s: one band per cut', name);
  % A supervised map carries ground-truth labels; its quadrants' leaves
  % have equal areas, so the image tells them apart.
  extra = {};
  if supervised
    extra = {'image', img};
    dhc_expect_error('dhc:cut:needImage', 'has the area of 4 leaves', 1, @dhc_cut, seg, summary, reports, 1);
  end
  for k = 0:summary.NSplit
    [cut, n] = dhc_cut(seg, summary, reports, k, extra{:});
    dhc_check(isequal(cut, levels(:, :, k + 1)), '%s: cut after %d splits differs from band %d', name, k, k);
    dhc_check(n == numel(unique(cut(cut > 0))), '%s: class count of cut %d', name, k);
    dhc_check(isequal(dhc_cut(seg, summary, reports, 'classes', n, extra{:}), cut), ...
              '%s: the cut with %d classes differs from band %d', name, n, k);
  end
  dhc_check(isequal(dhc_cut(seg, summary, reports, 0, extra{:}), (seg > 0) * reports(1).label), '%s: the root', name);
  if supervised
    % The last cut carries the leaves' labels where the map has the ground truth's.
    dhc_check(dhc_same_partition(dhc_cut(seg, summary, reports, summary.NSplit, extra{:}), seg), '%s: last cut', name);
  else
    dhc_check(isequal(dhc_cut(seg, summary, reports, summary.NSplit), seg), '%s: last cut', name);
  end
end

% Refusals.
[out, summary, reports] = dhc(DhcProblem(img), ternary);
seg = out.segmentation;
dhc_expect_error('dhc:cut:noCut', 'no cut of the tree has 2 classes (the cuts have 1, 3', 1, @dhc_cut, seg, ...
                 summary, reports, 'classes', 2);
dhc_expect_error('dhc:cut:badSplits', sprintf('from 0 to %d', summary.NSplit), 1, @dhc_cut, seg, summary, ...
                 reports, summary.NSplit + 1);
dhc_expect_error('dhc:cut:badSplits', 'whole number', 1, @dhc_cut, seg, summary, reports, 0.5);
merged = 999 * (seg > 0);   % one label over every class: no leaf has its area
dhc_expect_error('dhc:cut:notLeaves', 'area of label 999', 1, @dhc_cut, merged, summary, reports, 1);

printf('test_cut: passed\n');
