% Errors: the usage message for wrong argument or output counts, the readers'
% rank assertions, the refusals of inputs the core would address out of
% bounds, and a fatal condition of the core (a supervised split that fails on
% singular class models, status -2).  The session goes on after every one of
% them.

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
};
for k = 1:rows(refusals)
  r = refusals(k, :);
  if literal && strcmp(r{1}, 'dhc:assert'), continue; end   % the literal build aborts
  e = dhc_expect_error(r{1:3}, @dhc, r{4:5});
  dhc_check(~strcmp(r{1}, 'dhc:assert') || ~isempty(strfind(e.message, '../src/mex/mxGrip.h:')), e.message);
end

% Two equal bands make both class models singular: the supervised split
% fails, a fatal condition of the core.
twin = img;
twin(:, :, 2) = twin(:, :, 1);
gtTwo = 1 + (truth > 2);
if literal
  % The literal build ends the host process with the status: -2 is 254.
  code = ['[img, truth] = dhc_quadrants(8, 8, 2); img(:, :, 2) = img(:, :, 1); s = dhc_test_settings(); ' ...
          's.supervisedMode = 1; s.supSet = struct(''numberOfClasses'', 2, ''structureLevels'', [1 1], ' ...
          '''structurePaths'', [0 1]); [a, b, c] = dhc(DhcProblem(img, [], [], 1 + (truth > 2)), s);'];
  status = system(sprintf('"%s" --quiet --norc --eval "addpath(%s); %s"', getenv('DHC_OCTAVE'), ...
                          getenv('DHC_ADDPATH'), code));
  dhc_check(status == 254, 'a fatal condition ends the process with status 254, got %d', status);
else
  dhc_expect_error('dhc:fatal:m2', 'fatal condition (status -2)', 3, @dhc, DhcProblem(twin, [], [], gtTwo), sup);
end

% The session goes on: a supervised run whose ground truth has unlabelled
% pixels, and integer data with a logical mask, read as their values.
[out, ~, ~] = dhc(DhcProblem(img, [], [], gt2), sup);
dhc_check(all(out.segmentation(:) > 0), 'two classes and unlabelled pixels');
[a, b, c] = dhc(struct('data', int32(img), 'roi', true(8)), s);
[a2, b2, c2] = dhc(p, s);
dhc_check(isequal({a, b, c}, {a2, b2, c2}) && b.NClass == 4, 'int32 data and a logical mask');

printf('test_errors: passed\n');
