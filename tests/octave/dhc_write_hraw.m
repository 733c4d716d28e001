function dhc_write_hraw(file, img)
  % dhc_write_hraw(file, img)  Writes img (R x C x B) as an hraw file: int32
  % bands, rows, cols, then each band row by row, little-endian.
  f = fopen(file, 'w', 'ieee-le');
  fwrite(f, [size(img, 3) rows(img) columns(img)], 'int32');
  fwrite(f, permute(img, [2 1 3]), 'int32');
  fclose(f);
end
