function rgb = dhc_label_image(labels)
% dhc_label_image  A label map as the RGB picture the dhc tool draws.
%
%   rgb = dhc_label_image(labels)   R x C x 3 image in [0, 1]: the k-th
%                                   smallest non-zero label gets colour k of
%                                   dhc_palette, label 0 is black
%
%   Show it with image(rgb); axis image.  The picture equals the PNG that
%   "dhc segment --png" writes for the same label map.
%
%   See also dhc_palette, dhc.

  values = unique(labels(labels ~= 0));
  [~, index] = ismember(labels, values);
  table = [0 0 0; dhc_palette(numel(values))];
  rgb = reshape(table(index + 1, :), [size(labels, 1), size(labels, 2), 3]);
end
