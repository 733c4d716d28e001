% Complex values are refused, not cut to their real parts; a zero imaginary
% part loses nothing and is read.  (Degenerate regions under variable
% multiplicity are the engine's: tests/tools/hardening_test.cpp runs them.)

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
