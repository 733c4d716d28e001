function same = dhc_same_partition(a, b)
  % True when the label maps a and b describe the same partition: equal up to
  % a one-to-one renaming of the labels (0 maps to 0).
  same = isequal(size(a), size(b)) && isequal(a == 0, b == 0);
  if ~same, return; end
  pairs = unique([a(:) b(:)], 'rows');
  same = numel(unique(pairs(:, 1))) == rows(pairs) && numel(unique(pairs(:, 2))) == rows(pairs);
end
