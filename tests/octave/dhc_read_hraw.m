function img = dhc_read_hraw(file)
  % img = dhc_read_hraw(file)  Reads an int32 hraw file into an R x C x B
  % double array.
  f = fopen(file, 'r', 'ieee-le');
  dhc_check(f >= 0, 'cannot read %s', file);
  h = fread(f, 3, 'int32')';
  v = fread(f, prod(h), 'int32');
  fclose(f);
  dhc_check(numel(v) == prod(h), '%s is short', file);
  img = permute(reshape(v, h(3), h(2), h(1)), [2 1 3]);
end
