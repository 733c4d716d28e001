% Inputs the module refuses before the core sees them, and inputs it reads
% correctly: sparse arrays, a settings object without supSet in an
% unsupervised run.

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

% A refusal of the shared check (tests/frontend/SettingsCheck_test.cpp holds
% every case) reaches the user as an error with its identifier, naming the
% property: a setting, a class structure read from the object's lists, and the
% region inputs.
cases = {
  DhcProblem(img), with(s, 'unsupSet.multiplicity', 1), 'dhc:badSetting', ...
      'unsupSet.multiplicity must be at least 2 (children per split)'
  DhcProblem(img), with(s, 'engineSet.betaMin', 2), 'dhc:badSetting', ...
      'engineSet.betaMin must not exceed engineSet.betaMax'
  DhcProblem(img, [], [], gt2), with(sup, 'supSet.structurePaths', [0 2]), 'dhc:badStructure', ...
      'supSet.structurePaths: path entry 2 skips a child index (paths must number children 0, 1, 2, ...)'
  DhcProblem(img, [], [], gt2), with(sup, 'supSet.structureLevels', 1), 'dhc:badStructure', ...
      'supSet.structureLevels must list 2 path lengths (supSet.numberOfClasses)'
  DhcProblem(img, [], zeros(8)), s, 'dhc:emptyRoi', 'the region of interest is empty: no mask value is 1'
  DhcProblem(img, [], [], negative), sup, 'dhc:badGroundTruth', ...
      '"gt" holds the negative label -1 in the region of interest; class labels are positive, 0 marks unlabelled pixels'
  DhcProblem(img, [], three), with(s, 'unsupSet.multiplicity', 4), 'dhc:badSetting', ...
      'unsupSet.multiplicity (4) exceeds the 3 pixels of the region of interest'
  DhcProblem(img), sup, 'dhc:missingProperty', ...
      'supervised mode (supervisedMode=1) needs a ground truth: "gt"'
};
for k = 1:rows(cases)
  dhc_expect_error(cases{k, 3:4}, 3, @dhc, cases{k, 1:2});
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
