% matlab/dhc_build compiles the module from a copy of matlab/ and src/ with
% Octave's own mex, from the list CMake reads too; the module it builds gives
% the same outputs as the CMake-built one.  Until it is built, the help stub
% dhc.m answers with a clear error.

source = getenv('DHC_SOURCE_DIR');
scratch = fullfile(getenv('DHC_TEST_TMP'), 'toolbox');
if exist(scratch, 'dir')
  confirm_recursive_rmdir(false, 'local');
  rmdir(scratch, 's');
end
mkdir(scratch);
copyfile(fullfile(source, 'matlab'), fullfile(scratch, 'matlab'));
copyfile(fullfile(source, 'src'), fullfile(scratch, 'src'));
here = fileparts(mfilename('fullpath'));

% Reference: the CMake-built module, first on the path.
dhc_check(exist('dhc') == 3, 'the CMake-built module is expected first on the path, found %s', which('dhc'));
expected = dhc_toolbox_runs();

dhc_expect_error('dhc:build:mode', 'must be ''release'' or ''debug''', 0, @dhc_build, 'fast');

% The stub, and then the built module, in a fresh Octave that sees only the
% scratch toolbox and the test helpers.
result = fullfile(scratch, 'runs.bin');
octave = getenv('DHC_OCTAVE');
run = @(code) system(sprintf('"%s" --no-window-system --quiet --norc --eval "addpath(''%s'', ''%s''); %s" 2>&1', ...
                             octave, fullfile(scratch, 'matlab'), here, code));
[status, output] = run('try, dhc(1, 2); catch e, disp(e.identifier); exit(3); end');
dhc_check(status == 3 && ~isempty(strfind(output, 'dhc:notBuilt')), 'the unbuilt stub: %d, %s', status, output);

[status, output] = run(sprintf('dhc_build; r = dhc_toolbox_runs(); save(''-binary'', ''%s'', ''r''); exit(0)', result));
dhc_check(status == 0, 'dhc_build and the runs failed (%d): %s', status, output);
dhc_check(numel(dir(fullfile(scratch, 'matlab', 'dhc.mex'))) == 1, 'no module in the scratch matlab/ folder');
built = load(result);
for name = fieldnames(expected)'
  dhc_check(isequal(built.r.(name{1}), expected.(name{1})), '%s: the two builds give different outputs', name{1});
end

% A source list entry that does not exist is named.
f = fopen(fullfile(scratch, 'src', 'mex', 'sources.list'), 'a');
fprintf(f, 'src/nowhere/missing.cpp\n');
fclose(f);
[status, output] = run('dhc_build');
dhc_check(status ~= 0 && ~isempty(strfind(output, 'src/nowhere/missing.cpp')), ...
          'a missing listed source: %d, %s', status, output);

printf('test_toolbox_build: passed\n');
