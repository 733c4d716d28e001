% The MEX module and `dhc segment` give identical label maps for the same
% image, maps and settings; the tool gets the settings as --set overrides of
% its built-in defaults, which equal DhcSettings().

tool = getenv('DHC_TOOL');
file = @(name) fullfile(getenv('DHC_TEST_TMP'), ['mex_vs_tool_' name '.hraw']);

[img, truth] = dhc_quadrants(24, 28, 3);
init = 1 + (truth > 2);
init(1:3, :) = 0;
mask = ones(24, 28);
mask(:, 1:4) = 0;
mask(10, 10) = 2;
% Three classes, where the defaults find four.
s = dhc_test_settings();
s.unsupSet.classicSet.maxNumberOfClasses = 3;
three = {'UNSUPERVISED_MODE_CONF.SplitGainThreshold=0', 'UNSUPERVISED_MODE_CONF.MaxNumberOfClasses=3', ...
         'UNSUPERVISED_MODE_CONF.MinRegionArea=4'};
sf = s;
sf.fragmentation = 1;
sup = s;
sup.supervisedMode = 1;
sup.supSet = struct('numberOfClasses', 4, 'structureLevels', [2 2 2 2], ...
                    'structurePaths', [0 0 0 1 1 0 1 1]);
% Name, settings, the tool's overrides, maps, output count.
cases = {
  'defaults', DhcSettings(), {}, struct('initSeg', init), 3
  'mask', s, three, struct('roi', mask), 3
  'fragmentation', sf, [three {'UNSUPERVISED_MODE_CONF.Fragmentation=1'}], struct(), 1
  'supervised', sup, [three {'SEGM_MAIN_CONFIGURATION.SupervisedMode=1', ...
                             'SUPERVISED_MODE_CONF.NumberOfClasses=4', ...
                             'SUPERVISED_MODE_CONF.StructureLevels={2 2 2 2}', ...
                             'SUPERVISED_MODE_CONF.StructurePaths={0 0 0 1 1 0 1 1}'}], struct('gt', truth), 3
};
option = struct('initSeg', 'init', 'roi', 'mask', 'gt', 'gt');   % the tool's names of the maps
image = file('image');
labels = file('labels');
dhc_write_hraw(image, img);
for k = 1:rows(cases)
  [name, settings, sets, maps, nout] = cases{k, :};
  p = DhcProblem(img);
  sets = strcat({' --set "'}, sets, {'"'});
  cmd = [sprintf('"%s" segment "%s" -o "%s" -q', tool, image, labels) sets{:}];
  for m = fieldnames(maps)'
    p.(m{1}) = maps.(m{1});
    dhc_write_hraw(file(m{1}), maps.(m{1}));
    cmd = [cmd sprintf(' --%s "%s"', option.(m{1}), file(m{1}))];
  end
  [status, output] = system(cmd);
  dhc_check(status == 0, '%s: dhc segment failed (%d): %s', name, status, output);
  f = fopen(labels, 'r', 'ieee-le');
  seg = permute(reshape(fread(f, Inf, 'int32')(4:end), 28, 24), [2 1]);
  fclose(f);
  out = cell(1, nout);
  [out{:}] = dhc(p, settings);
  dhc_check(isequal(seg, out{1}.segmentation), '%s: the label maps differ', name);
  dhc_check(numel(unique(seg(seg > 0))) > 1, '%s: more than one class', name);
end

printf('test_mex_vs_tool: passed\n');
