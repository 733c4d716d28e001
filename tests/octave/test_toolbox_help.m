% Every function and class of the toolbox has help; the settings classes
% describe every property with its default; Contents lists the toolbox; the
% pictures drawn in MATLAB/Octave have the colours of the tool's PNG.

folder = fullfile(getenv('DHC_SOURCE_DIR'), 'matlab');
files = dir(fullfile(folder, '*.m'));
names = cellfun(@(f) f(1:end - 2), {files.name}, 'UniformOutput', false);
% All help is read before any class is used: Octave cannot re-read a loaded
% classdef file by its path.
help = struct();
for k = 1:numel(names)
  help.(names{k}) = get_help_text(fullfile(folder, files(k).name));
  dhc_check(numel(strtrim(help.(names{k}))) > 40, '%s has no help text', names{k});
end

% Each property is named in its class's help with its default, or with the
% class of the object it holds.
for cls = {'DhcSettings', 'DhcUnsupSettings', 'DhcClassicSettings', 'DhcBlindSettings', ...
           'DhcSupSettings', 'DhcEngineSettings', 'DhcProblem'}
  text = help.(cls{1});
  object = feval(cls{1});
  for p = properties(object)'
    if isobject(object.(p{1}))
      pattern = ['\<' p{1} '\>\s+' class(object.(p{1}))];
    elseif strcmp(cls{1}, 'DhcProblem')
      pattern = ['\n\s*%?\s*' p{1} '\s+\S'];
    else
      pattern = ['\<' p{1} '\>[ ,A-Za-z]*\(defaults? '];
    end
    dhc_check(~isempty(regexp(text, pattern, 'once')), '%s does not describe its property %s', cls{1}, p{1});
  end
end

% Contents names every other file of the toolbox.
contents = help.Contents;
for k = 1:numel(names)
  if ~strcmp(names{k}, 'Contents')
    dhc_check(~isempty(regexp(contents, ['\n\s*' names{k} '\s+-'], 'once')), 'Contents does not list %s', names{k});
  end
end

% 36 initial regions give 36 classes, past the palette's twenty fixed colours:
% dhc_label_image draws the tool's label map exactly as its PNG.
tool = getenv('DHC_TOOL');
if ~isempty(tool)
  [img, ~] = dhc_quadrants(36, 42, 2);
  [c, r] = meshgrid(0:41, 0:35);
  init = 1 + floor(r / 6) * 6 + floor(c / 7);
  init(1:2, :) = 0;
  tmp = getenv('DHC_TEST_TMP');
  dhc_write_hraw(fullfile(tmp, 'palette_image.hraw'), img);
  dhc_write_hraw(fullfile(tmp, 'palette_init.hraw'), init);
  [status, output] = system(sprintf('"%s" segment "%s" --init "%s" -o "%s" --png "%s" -q', tool, ...
      fullfile(tmp, 'palette_image.hraw'), fullfile(tmp, 'palette_init.hraw'), ...
      fullfile(tmp, 'palette_labels.hraw'), fullfile(tmp, 'palette.png')));
  dhc_check(status == 0, 'dhc segment failed (%d): %s', status, output);
  f = fopen(fullfile(tmp, 'palette_labels.hraw'), 'r', 'ieee-le');
  seg = permute(reshape(fread(f, Inf, 'int32')(4:end), 42, 36), [2 1]);
  fclose(f);
  dhc_check(numel(unique(seg(seg > 0))) >= 36, 'expected at least 36 classes, got %d', numel(unique(seg(seg > 0))));
  png = imread(fullfile(tmp, 'palette.png'));
  drawn = uint8(round(dhc_label_image(seg) * 255));
  dhc_check(isequal(png, drawn), 'dhc_label_image differs from the tool''s PNG at %d pixels', ...
            nnz(any(png ~= drawn, 3)));
end

printf('test_toolbox_help: passed\n');
