% The MEX module and the command-line tool `dhc segment` give identical label
% maps for the same image, maps and settings.

tool = getenv('DHC_TOOL');
dhc_check(~isempty(tool) && exist(tool, 'file') == 2, 'the dhc tool is not built (DHC_TOOL="%s")', tool);
dir = fullfile(getenv('DHC_TEST_TMP'), 'mex_vs_tool');
if ~exist(dir, 'dir'), mkdir(dir); end

function seg = run_tool(tool, dir, name, img, s, maps)
  % Runs `dhc segment` on img with the settings s (as an ini file) and the
  % optional maps (struct with fields mask, init, gt), returns its label map.
  image = fullfile(dir, [name '_image.hraw']);
  ini = fullfile(dir, [name '.ini']);
  labels = fullfile(dir, [name '_labels.hraw']);
  dhc_write_hraw(image, img);
  dhc_write_ini(ini, s);
  % The ini file must give the tool the settings the object gives the module
  % (a supervised ini file leaves the unsupervised keys unread).
  a = dhc_config_probe(ini);
  b = dhc_config_probe(s);
  if s.supervisedMode
    unsup = {'variableMultiplicity', 'splitGainThreshold', 'maxNumberOfClasses', 'minSplitArea', 'blind', ...
             'metric', 'distorsionThreshold', 'balancedTree', 'growDepth', 'doubleSplit', ...
             'splitwiseDisconnect', 'blindActive', 'blindDepth', 'blindMSE', 'blindArea'};
    a = rmfield(a, unsup);
    b = rmfield(b, unsup);
  end
  dhc_check(isequal(a, b), '%s: ini and object settings differ', name);
  cmd = sprintf('"%s" segment "%s" -o "%s" --config "%s" -q', tool, image, labels, ini);
  for m = fieldnames(maps)'
    file = fullfile(dir, [name '_' m{1} '.hraw']);
    dhc_write_hraw(file, maps.(m{1}));
    cmd = [cmd sprintf(' --%s "%s"', m{1}, file)];
  end
  [status, output] = system(cmd);
  dhc_check(status == 0, '%s: dhc segment failed (%d): %s', name, status, output);
  seg = dhc_read_hraw(labels);
end

function compare(tool, dir, name, img, s, maps)
  p = DhcProblem(img);
  if isfield(maps, 'init'), p.initSeg = maps.init; end
  if isfield(maps, 'mask'), p.roi = maps.mask; end
  if isfield(maps, 'gt'), p.gt = maps.gt; end
  out = dhc_one_or_three(p, s);
  seg = run_tool(tool, dir, name, img, s, maps);
  dhc_check(isequal(size(seg), size(out.segmentation)), '%s: sizes differ', name);
  dhc_check(isequal(seg, out.segmentation), '%s: label maps differ in %d pixels', name, ...
            nnz(seg ~= out.segmentation));
  dhc_check(numel(unique(seg)) > 1 || all(seg(:) > 0), '%s: a real segmentation', name);
end

[img, truth] = dhc_quadrants(24, 28, 3);

% The shipped defaults on both sides (the tool reads them from the ini file
% written from DhcSettings(), which equals examples/default.ini).
compare(tool, dir, 'defaults', img, DhcSettings(), struct());

% Test settings with an initial segmentation holding zeros, and with a mask.
s = dhc_test_settings();
init = 1 + (truth > 2);
init(1:3, :) = 0;
compare(tool, dir, 'init', img, s, struct('init', init));
mask = ones(24, 28);
mask(:, 1:4) = 0;
mask(10, 10) = 2;
compare(tool, dir, 'mask', img, s, struct('mask', mask));

% Blind splitting by distortion, and a balanced tree.
b = s;
b.unsupSet.blind = 1;
b.unsupSet.blindSet.metric = 2;
b.unsupSet.classicSet.maxNumberOfClasses = 6;
compare(tool, dir, 'blind', img, b, struct());
t = s;
t.unsupSet.balancedTree = 1;
t.unsupSet.growDepth = 2;
compare(tool, dir, 'balanced', img, t, struct());

% Fragmentation (one-output form).
f = s;
f.fragmentation = 1;
compare(tool, dir, 'fragmentation', img, f, struct());

% Supervised.
v = s;
v.supervisedMode = 1;
v.supSet.numberOfClasses = 4;
v.supSet.structureLevels = [2 2 2 2];
v.supSet.structurePaths = [0 0 0 1 1 0 1 1];
compare(tool, dir, 'supervised', img, v, struct('gt', truth));

printf('test_mex_vs_tool: passed\n');
