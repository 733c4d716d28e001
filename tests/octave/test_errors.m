% Errors: the usage message for wrong argument or output counts, the readers'
% rank assertions, the refusals of inputs the core would address out of
% bounds, and a fatal condition of the core (an unknown blind metric, status
% -20).  The session goes on after every one of them.

usage = 'Wrong in/out arguments. Check usage!';
[img, truth] = dhc_quadrants(8, 8, 2);
p = DhcProblem(img);
s = dhc_test_settings();
literal = strcmp(getenv('DHC_MEX_LITERAL_EXIT'), '1');

% Two inputs; three outputs exactly when the run has a tree: no fragmentation
% and, unsupervised, no split-wise disconnection.
sf = s;
sf.fragmentation = 1;
sd = s;
sd.unsupSet.splitwiseDisconnect = 1;
counts = {0, {p}; 1, {p, s, s}; 1, {}; 2, {p, s}; 4, {p, s}; 1, {p, s}; 3, {p, sf}; 3, {p, sd}};
for k = 1:rows(counts)
  dhc_expect_error('', usage, counts{k, 1}, @dhc, counts{k, 2}{:});
end

sup = s;
sup.supervisedMode = 1;
sup.supSet = struct('numberOfClasses', 2, 'structureLevels', [1 1], 'structurePaths', [0 1]);
supMatrix = sup;
supMatrix.supSet.structureLevels = [1 1; 1 1];
badValue = s;
badValue.engineSet.betaMax = 'x';
gt2 = 1 + (truth > 2);   % two classes, and a row of unlabelled pixels
gt2(1, :) = 0;
withNaN = img;
withNaN(2, 3, 1) = NaN;
withInf = img;
withInf(1, 1, 2) = Inf;
tooBig = img;
tooBig(4, 4, 1) = 3e9;
nanMask = ones(8);
nanMask(1, 1) = NaN;
function s = withSetting(s, varargin)
  % s with the dotted properties set: withSetting(s, 'engineSet.betaMin', 2, ...).
  for k = 1:2:numel(varargin)
    parts = strsplit(varargin{k}, '.');
    s = setfield(s, parts{:}, varargin{k + 1});
  end
end
% Identifier, text in the message, output count, problem, settings.
refusals = {
  'dhc:assert', '(nd == 2 || nd == 3)', 1, DhcProblem(ones(4, 4, 2, 2)), sf
  'dhc:assert', 'Assertion `(nd == 2)'' failed.', 3, DhcProblem(img, ones(8, 8, 2)), s
  'dhc:assert', '(nd == 2)', 3, DhcProblem(img, [], zeros(0, 0, 2)), s   % an empty map is read too
  'dhc:assert', '(dim[0] == 1 || dim[1] == 1)', 3, DhcProblem(img, [], [], gt2), supMatrix
  'dhc:sizeMismatch', '"initSeg"', 3, DhcProblem(img, ones(8, 7)), s
  'dhc:sizeMismatch', '"roi"', 3, DhcProblem(img, [], ones(9, 8)), s
  'dhc:sizeMismatch', '"gt"', 3, DhcProblem(img, [], [], ones(8, 9)), sup
  'dhc:missingProperty', '"gt"', 3, p, sup
  'dhc:badGroundTruth', '"gt" holds 4 classes', 3, DhcProblem(img, [], [], truth), sup
  'dhc:badGroundTruth', 'holds 1 class (', 3, DhcProblem(img, [], truth <= 2, gt2), sup
  'dhc:badProperty', '"data"', 3, DhcProblem([]), s
  'dhc:missingProperty', '"data"', 3, struct('initSeg', []), s
  'dhc:missingProperty', '"unsupSet"', 3, p, struct('supervisedMode', 0)
  'dhc:badProperty', '"betaMax"', 3, p, badValue
  % What the command-line tool refuses, the module refuses with the same text.
  'dhc:badSetting', 'settings.unsupSet.multiplicity: Multiplicity must be at least 2', 3, p, withSetting(s, 'unsupSet.multiplicity', 1)
  'dhc:badSetting', 'Multiplicity must be at least 2', 3, p, withSetting(s, 'unsupSet.multiplicity', -4)
  'dhc:badValue', '"multiplicity" is nan', 3, p, withSetting(s, 'unsupSet.multiplicity', NaN)
  'dhc:badSetting', 'Multiplicity must be at most 64', 3, p, withSetting(s, 'unsupSet.multiplicity', 1e6)
  'dhc:badSetting', 'Multiplicity (40) exceeds the number of pixels in the region of interest (36)', 3, DhcProblem(img(1:6, 1:6, :)), withSetting(s, 'unsupSet.multiplicity', 40)
  'dhc:badSetting', 'settings.engineSet.betaMin: BetaMin must not exceed BetaMax (1.5)', 3, p, withSetting(s, 'engineSet.betaMin', 2)
  'dhc:badSetting', 'BetaMin must be a finite number from -100 to 100', 3, p, withSetting(s, 'engineSet.betaMin', -1e308)
  'dhc:badSetting', 'SplitGainThreshold must be a finite number', 3, p, withSetting(s, 'unsupSet.classicSet.splitGainThreshold', NaN)
  'dhc:badSetting', 'SplitGainThreshold must be a finite number', 3, p, withSetting(s, 'unsupSet.classicSet.splitGainThreshold', -Inf)
  'dhc:badSetting', 'class path 1 is a prefix of class path 2', 3, DhcProblem(img, [], [], gt2), withSetting(sup, 'supSet.structureLevels', [1 2], 'supSet.structurePaths', [0 0 1])
  'dhc:badSetting', 'path entry 2 skips a child index', 3, DhcProblem(img, [], [], gt2), withSetting(sup, 'supSet.structurePaths', [0 2])
  'dhc:emptyRoi', 'the region of interest is empty: no mask value is 1', 3, DhcProblem(img, [], zeros(8)), s
  'dhc:badGroundTruth', '"gt" holds the negative label -1 at row 2, column 1', 3, DhcProblem(img, [], [], -gt2), sup
  % Values the readers cannot turn into integers, and sparse arrays.
  'dhc:badValue', '"data"(2, 3, 1) is nan', 3, DhcProblem(withNaN), s
  'dhc:badValue', '"data"(1, 1, 2) is inf', 3, DhcProblem(withInf), s
  'dhc:badValue', 'is 3000000000: values must be finite and within the 32-bit integer range', 3, DhcProblem(tooBig), s
  'dhc:badValue', '"roi"(1, 1) is nan', 3, DhcProblem(img, [], nanMask), s
};
for k = 1:rows(refusals)
  r = refusals(k, :);
  if literal && strcmp(r{1}, 'dhc:assert'), continue; end   % the literal build aborts
  e = dhc_expect_error(r{1:3}, @dhc, r{4:5});
  dhc_check(~strcmp(r{1}, 'dhc:assert') || ~isempty(strfind(e.message, '../src/mex/mxGrip.h:')), e.message);
end

blind = s;
blind.unsupSet.blind = 1;
blind.unsupSet.blindSet.metric = 99;
if literal
  % The literal build ends the host process with the status: -20 is 236.
  code = ['s = dhc_test_settings(); s.unsupSet.blind = 1; s.unsupSet.blindSet.metric = 99; ' ...
          '[a, b, c] = dhc(DhcProblem(dhc_quadrants(8, 8, 2)), s);'];
  status = system(sprintf('"%s" --quiet --norc --eval "addpath(%s); %s"', getenv('DHC_OCTAVE'), ...
                          getenv('DHC_ADDPATH'), code));
  dhc_check(status == 236, 'a fatal condition ends the process with status 236, got %d', status);
else
  dhc_expect_error('dhc:fatal:m20', '-20', 3, @dhc, p, blind);
end

% Sparse arrays are read as the full arrays they stand for; unsupervised
% settings may leave out supSet.
sparseImg = sparse(img(:, :, 1));
[a, b, c] = dhc(DhcProblem(sparseImg, [], sparse(truth > 1)), s);
[a2, b2, c2] = dhc(DhcProblem(img(:, :, 1), [], double(truth > 1)), s);
dhc_check(isequal({a, b, c}, {a2, b2, c2}), 'sparse data and roi read as full');
big = sparse(300, 300);
big(1, 1) = 1;
dhc_expect_error('dhc:emptyRoi', 'no mask value is 1', 3, @dhc, DhcProblem(big, [], sparse(300, 300)), s);
noSup = struct('supervisedMode', 0, 'fragmentation', 0, 'unsupSet', s.unsupSet, 'engineSet', s.engineSet);
[a3, b3, c3] = dhc(p, noSup);
[a4, b4, c4] = dhc(p, s);
dhc_check(isequal({a3, b3, c3}, {a4, b4, c4}), 'settings without supSet');

% The session goes on: a supervised run whose ground truth has unlabelled
% pixels, and integer data with a logical mask, read as their values.
[out, ~, ~] = dhc(DhcProblem(img, [], [], gt2), sup);
dhc_check(all(out.segmentation(:) > 0), 'two classes and unlabelled pixels');
[a, b, c] = dhc(struct('data', int32(img), 'roi', true(8)), s);
[a2, b2, c2] = dhc(p, s);
dhc_check(isequal({a, b, c}, {a2, b2, c2}) && b.NClass == 4, 'int32 data and a logical mask');

printf('test_errors: passed\n');
