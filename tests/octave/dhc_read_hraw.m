function cube = dhc_read_hraw(file)
  % cube = dhc_read_hraw(file)  Reads an hraw file as an R x C x B array
  % (the layout dhc_write_hraw writes).
  f = fopen(file, 'r', 'ieee-le');
  v = fread(f, Inf, 'int32');
  fclose(f);
  cube = permute(reshape(v(4:end), v(3), v(2), v(1)), [2 1 3]);
end
