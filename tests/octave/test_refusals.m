% Inputs the module refuses before the core sees them, with the messages the
% command-line tool gives for the same input (the check is shared; only the
% names of the settings differ), and inputs it now reads correctly: sparse
% arrays, a settings object without supSet in an unsupervised run.

tool = getenv('DHC_TOOL');
file = @(name) fullfile(getenv('DHC_TEST_TMP'), ['refusals_' name '.hraw']);

[img, truth] = dhc_quadrants(8, 8, 2);
s = dhc_test_settings();
sup = s;
sup.supervisedMode = 1;
sup.supSet = struct('numberOfClasses', 2, 'structureLevels', [1 1], 'structurePaths', [0 1]);
gt2 = 1 + (truth > 2);
negative = gt2;
negative(gt2 == 1) = -1;
three = zeros(8);
three(2, 2:4) = 1;   % a region of three pixels

function t = with(t, path, value)
  % t with the property at path ('unsupSet.multiplicity') set to value.
  parts = strsplit(path, '.');
  t = setfield(t, parts{:}, value);
end

% MEX settings, tool arguments after "segment IMG -o OUT", identifier, and
% the text both messages hold.
supArgs = {'--set', 'SEGM_MAIN_CONFIGURATION.SupervisedMode=1', '--set', 'SUPERVISED_MODE_CONF.NumberOfClasses=2'};
cases = {
  with(s, 'unsupSet.multiplicity', 0), {'--set', 'POTTS_MODEL.Multiplicity=0'}, ...
      'dhc:badSetting', 'ultiplicity must be at least 2 (children per split)'
  with(s, 'unsupSet.multiplicity', 1), {'--set', 'POTTS_MODEL.Multiplicity=1'}, ...
      'dhc:badSetting', 'ultiplicity must be at least 2 (children per split)'
  with(s, 'unsupSet.multiplicity', -4), {'--set', 'POTTS_MODEL.Multiplicity=-4'}, ...
      'dhc:badSetting', 'ultiplicity must be at least 2 (children per split)'
  with(s, 'unsupSet.multiplicity', 1e6), {'--set', 'POTTS_MODEL.Multiplicity=1000000'}, ...
      'dhc:badSetting', 'ultiplicity must be from 2 to 64, not 1000000'
  with(s, 'engineSet.betaMin', 2), {'--set', 'POTTS_MODEL.BetaMin=2'}, ...
      'dhc:badSetting', 'etaMin must not exceed '
  with(s, 'engineSet.betaMin', -1e308), {'--set', 'POTTS_MODEL.BetaMin=-1e308'}, ...
      'dhc:badSetting', 'etaMin must be a number from -100 to 100, not -1e+308'
  with(s, 'unsupSet.classicSet.splitGainThreshold', -1e17), ...
      {'--set', 'UNSUPERVISED_MODE_CONF.SplitGainThreshold=-1e17'}, ...
      'dhc:badSetting', 'plitGainThreshold must be a number from -1e+09 to 1e+09, not -1e+17'
  with(with(s, 'unsupSet.blind', 1), 'unsupSet.blindSet.metric', 99), ...
      {'--set', 'UNSUPERVISED_MODE_CONF.Blind=1', '--set', 'UNSUPERVISED_MODE_CONF.Metric=99'}, ...
      'dhc:badSetting', 'etric must be 0 to 8'
  with(sup, 'supSet.structurePaths', [0 2]), ...
      [supArgs, {'--set', 'SUPERVISED_MODE_CONF.StructureLevels={1 1}', '--set', 'SUPERVISED_MODE_CONF.StructurePaths={0 2}'}], ...
      'dhc:badStructure', 'path entry 2 skips a child index (paths must number children 0, 1, 2, ...)'
  with(sup, 'supSet.structurePaths', [0 0]), ...
      [supArgs, {'--set', 'SUPERVISED_MODE_CONF.StructureLevels={1 1}', '--set', 'SUPERVISED_MODE_CONF.StructurePaths={0 0}'}], ...
      'dhc:badStructure', 'class path 1 repeats class path 2'
  with(sup, 'supSet.structureLevels', 1), ...
      [supArgs, {'--set', 'SUPERVISED_MODE_CONF.StructureLevels={1}', '--set', 'SUPERVISED_MODE_CONF.StructurePaths={0 1}'}], ...
      'dhc:badStructure', 'tructureLevels must list 2 path lengths ('
};
problems = {'', '', '', '', '', '', '', '', 'gt2', 'gt2', 'gt2'};
for k = 1:rows(cases)
  c = cases(k, :);
  if isempty(problems{k})
    p = DhcProblem(img);
  else
    p = DhcProblem(img, [], [], gt2);
  end
  dhc_expect_error(c{3}, c{4}, 3, @dhc, p, c{1});
end

% Region inputs: an all-zero mask, negative ground-truth labels (0 stays
% unlabelled), more children per split than pixels.
regionCases = {
  DhcProblem(img, [], zeros(8)), s, 'dhc:emptyRoi', 'the region of interest is empty: no mask value is 1'
  DhcProblem(img, [], [], negative), sup, 'dhc:badGroundTruth', ...
      'holds the negative label -1 in the region of interest; class labels are positive, 0 marks unlabelled pixels'
  DhcProblem(img, [], three), with(s, 'unsupSet.multiplicity', 4), 'dhc:badSetting', ...
      'ultiplicity (4) exceeds the 3 pixels of the region of interest'
};
for k = 1:rows(regionCases)
  dhc_expect_error(regionCases{k, 3:4}, 3, @dhc, regionCases{k, 1:2});
end

% The tool refuses the same inputs with the same words.
if ~isempty(tool)
  dhc_write_hraw(file('img'), img);
  dhc_write_hraw(file('gt2'), gt2);
  dhc_write_hraw(file('zeros'), zeros(8));
  dhc_write_hraw(file('negative'), negative);
  dhc_write_hraw(file('three'), three);
  out = file('out');
  run = @(args) system(sprintf('"%s" segment "%s" -o "%s" -q %s 2>&1', tool, file('img'), out, ...
                               strjoin(cellfun(@(a) ['"' a '"'], args, 'UniformOutput', false), ' ')));
  toolCases = [cases(:, 2:4); {
    {'--mask', file('zeros')}, '', 'the region of interest is empty: no mask value is 1'
    [supArgs, {'--set', 'SUPERVISED_MODE_CONF.StructureLevels={1 1}', '--set', ...
               'SUPERVISED_MODE_CONF.StructurePaths={0 1}', '--gt', file('negative')}], '', ...
        'holds the negative label -1 in the region of interest; class labels are positive, 0 marks unlabelled pixels'
    {'--mask', file('three'), '--set', 'POTTS_MODEL.Multiplicity=4'}, '', ...
        'ultiplicity (4) exceeds the 3 pixels of the region of interest'
  }];
  for k = 1:rows(toolCases)
    args = toolCases{k, 1};
    if k <= numel(problems) && ~isempty(problems{k})
      args = [args, {'--gt', file(problems{k})}];
    end
    [status, text] = run(args);
    dhc_check(status == 1 && ~isempty(strfind(text, toolCases{k, 3})), ...
              'tool: "%s" (status %d), expected "%s"', strtrim(text), status, toolCases{k, 3});
  end
  dhc_check(~exist(out, 'file'), 'no output after a refusal');
end

% Values that do not convert to int32 are refused, in the image, the maps and
% the settings.
values = {NaN, Inf, -Inf, 3e9, -2147483649};
for k = 1:numel(values)
  bad = img;
  bad(3, 4, 2) = values{k};
  dhc_expect_error('dhc:badValue', '"data" holds ', 3, @dhc, DhcProblem(bad), s);
end
bad = img;
bad(3, 4, 2) = NaN;   % element 3 + 8 * 3 + 64
dhc_expect_error('dhc:badValue', '"data" holds NaN at element 91; values must be finite and within the int32 range', ...
                 3, @dhc, DhcProblem(bad), s);
badRoi = ones(8);
badRoi(2) = NaN;
dhc_expect_error('dhc:badValue', '"roi" holds NaN at element 2', 3, @dhc, DhcProblem(img, [], badRoi), s);
dhc_expect_error('dhc:badSetting', 'unsupSet.multiplicity must be an integer in the int32 range, not NaN', 3, ...
                 @dhc, DhcProblem(img), with(s, 'unsupSet.multiplicity', NaN));
dhc_expect_error('dhc:badSetting', 'unsupSet.classicSet.splitGainThreshold must be a number from -1e+09 to 1e+09, not -Inf', 3, ...
                 @dhc, DhcProblem(img), with(s, 'unsupSet.classicSet.splitGainThreshold', -Inf));
dhc_expect_error('dhc:badSetting', 'supSet.numberOfClasses must be an integer in the int32 range, not Inf', 3, ...
                 @dhc, DhcProblem(img, [], [], gt2), with(sup, 'supSet.numberOfClasses', Inf));

% Sparse arrays are read as the full arrays they stand for.
flat = img(:, :, 1);
[a, b, c] = dhc(DhcProblem(flat), s);
[a2, b2, c2] = dhc(DhcProblem(sparse(flat)), s);
dhc_check(isequal({a, b, c}, {a2, b2, c2}), 'sparse data');
mask = double(truth < 4);
[a, b, c] = dhc(DhcProblem(img, [], mask), s);
[a2, b2, c2] = dhc(DhcProblem(img, [], sparse(mask)), s);
[a3, b3, c3] = dhc(DhcProblem(img, [], sparse(mask > 0)), s);
dhc_check(isequal({a, b, c}, {a2, b2, c2}, {a3, b3, c3}), 'sparse roi, double and logical');
dhc_check(all(a.segmentation(truth == 4) == 0), 'the mask holds');
% A large, nearly empty sparse image: one pixel in the region of interest.
d = sparse(2000, 2000);
d(1, 1) = 1;
one = sparse(2000, 2000);
one(5, 7) = 1;
dhc_expect_error('dhc:badSetting', '(2) exceeds the 1 pixel of the region of interest', 3, @dhc, ...
                 DhcProblem(d, [], one), s);

% An unsupervised run needs no supSet; a supervised one does.
warning('off', 'Octave:classdef-to-struct');
u = struct(s);
u = rmfield(u, 'supSet');
[a, b, c] = dhc(DhcProblem(img), u);
[a2, b2, c2] = dhc(DhcProblem(img), s);
dhc_check(isequal({a, b, c}, {a2, b2, c2}), 'no supSet in an unsupervised run');
u.supervisedMode = 1;
dhc_expect_error('dhc:missingProperty', '"supSet"', 3, @dhc, DhcProblem(img, [], [], gt2), u);

printf('test_refusals: passed\n');

% threads: a whole number from 0 to 256; any number gives the same labels.
dhc_expect_error('dhc:badSetting', '"threads" -1: must be a whole number of threads from 0 (one per core) to 256', ...
                 3, @dhc, setfield(DhcProblem(img), 'threads', -1), s);
dhc_expect_error('dhc:badSetting', '"threads" 1.5: must be a whole number', 3, @dhc, ...
                 setfield(DhcProblem(img), 'threads', 1.5), s);
dhc_expect_error('dhc:badProperty', '"threads" must be a scalar', 3, @dhc, setfield(DhcProblem(img), 'threads', [1 2]), s);
[big, ~] = dhc_quadrants(192, 192, 3);
big = big + mod((1:192)' * (1:192), 37);   % noise: the loops run over many passes
labels = {};
for threads = [1 2]
  [o, ~, ~] = dhc(setfield(DhcProblem(big), 'threads', threads), s);
  labels{end + 1} = o.segmentation;
end
dhc_check(isequal(labels{1}, labels{2}) && numel(unique(labels{1})) > 1, 'one and two threads give the same labels');
