function colours = dhc_palette(n)
% dhc_palette  The colours of the label pictures the dhc tool writes.
%
%   colours = dhc_palette(n)   n x 3 RGB rows in [0, 1]: row k is the colour
%                              of the k-th smallest label of a map, as in the
%                              PNG of "dhc segment --png"
%
%   Twenty colours distinct at a glance come first, then evenly spread hues
%   at two brightness levels.  Label 0 (outside the region of interest) is
%   drawn black and is not counted.
%
%   See also dhc_label_image, dhc.

  first = [230 25 75; 60 180 75; 255 225 25; 0 130 200; 245 130 48; 145 30 180; ...
           70 240 240; 240 50 230; 210 245 60; 250 190 212; 0 128 128; 220 190 255; ...
           170 110 40; 255 250 200; 128 0 0; 170 255 195; 128 128 0; 255 215 180; ...
           0 0 128; 128 128 128];
  colours = zeros(n, 3);
  for k = 0:n - 1
    if k < size(first, 1)
      colours(k + 1, :) = first(k + 1, :);
      continue;
    end
    hue = mod((k - size(first, 1)) * 137.50776405, 360) / 60;
    if mod(k, 2) == 0
      value = 0.95;
    else
      value = 0.65;
    end
    c = value * 0.75;
    x = c * (1 - abs(mod(hue, 2) - 1));
    switch floor(hue)
      case 0, rgb = [c x 0];
      case 1, rgb = [x c 0];
      case 2, rgb = [0 c x];
      case 3, rgb = [0 x c];
      case 4, rgb = [x 0 c];
      otherwise, rgb = [c 0 x];
    end
    % Round half away from zero, as the tool does.
    colours(k + 1, :) = round((rgb + value - c) * 255);
  end
  colours = colours / 255;
end
