% Inputs that crashed or were silently altered: degenerate regions under
% variable multiplicity (the principal components of a rank-deficient
% scatter), and complex values, whose imaginary parts were dropped.

1;  % a script, not a function file

function s = deep_variable(s)
  % A balanced tree four levels deep whose splits take their class count from
  % the mean shift: the small regions it reaches have rank-deficient scatters.
  s.unsupSet.variableMultiplicity = 1;
  s.unsupSet.balancedTree = 1;
  s.unsupSet.growDepth = 4;
end

function o = run_dhc(p, t)
  % The module gives one output when the map is cut into pieces, three otherwise.
  if t.unsupSet.splitwiseDisconnect
    o = dhc(p, t);
  else
    [o, ~, ~] = dhc(p, t);
  end
end

function img = digits_cube(text, r, c, b)
  % A rows x cols x bands image from band-sequential row-major digits.
  v = double(text) - double('0');
  img = permute(reshape(v, [c r b]), [2 1 3]);
end

s = deep_variable(dhc_test_settings());

% The image that ended Octave with a segmentation fault.
img = digits_cube(['1233003301311311220033323113010130113021030111032302123120131210121312331022' ...
                   '31101233023113222233002302333023101003233311'], 5, 8, 3);
init = digits_cube('2131321323312132333331122332223123233323', 5, 8, 1);
for disconnect = [1 0]
  t = s;
  t.unsupSet.splitwiseDisconnect = disconnect;
  o = run_dhc(DhcProblem(img, init), t);
  dhc_check(isequal(size(o.segmentation), [5 8]) && all(o.segmentation(:) > 0), ...
            'reported image, splitwiseDisconnect %d: every pixel labelled', disconnect);
end

% Every kind of degenerate region.
[r, c] = ndgrid(1:6, 1:6);
base = mod((r - 1) * 6 + c - 1, 5);
images = {
  'one pixel', reshape([1 2 3], 1, 1, 3)
  'two pixels', reshape([1 2; 3 4; 5 6], 1, 2, 3)
  'all equal', 5 * ones(6, 6, 3)
  'one band constant', cat(3, base, 9 * ones(6), base + 2)
  'collinear bands', cat(3, base, 2 * base, 3 * base)
  'one direction', cat(3, 3 + 4 * (r > 3), 3 * ones(6), 3 * ones(6))
};
for k = 1:rows(images)
  for disconnect = [1 0]
    t = s;
    t.unsupSet.splitwiseDisconnect = disconnect;
    o = run_dhc(DhcProblem(images{k, 2}), t);
    dhc_check(all(o.segmentation(:) > 0), '%s, splitwiseDisconnect %d: every pixel labelled', ...
              images{k, 1}, disconnect);
  end
end

% Complex values are refused, not cut to their real parts; a zero imaginary
% part loses nothing and is read.
[img, ~] = dhc_quadrants(8, 8, 2);
plain = dhc_test_settings();
data = complex(img, zeros(size(img)));
data(2, 3, 2) = 7 + 2i;   % element 2 + 8 * 2 + 64
dhc_expect_error('dhc:badProperty', '"data" holds the complex value 7+2i at element 82; values must be real', ...
                 3, @dhc, struct('data', data), plain);
warning('off', 'Octave:classdef-to-struct');
t = struct(plain);
t.engineSet = struct(t.engineSet);
t.engineSet.betaMax = 1.5 - 0.5i;
dhc_expect_error('dhc:badProperty', '"betaMax" holds the complex value 1.5-0.5i at element 1; values must be real', ...
                 3, @dhc, DhcProblem(img), t);
[a, ~, ~] = dhc(struct('data', complex(img, zeros(size(img)))), plain);
[b, ~, ~] = dhc(DhcProblem(img), plain);
dhc_check(isequal(a.segmentation, b.segmentation), 'a zero imaginary part is read as the real value');

printf('test_hardening: passed\n');
