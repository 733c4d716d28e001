% Argument checks: the usage message for wrong argument counts and for output
% counts that do not fit the settings, the readers' rank assertions, and the
% refusals of inputs the core cannot address.

usage = 'Wrong in/out arguments. Check usage!';
img = dhc_quadrants(8, 8, 2);
p = DhcProblem(img);
s = dhc_test_settings();

% Input and output counts: two inputs, one or three outputs.
dhc_expect_error(@() dhc(p), '', usage);
dhc_expect_error(@() dhc(p, s, s), '', usage);
dhc_expect_error(@() dhc(), '', usage);
function two_outputs(p, s)
  [a, b] = dhc(p, s);
end
function four_outputs(p, s)
  [a, b, c, d] = dhc(p, s);
end
dhc_expect_error(@() two_outputs(p, s), '', usage);
dhc_expect_error(@() four_outputs(p, s), '', usage);

% The tree outputs exist exactly when there is no fragmentation and, in
% unsupervised runs, no split-wise disconnection.
sf = s;
sf.fragmentation = 1;
dhc_expect_error(@() dhc_three(p, sf), '', usage);
sd = s;
sd.unsupSet.splitwiseDisconnect = 1;
dhc_expect_error(@() dhc_three(p, sd), '', usage);
% ... and a run that has them must ask for them.
function one_output(p, s)
  a = dhc(p, s);
end
dhc_expect_error(@() one_output(p, s), '', usage);

% Rank assertions of the array readers.
if dhc_literal_build()
  % The literal build aborts the host process, as a failed C assertion does.
  [status, output] = dhc_child_octave('[a, b, c] = dhc(DhcProblem(ones(8), ones(8, 8, 2)), dhc_test_settings());');
  dhc_check(status == 134, 'abort ends the process with status 134, got %d', status);
  dhc_check(~isempty(strfind(output, '../src/mex/mxGrip.h:')) && ...
            ~isempty(strfind(output, 'Assertion `(nd == 2)'' failed.')), 'assertion text: %s', output);
  printf('test_arguments: passed (literal exit)\n');
  return;
end
dhc_expect_error(@() one_output(DhcProblem(ones(4, 4, 2, 2)), sf), 'dhc:assert', '(nd == 2 || nd == 3)');
dhc_expect_error(@() dhc_three(DhcProblem(img, ones(8, 8, 2)), s), 'dhc:assert', '(nd == 2)');
dhc_expect_error(@() dhc_three(DhcProblem(img, [], ones(8, 8, 2)), s), 'dhc:assert', '(nd == 2)');
% An empty map is read too, so an empty array of three dimensions fails.
dhc_expect_error(@() dhc_three(DhcProblem(img, zeros(0, 0, 2)), s), 'dhc:assert', '(nd == 2)');
e = dhc_expect_error(@() dhc_three(DhcProblem(img, [], ones(8, 8, 2)), s), 'dhc:assert', '../src/mex/mxGrip.h:');
dhc_check(~isempty(strfind(e.message, 'Assertion `(nd == 2)'' failed.')), 'assertion text: %s', e.message);
sup = s;
sup.supervisedMode = 1;
sup.supSet.numberOfClasses = 2;
sup.supSet.structureLevels = [1 1; 1 1];
sup.supSet.structurePaths = [0 1];
dhc_expect_error(@() dhc_three(DhcProblem(img, [], [], ones(8)), sup), 'dhc:assert', '(dim[0] == 1 || dim[1] == 1)');

% Inputs the core would address out of bounds are refused.
dhc_expect_error(@() dhc_three(DhcProblem(img, ones(8, 7)), s), 'dhc:sizeMismatch', '"initSeg"');
dhc_expect_error(@() dhc_three(DhcProblem(img, [], ones(9, 8)), s), 'dhc:sizeMismatch', '"roi"');
sup.supSet.structureLevels = [1 1];
dhc_expect_error(@() dhc_three(DhcProblem(img, [], [], ones(8, 9)), sup), 'dhc:sizeMismatch', '"gt"');
dhc_expect_error(@() dhc_three(DhcProblem(img), sup), 'dhc:missingProperty', '"gt"');
% The ground truth must hold numberOfClasses classes (its non-zero labels),
% more or fewer would make the core read past its class models.
[~, truth] = dhc_quadrants(8, 8, 2);
dhc_expect_error(@() dhc_three(DhcProblem(img, [], [], truth), sup), 'dhc:badGroundTruth', ...
                 '"gt" holds 4 classes');
dhc_expect_error(@() dhc_three(DhcProblem(img, [], [], ones(8)), sup), 'dhc:badGroundTruth', ...
                 'numberOfClasses is 2');
% Unlabelled (0) pixels are not a class; a mask can leave a class out.
gt2 = 1 + (truth > 2);
gt2(1, :) = 0;
[out, ~, ~] = dhc(DhcProblem(img, [], [], gt2), sup);
dhc_check(all(out.segmentation(:) > 0), 'two classes and unlabelled pixels');
mask = double(truth <= 2);
dhc_expect_error(@() dhc_three(DhcProblem(img, [], mask, gt2), sup), 'dhc:badGroundTruth', 'holds 1 class (');
sup.supSet.structurePaths = 0;
dhc_expect_error(@() dhc_three(DhcProblem(img, [], [], ones(8)), sup), 'dhc:badStructure');
dhc_expect_error(@() dhc_three(DhcProblem([]), s), 'dhc:badProperty', '"data"');
dhc_expect_error(@() dhc_three(struct('initSeg', []), s), 'dhc:missingProperty', '"data"');
dhc_expect_error(@() dhc_three(p, struct('supervisedMode', 0)), 'dhc:missingProperty', '"unsupSet"');
bad = s;
bad.engineSet.betaMax = [];
dhc_expect_error(@() dhc_three(p, bad), 'dhc:badProperty', '"betaMax"');
bad = s;
bad.engineSet.betaMax = 'x';
dhc_expect_error(@() dhc_three(p, bad), 'dhc:badProperty', '"betaMax"');

% Integer and logical arrays are read as their values.
[a, b, c] = dhc(struct('data', int32(img), 'roi', true(8)), s);
[a2, b2, c2] = dhc(p, s);
dhc_check(isequal(a, a2) && isequal(b, b2) && isequal(c, c2), 'int32 data and a logical mask');

% The session goes on after every refusal: a valid call still works.
[out, summary, reports] = dhc(p, s);
dhc_check(all(out.segmentation(:) > 0) && summary.NClass >= 1, 'a valid call after the refusals');

printf('test_arguments: passed\n');
