% dhc_example  Segments a synthetic three-band image with the MEX module dhc.
%
%   Prints the split summary and one line per region, runs masked, supervised
%   and fragmented segmentations, and shows the label map and the split
%   summary in the colours of the tool's PNG pictures.
%
% Run from MATLAB or Octave with the built module and this folder on the path:
%   addpath('<build>/mex', '<source>/matlab'); dhc_example

% A 64 x 64 image: a disc and a bar on a background, three bands, some noise.
[c, r] = meshgrid(1:64, 1:64);
disc = (r - 24) .^ 2 + (c - 40) .^ 2 < 15 ^ 2;
bar = r > 44 & r < 56 & c > 8 & c < 58;
img = zeros(64, 64, 3);
base = [60 90 120; 160 70 100; 110 180 40];   % background, disc, bar (rows) x bands
noise = mod((1:64 * 64)' .^ 2 * 31 + (1:64 * 64)' * 17, 21) - 10;
for b = 1:3
  band = base(1, b) * ones(64, 64);
  band(disc) = base(2, b);
  band(bar) = base(3, b);
  img(:, :, b) = band + reshape(circshift(noise, 97 * b), 64, 64);
end

% Unsupervised, gain-driven splitting with the shipped defaults.
settings = DhcSettings();
settings.unsupSet.classicSet.maxNumberOfClasses = 3;
[out, summary, reports] = dhc(DhcProblem(img), settings);
fprintf('%d classes, %d splits; split order: %s\n', summary.NClass, summary.NSplit, mat2str(summary.SplitOrder'));
for i = 1:numel(reports)
  rep = reports(i);
  fprintf('  region %d: depth %d, %d pixels, %d children, mean %s\n', rep.label, rep.depth, rep.area, ...
         rep.nChildren, mat2str(rep.mi', 4));
end

% Only a region of interest: the pixels outside read 0.
mask = double(c > 16);
[out2, ~, ~] = dhc(DhcProblem(img, [], mask), settings);
fprintf('masked: %d pixels segmented, %d outside\n', nnz(out2.segmentation), nnz(out2.segmentation == 0));

% Supervised: the classes of a ground truth, two of them grouped under one
% inner node of the class structure.
gt = 1 + disc + 2 * bar;
sup = DhcSettings();
sup.supervisedMode = 1;
sup.supSet.numberOfClasses = 3;
sup.supSet.structureLevels = [1 2 2];
sup.supSet.structurePaths = [0  1 0  1 1];
[out3, summary3, reports3] = dhc(DhcProblem(img, [], [], gt), sup);
fprintf('supervised: %d classes\n', summary3.NClass);

% Fragmentation: connected pieces of the classes; such runs have one output.
frag = settings;
frag.fragmentation = 1;
out4 = dhc(DhcProblem(img), frag);
fprintf('fragmentation: %d fragments\n', numel(unique(out4.fragmentation)));

% A setting outside its range (here an unknown blind metric) is refused
% before anything runs, as an error with an identifier; the session goes on.
blind = settings;
blind.unsupSet.blind = 1;
blind.unsupSet.blindSet.metric = 42;
try
  [~, ~, ~] = dhc(DhcProblem(img), blind);
catch err
  fprintf('caught %s: %s\n', err.identifier, err.message);
end
fprintf('supervised: %d of %d pixels as in the ground truth\n', nnz(out3.segmentation == gt), numel(gt));

% The pictures: each class in the colour the tool's PNG gives it (the k-th
% smallest label gets colour k of dhc_palette, 0 is black), and the split
% summary, row k showing the leaves under the k-th split region in the same
% colours.
classes = summary.Classes(:)';
[~, rank] = ismember(out.segmentation, classes);
[~, under] = ismember(summary.OffspringMat, classes);
colours = [0 0 0; dhc_palette(numel(classes))];
if exist('OCTAVE_VERSION', 'builtin') == 0 || ~isempty(getenv('DISPLAY'))
  figure;
  subplot(1, 3, 1); imagesc(img(:, :, 1)); axis image; colormap(gca, gray); title('band 1');
  subplot(1, 3, 2); imagesc(rank, [0 numel(classes)]); axis image; colormap(gca, colours);
  title(sprintf('%d classes', summary.NClass));
  subplot(1, 3, 3); imagesc(under, [0 numel(classes)]); colormap(gca, colours);
  set(gca, 'XTick', 1:numel(classes), 'YTick', 1:summary.NSplit, 'YTickLabel', summary.SplitOrder);
  xlabel('leaves under the split region'); ylabel('split region (split order)'); title('split summary');
end
