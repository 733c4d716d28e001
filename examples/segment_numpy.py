#!/usr/bin/env python3
"""Segments a GeoTIFF (or any raster GDAL reads) with the dhc Python package
and writes the label map as a georeferenced one-band Int32 GeoTIFF.

    segment_numpy.py IMAGE.tif LABELS.tif [--config FILE.ini] [--scale S]
                     [--max-classes N]

Every band of IMAGE is one band of the segmentation; pixels that are nodata in
any band are left out of the region of interest (label 0, the output's
nodata).  Integer rasters are used as they are; floating-point ones need
--scale S (values are multiplied by S and rounded).  The output keeps the
input's geotransform and projection and is written under a temporary name,
then renamed: it is complete or absent.
"""

import argparse
import os
import sys

import numpy as np
from osgeo import gdal

import dhc

gdal.UseExceptions()


def main(argv=None):
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("image")
    p.add_argument("labels")
    p.add_argument("--config", help="ini file of settings (default: examples/default.ini)")
    p.add_argument("--scale", type=float, help="factor for floating-point rasters")
    p.add_argument("--max-classes", type=int, help="override max_number_of_classes")
    a = p.parse_args(argv)
    if os.path.abspath(a.labels) == os.path.abspath(a.image):
        p.error("the output would replace the input")

    src = gdal.Open(a.image)
    image = src.ReadAsArray()  # (bands, rows, cols), or (rows, cols) for one band
    if image.ndim == 2:
        image = image[np.newaxis]
    valid = np.ones(image.shape[1:], dtype=bool)
    for b in range(src.RasterCount):
        nodata = src.GetRasterBand(b + 1).GetNoDataValue()
        if nodata is not None:
            valid &= image[b] != nodata
    if image.dtype.kind == "f":
        if a.scale is None:
            p.error(f"{a.image} holds {image.dtype} values: give --scale to turn them into integers")
        image = np.round(np.where(valid, image, 0) * a.scale).astype(np.int32)

    settings = dhc.Settings.from_ini(a.config) if a.config else dhc.Settings()
    if a.max_classes is not None:
        settings.max_number_of_classes = a.max_classes
    result = dhc.segment(image, mask=valid, settings=settings,
                         progress=lambda leaves, label: print(f"split region {label}, {leaves} leaves", file=sys.stderr))

    tmp = a.labels + f".tmp.{os.getpid()}"
    try:
        out = gdal.GetDriverByName("GTiff").Create(tmp, src.RasterXSize, src.RasterYSize, 1, gdal.GDT_Int32,
                                                   options=["COMPRESS=DEFLATE"])
        out.SetGeoTransform(src.GetGeoTransform())
        out.SetProjection(src.GetProjection())
        band = out.GetRasterBand(1)
        band.SetNoDataValue(0)
        band.WriteArray(result.labels)
        out.FlushCache()
        band = out = None  # closes the file
        os.replace(tmp, a.labels)
    except BaseException:
        if os.path.exists(tmp):
            os.unlink(tmp)
        raise
    print(f"{len(result.classes) if result.classes is not None else 'no tree:'} classes; "
          f"label map {a.labels}", file=sys.stderr)


if __name__ == "__main__":
    main()
