function [img, truth] = dhc_quadrants(rows, cols, bands)
  % [img, truth] = dhc_quadrants(rows, cols, bands)  A rows x cols x bands
  % test image of four quadrants with a small deterministic perturbation
  % (-3..3); truth holds the quadrant numbers 1..4 (1 top left, 2 top right,
  % 3 bottom left, 4 bottom right).  Odd bands separate left from right by a
  % wide margin, even bands top from bottom by a narrower one, so the first
  % split of a two-way splitter is left/right.  With one band the four
  % quadrants have four distinct levels.
  [c, r] = meshgrid(1:cols, 1:rows);
  top = r <= floor(rows / 2);
  left = c <= floor(cols / 2);
  truth = 1 + ~top * 2 + ~left;
  img = zeros(rows, cols, bands);
  for b = 1:bands
    idx = reshape(1:rows * cols, rows, cols) + 977 * b;
    noise = mod(idx .^ 2 * 31 + idx * 17, 7) - 3;
    if bands == 1
      level = 20 + 60 * (truth - 1);
    elseif mod(b, 2) == 1
      level = 30 + 180 * ~left;
    else
      level = 60 + 80 * ~top;
    end
    img(:, :, b) = level + noise + 10 * (b - 1);
  end
end
