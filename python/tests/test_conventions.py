"""NumPy conventions (bands-first or bands-last, masked arrays, floating-point
values) and rasters read and written through the tool's GDAL code, each
compared with the command-line tool or with an equivalent plain call."""

import os

import numpy as np
import pytest

import dhc
from conftest import TRANSFORM, dhc_tool, read_hraw, tool_settings, write_hraw, write_tif

gdal = pytest.importorskip("osgeo.gdal")

SETTINGS = dhc.Settings(max_number_of_classes=4, split_gain_threshold=0.05, min_region_area=16)


def scene_cube(scene):
    return scene[0][:, :64, :80]


def tool_labels(tmp_path, image_path, *args, name="tool"):
    """The labels of `dhc segment` with SETTINGS on an image file."""
    out = tmp_path / f"{name}.hraw"
    dhc_tool("segment", image_path, "-o", out, "--quiet", *tool_settings(tmp_path, SETTINGS), *args)
    return read_hraw(out)[0]


def test_bands_last_equals_bands_first(scene):
    cube = scene_cube(scene)
    first = dhc.segment(cube, settings=SETTINGS)
    assert len(np.unique(first.labels)) > 1
    last = np.moveaxis(cube, 0, -1)  # (rows, cols, bands), a view with strided bands
    assert np.array_equal(dhc.segment(last, settings=SETTINGS, channel_axis=-1).labels, first.labels)
    assert np.array_equal(dhc.segment(np.ascontiguousarray(last), settings=SETTINGS, channel_axis=2).labels,
                          first.labels)
    # Without channel_axis the bands-last array is refused, not read as 64 bands.
    with pytest.raises(ValueError, match="ambiguous.*channel_axis=-1"):
        dhc.segment(last, settings=SETTINGS)
    # An explicit channel_axis=0 takes a shape the rule would refuse.
    odd = np.ascontiguousarray(cube[:, :6, :3].transpose(1, 2, 0))  # (6, 3, 4): 6 "bands" of 3 x 4
    with pytest.raises(ValueError, match="ambiguous"):
        dhc.segment(odd, settings=SETTINGS)
    assert dhc.segment(odd, settings=SETTINGS, channel_axis=0).labels.shape == (3, 4)


def test_a_masked_array_equals_the_run_with_mask(scene):
    cube = scene_cube(scene)
    bands, rows, cols = cube.shape
    hidden = np.zeros(cube.shape, bool)
    hidden[1, 10:20, 5:30] = True         # one band masked hides the pixel
    hidden[:, 40:, 60:] = True
    garbage = np.where(hidden, 2**40, cube).astype(np.int64)  # masked values need not even fit int32
    masked = np.ma.MaskedArray(garbage, mask=hidden)
    outside = hidden.any(axis=0)
    plain = dhc.segment(cube, mask=(~outside).astype(np.int32), settings=SETTINGS)
    assert np.array_equal(dhc.segment(masked, settings=SETTINGS).labels, plain.labels)
    assert (plain.labels[outside] == 0).all()

    # Combined with mask= (only 1 selects) and with init (positive labels select).
    mask = np.ones((rows, cols), np.int32)
    mask[:, :8] = 0
    mask[30:34] = 2
    both = dhc.segment(cube, mask=((mask == 1) & ~outside).astype(np.int32), settings=SETTINGS)
    assert np.array_equal(dhc.segment(masked, mask=mask, settings=SETTINGS).labels, both.labels)
    init = np.ones((rows, cols), np.int32)
    init[:5] = 0
    with_init = dhc.segment(cube, init=init, mask=((init > 0) & ~outside).astype(np.int32), settings=SETTINGS)
    assert np.array_equal(dhc.segment(masked, init=init, settings=SETTINGS).labels, with_init.labels)

    # A masked mask: its masked entries are outside.
    masked_mask = np.ma.MaskedArray(np.ones((rows, cols), np.int32), mask=outside)
    assert np.array_equal(dhc.segment(cube, mask=masked_mask, settings=SETTINGS).labels, plain.labels)
    # Bands-last masked arrays: the mask moves with the bands.
    last = np.ma.MaskedArray(np.moveaxis(garbage, 0, -1), mask=np.moveaxis(hidden, 0, -1))
    assert np.array_equal(dhc.segment(last, settings=SETTINGS, channel_axis=-1).labels, plain.labels)


def test_a_masked_array_equals_the_tools_nodata(scene, tmp_path):
    cube = scene_cube(scene).astype(np.int16)
    cube[:, 20:30, 20:50] = -999
    write_tif(tmp_path / "nodata.tif", cube, gdal.GDT_Int16, nodata=-999)
    masked = np.ma.masked_equal(cube, -999)
    result = dhc.segment(masked, settings=SETTINGS)
    assert np.array_equal(result.labels, tool_labels(tmp_path, tmp_path / "nodata.tif"))
    assert (result.labels[20:30, 20:50] == 0).all()


def test_a_float_array_equals_the_tools_run_on_the_same_values(scene, tmp_path):
    cube = scene_cube(scene)
    values = (cube / 37.0 - 3.0).astype(np.float32)
    values[2, 5, 7] = np.nan  # not finite: nodata in the tool, outside here
    write_tif(tmp_path / "float.tif", values, gdal.GDT_Float32)
    result = dhc.segment(values, settings=SETTINGS)
    assert np.array_equal(result.labels, tool_labels(tmp_path, tmp_path / "float.tif"))
    assert result.labels[5, 7] == 0 and len(np.unique(result.labels)) > 2
    # The automatic scale is a power of ten giving the widest band at least 10,000 steps.
    width = float(np.nanmax(values) - np.nanmin(values))
    assert result.scale == 10.0 ** np.ceil(4 - np.log10(width))
    # An explicit scale, as --scale; bands last, as float64.
    explicit = dhc.segment(np.moveaxis(values.astype(np.float64), 0, -1), settings=SETTINGS, scale=100,
                           channel_axis=-1)
    assert explicit.scale == 100
    assert np.array_equal(explicit.labels, tool_labels(tmp_path, tmp_path / "float.tif", "--scale", "100",
                                                       name="scaled"))
    # Scaling by hand gives the same run (rounding half away from zero).
    by_hand = np.where(np.isfinite(values), np.trunc(values.astype(np.float64) * 100 +
                                                     np.copysign(0.5, values)), 0).astype(np.int32)
    finite = np.isfinite(values).all(axis=0).astype(np.int32)
    assert np.array_equal(dhc.segment(by_hand, mask=finite, settings=SETTINGS).labels, explicit.labels)
    # Integer images ignore scale, as the tool ignores --scale for integer bands.
    assert dhc.segment(cube, settings=SETTINGS, scale=7).scale is None


def test_read_segment_write_keeps_the_georeference(scene, tmp_path):
    cube = scene_cube(scene).astype(np.uint16)
    cube[:, :3, :4] = 0
    source = tmp_path / "scene.tif"
    write_tif(source, cube, gdal.GDT_UInt16, nodata=0)
    raster = dhc.read(source)
    assert raster.values.dtype == np.int32 and np.array_equal(raster.values, cube)
    assert raster.valid is not None and not raster.valid[:3, :4].any() and raster.valid[3:].all()
    assert raster.scale is None and raster.driver == "GTiff"
    assert raster.georeference.transform == TRANSFORM and "UTM zone 25S" in raster.georeference.crs

    result = dhc.segment(raster, settings=SETTINGS)
    assert np.array_equal(result.labels, tool_labels(tmp_path, source))
    result.write(tmp_path / "labels.tif")
    # What the tool's own GeoTIFF of the same run holds (tests/io checks that one).
    dhc_tool("segment", source, "-o", tmp_path / "tool.tif", "--quiet", *tool_settings(tmp_path, SETTINGS))
    out, theirs = gdal.Open(str(tmp_path / "labels.tif")), gdal.Open(str(tmp_path / "tool.tif"))
    assert out.GetDriver().ShortName == "GTiff"
    assert out.GetGeoTransform() == theirs.GetGeoTransform() == TRANSFORM
    assert out.GetProjection() == theirs.GetProjection() != ""
    band, their_band = out.GetRasterBand(1), theirs.GetRasterBand(1)
    assert np.array_equal(band.ReadAsArray(), result.labels) and band.GetNoDataValue() == 0
    table, their_table = band.GetColorTable(), their_band.GetColorTable()
    assert [table.GetColorEntry(i) for i in range(table.GetCount())] == \
        [their_table.GetColorEntry(i) for i in range(their_table.GetCount())]
    assert band.DataType == their_band.DataType
    assert sorted(os.listdir(tmp_path)) == ["labels.tif", "scene.tif", "settings.ini", "tool.hraw", "tool.tif"]

    # Other maps, other formats, another georeference.
    result.write(tmp_path / "cut.hraw", result.cut(1))
    assert np.array_equal(read_hraw(tmp_path / "cut.hraw")[0], result.cut(1))
    result.write(tmp_path / "cut.img", result.cut(1), format="HFA",
                 georeference=dhc.Georeference((0, 1, 0, 0, 0, -1)))
    assert gdal.Open(str(tmp_path / "cut.img")).GetGeoTransform() == (0, 1, 0, 0, 0, -1)
    # A plain array has no georeference: the map is written without one.
    plain = dhc.segment(raster.values, mask=raster.valid, settings=SETTINGS)
    plain.write(tmp_path / "plain.tif")
    assert gdal.Open(str(tmp_path / "plain.tif")).GetProjection() == ""


def test_write_refuses_and_leaves_nothing(scene, tmp_path):
    source = tmp_path / "scene.tif"
    write_tif(source, scene_cube(scene).astype(np.int16), gdal.GDT_Int16)
    before = source.read_bytes()
    result = dhc.segment(dhc.read(source), settings=SETTINGS)
    with pytest.raises(ValueError, match="is the image this result was segmented from"):
        result.write(source)
    with pytest.raises(ValueError, match='--format "NoSuchDriver": no such GDAL raster driver'):
        result.write(tmp_path / "x.tif", format="NoSuchDriver")
    with pytest.raises(ValueError, match="labels has shape"):
        result.write(tmp_path / "x.tif", np.zeros((2, 2), np.int32))
    with pytest.raises(ValueError, match="no fragment map"):
        result.write(tmp_path / "x.tif", "fragments")
    with pytest.raises(OSError):
        result.write(tmp_path / "missing" / "x.tif")
    assert source.read_bytes() == before and sorted(os.listdir(tmp_path)) == ["scene.tif"]
    # A replaced file keeps its mode.
    target = tmp_path / "labels.tif"
    target.write_bytes(b"old")
    target.chmod(0o600)
    result.write(target)
    assert (target.stat().st_mode & 0o777) == 0o600 and gdal.Open(str(target)) is not None


def test_read_scales_floats_and_refuses_what_the_tool_refuses(scene, tmp_path):
    values = (scene_cube(scene) / 9.0).astype(np.float32)
    write_tif(tmp_path / "float.tif", values, gdal.GDT_Float32)
    raster = dhc.read(tmp_path / "float.tif", scale=10)
    assert raster.scale == 10
    assert np.array_equal(raster.values, np.floor(values.astype(np.float64) * 10 + 0.5).astype(np.int32))
    assert np.array_equal(dhc.segment(raster, settings=SETTINGS).labels,
                          dhc.segment(values, scale=10, settings=SETTINGS).labels)
    with pytest.raises(FileNotFoundError):
        dhc.read(tmp_path / "missing.tif")
    (tmp_path / "text.tif").write_text("not a raster")
    with pytest.raises(ValueError, match='cannot read image ".*text.tif"'):
        dhc.read(tmp_path / "text.tif")
    with pytest.raises(ValueError, match="scale must be a positive number"):
        dhc.read(tmp_path / "float.tif", scale=-1)
    with pytest.raises(ValueError, match="already scaled"):
        dhc.segment(raster, scale=10)


def test_relabel_numbers_the_classes_as_the_tool_does(tmp_path):
    image = np.zeros((3, 48, 48), np.int32)
    image[:, :, 16:] = 60
    image[:, 24:, 32:] = 140
    image += np.random.default_rng(3).integers(0, 9, image.shape, dtype=np.int32)
    s = dhc.Settings(stop_criterion=0, final_refinement=0, split_gain_threshold=0.05, max_number_of_classes=3)
    plain = dhc.segment(image, settings=s)
    numbered = dhc.segment(image, settings=s, relabel=True)
    # The numbering itself is the hierarchy's (tests/hierarchy): here, that
    # the option reaches it, as the tool's --relabel does.
    assert numbered.tree["relabel"]["classes"] == sorted(set(np.unique(plain.labels)) - {0})
    write_hraw(tmp_path / "scene.hraw", image)
    dhc_tool("segment", tmp_path / "scene.hraw", "-o", tmp_path / "labels.hraw", "--relabel", "-q",
             *tool_settings(tmp_path, s))
    assert np.array_equal(read_hraw(tmp_path / "labels.hraw")[0], numbered.labels)
    assert not np.array_equal(plain.labels, numbered.labels)
