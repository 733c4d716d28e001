function dhc_write_hraw(file, img)
  % dhc_write_hraw(file, img)  Writes an R x C x B array as an hraw file:
  % int32 bands, rows, cols, then the bands one after the other, each row-major.
  [R, C, B] = size(img);
  f = fopen(file, 'w', 'ieee-le');
  dhc_check(f >= 0, 'cannot write %s', file);
  fwrite(f, [B R C], 'int32');
  fwrite(f, permute(img, [2 1 3])(:), 'int32');
  fclose(f);
end
