function [img, truth] = dhc_quadrants(rows, cols, bands)
  % [img, truth] = dhc_quadrants(rows, cols, bands)  Four quadrants, numbered
  % in truth 1 2 / 3 4, perturbed by -3..3.  Odd bands separate left from
  % right widely, even bands top from bottom less; one band has four levels.
  [c, r] = meshgrid(1:cols, 1:rows);
  right = c > floor(cols / 2);
  bottom = r > floor(rows / 2);
  truth = 1 + right + 2 * bottom;
  img = zeros(rows, cols, bands);
  for b = 1:bands
    idx = r + rows * (c - 1) + 977 * b;
    noise = mod(idx .^ 2 * 31 + idx * 17, 7) - 3;
    if bands == 1
      level = 20 + 60 * (truth - 1);
    elseif mod(b, 2) == 1
      level = 30 + 180 * right;
    else
      level = 60 + 80 * bottom;
    end
    img(:, :, b) = level + noise + 10 * (b - 1);
  end
end
