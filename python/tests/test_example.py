"""examples/segment_numpy.py: a GeoTIFF in, the same labels as dhc.segment
out, with the input's georeference."""

import subprocess
import sys

import numpy as np
import pytest

import dhc
from conftest import SOURCE_DIR

gdal = pytest.importorskip("osgeo.gdal")


def test_segment_numpy_keeps_the_georeference(scene, tmp_path):
    gdal.UseExceptions()
    image, _ = scene
    bands, rows, cols = image.shape
    src = gdal.GetDriverByName("GTiff").Create(str(tmp_path / "scene.tif"), cols, rows, bands, gdal.GDT_UInt16)
    src.SetGeoTransform((500000.0, 10.0, 0.0, 4600000.0, 0.0, -10.0))
    src.SetProjection("EPSG:32632")
    for b in range(bands):
        src.GetRasterBand(b + 1).WriteArray(image[b])
    src.GetRasterBand(1).SetNoDataValue(0)
    src.GetRasterBand(1).WriteArray(np.where(np.arange(cols) < 5, 0, image[0]))
    src = None
    subprocess.run([sys.executable, SOURCE_DIR / "examples" / "segment_numpy.py", tmp_path / "scene.tif",
                    tmp_path / "labels.tif", "--max-classes", "3"], check=True, capture_output=True)

    out = gdal.Open(str(tmp_path / "labels.tif"))
    assert out.GetGeoTransform() == (500000.0, 10.0, 0.0, 4600000.0, 0.0, -10.0)
    assert "32632" in out.GetProjection() and out.GetRasterBand(1).GetNoDataValue() == 0
    mask = np.ones((rows, cols), bool)
    mask[:, :5] = False
    first = np.where(mask, image[0], 0)
    expected = dhc.segment(np.stack([first, *image[1:]]), mask=mask, settings=dhc.Settings(max_number_of_classes=3))
    labels = out.GetRasterBand(1).ReadAsArray()
    assert np.array_equal(labels, expected.labels) and not labels[:, :5].any()
