"""Shared helpers of the Python tests: hraw files, the command-line tool and
the synthetic scene.  CTest sets DHC_SOURCE_DIR, DHC_TOOL, DHC_MAKE_SCENE and
DHC_TEST_TMP; tests needing the tool are skipped without it."""

import os
import subprocess
from pathlib import Path

import numpy as np
import pytest

SOURCE_DIR = Path(os.environ.get("DHC_SOURCE_DIR", Path(__file__).resolve().parents[2]))


def write_hraw(path, cube):
    """int32 bands, rows, cols, then each band row by row, little-endian."""
    cube = np.asarray(cube, dtype="<i4")
    if cube.ndim == 2:
        cube = cube[np.newaxis]
    with open(path, "wb") as f:
        np.array(cube.shape, dtype="<i4").tofile(f)
        np.ascontiguousarray(cube).tofile(f)


def read_hraw(path):
    raw = np.fromfile(path, dtype="<i4")
    bands, rows, cols = raw[:3]
    return raw[3:].reshape(bands, rows, cols)


def tool():
    path = os.environ.get("DHC_TOOL")
    if not path:
        pytest.skip("DHC_TOOL is not set (run through ctest)")
    return path


def dhc_tool(*args, check=True):
    """`dhc ARGS...` (paths and numbers given as they are), its output as text."""
    return subprocess.run([tool(), *map(str, args)], capture_output=True, text=True, check=check)


def tool_settings(tmp_path, settings):
    """The tool's arguments for dhc.Settings: --config with their ini text."""
    path = tmp_path / "settings.ini"
    settings.to_ini(path)
    return ["--config", path]


# Where the test GeoTIFFs lie: 30 m pixels in UTM zone 25S.
TRANSFORM = (500000.0, 30.0, 0.0, 9000000.0, 0.0, -30.0)


def write_tif(path, cube, dtype=None, nodata=None, transform=TRANSFORM, epsg=32725):
    """A GeoTIFF of cube (bands, rows, cols) written with GDAL's own API;
    dtype a GDAL type (Int16 by default), no reference system for epsg=None."""
    from osgeo import gdal, osr
    bands, rows, cols = cube.shape
    d = gdal.GetDriverByName("GTiff").Create(str(path), cols, rows, bands, gdal.GDT_Int16 if dtype is None else dtype)
    d.SetGeoTransform(transform)
    if epsg is not None:
        srs = osr.SpatialReference()
        srs.ImportFromEPSG(epsg)
        d.SetProjection(srs.ExportToWkt())
    for b in range(bands):
        band = d.GetRasterBand(b + 1)
        band.WriteArray(cube[b])
        if nodata is not None:
            band.SetNoDataValue(nodata)
    d.FlushCache()


def run_tool(tmp_path, image, *args, name="labels"):
    """Labels of `dhc segment` on image (an array) with extra arguments."""
    image_file = tmp_path / f"{name}_image.hraw"
    out = tmp_path / f"{name}.hraw"
    write_hraw(image_file, image)
    subprocess.run([tool(), "segment", str(image_file), "-o", str(out), "--quiet", *map(str, args)],
                   check=True, capture_output=True)
    return read_hraw(out)[0]


@pytest.fixture(scope="session")
def scene(tmp_path_factory):
    """The 4-band synthetic scene of dhc-make-scene (96 x 112) and its truth."""
    make_scene = os.environ.get("DHC_MAKE_SCENE")
    if not make_scene:
        pytest.skip("DHC_MAKE_SCENE is not set (run through ctest)")
    d = tmp_path_factory.mktemp("scene")
    subprocess.run([make_scene, "-o", d / "scene.hraw", "--truth", d / "truth.hraw", "--rows", "96",
                    "--cols", "112"], check=True, capture_output=True)
    return read_hraw(d / "scene.hraw"), read_hraw(d / "truth.hraw")[0]
