function dhc_build(mode)
% dhc_build  Compile the dhc MEX module from inside MATLAB or GNU Octave.
%
%   dhc_build            optimised build
%   dhc_build('debug')   debug build (symbols, no optimisation)
%
%   The module is written into this folder (matlab/), next to the settings
%   classes, so that addpath of this one folder is enough to use it.  The
%   sources are taken from the src/ folder beside it, as listed in
%   src/mex/sources.list, the list the CMake build reads too.  It needs a C++17
%   compiler: in MATLAB the one "mex -setup C++" selects, in Octave the one
%   mkoctfile was built with.  No CMake, make or other library is needed.
%
%   See also dhc, Contents.

  if nargin < 1
    mode = 'release';
  end
  if ~ischar(mode) || ~any(strcmp(mode, {'release', 'debug'}))
    error('dhc:build:mode', 'dhc_build: the mode must be ''release'' or ''debug''');
  end
  debug = strcmp(mode, 'debug');

  here = fileparts(mfilename('fullpath'));
  root = fileparts(here);
  sources = listed_sources(root);
  include = ['-I' fullfile(root, 'src')];
  octave = exist('OCTAVE_VERSION', 'builtin') ~= 0;

  fprintf('dhc_build: compiling %d files into %s (%s)\n', numel(sources), here, mode);
  if octave
    build_octave(here, include, sources, debug);
  else
    build_matlab(here, include, sources, debug);
  end
  % Forget the help stub (or an older module) so the next call runs this build.
  clear('dhc');
  rehash();
  fprintf('dhc_build: done; addpath(''%s'') and try "help dhc"\n', here);
end

function files = listed_sources(root)
  % The entries of src/mex/sources.list, folders expanded to their .cpp files.
  list = fullfile(root, 'src', 'mex', 'sources.list');
  fid = fopen(list, 'r');
  if fid < 0
    error('dhc:build:sources', 'dhc_build: cannot read %s: the src/ folder must sit beside matlab/', list);
  end
  text = fread(fid, Inf, 'char=>char')';
  fclose(fid);
  files = {};
  lines = regexp(text, '\r?\n', 'split');
  for i = 1:numel(lines)
    entry = strtrim(lines{i});
    if isempty(entry) || entry(1) == '#'
      continue;
    end
    path = fullfile(root, strrep(entry, '/', filesep));
    if entry(end) == '/'
      found = dir(fullfile(path, '*.cpp'));
      names = sort({found.name});
      files = [files, cellfun(@(n) fullfile(path, n), names, 'UniformOutput', false)]; %#ok<AGROW>
    else
      if ~exist(path, 'file')
        error('dhc:build:sources', 'dhc_build: %s lists %s, which does not exist', list, entry);
      end
      files{end + 1} = path; %#ok<AGROW>
    end
  end
end

function build_octave(here, include, sources, debug)
  [cxx, status] = mkoctfile('-p', 'CXX');
  cxx = strtrim(cxx);
  if status ~= 0 || isempty(cxx) || system(sprintf('%s --version > %s 2>&1', cxx, null_device())) ~= 0
    error('dhc:build:noCompiler', ...
          'dhc_build: Octave''s C++ compiler "%s" cannot be run; install it (e.g. g++) and try again', cxx);
  end
  if debug
    flags = '-std=c++17 -g -O0';
  else
    flags = '-std=c++17 -O2 -DNDEBUG';
  end
  % mkoctfile takes its compiler flags from the environment.
  saved = getenv('CXXFLAGS');
  setenv('CXXFLAGS', flags);
  cleanup = onCleanup(@() setenv('CXXFLAGS', saved));
  out = fullfile(here, ['dhc.' mexext()]);
  [output, status] = mkoctfile('--mex', include, '-o', out, sources{:});
  if status ~= 0
    error('dhc:build:compile', 'dhc_build: compilation failed:\n%s', output);
  end
end

function build_matlab(here, include, sources, debug)
  if isempty(mex.getCompilerConfigurations('C++', 'Selected'))
    error('dhc:build:noCompiler', ...
          'dhc_build: no C++ compiler is configured for MATLAB; run "mex -setup C++" and try again');
  end
  if ispc
    stdflag = 'COMPFLAGS=$COMPFLAGS /std:c++17';
  else
    stdflag = 'CXXFLAGS=$CXXFLAGS -std=c++17';
  end
  if debug
    opt = '-g';
  else
    opt = '-O';
  end
  mex(opt, stdflag, include, '-outdir', here, '-output', 'dhc', sources{:});
end

function name = null_device()
  if ispc
    name = 'NUL';
  else
    name = '/dev/null';
  end
end
