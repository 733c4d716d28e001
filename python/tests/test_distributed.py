"""dhc.distributed on a LocalCluster of two worker processes: block-by-block
labelling equals whole-image dhc.apply, a killed worker changes nothing, and
outputs appear whole or not at all."""

import os
import signal

import numpy as np
import pytest

import dhc
from conftest import TRANSFORM, write_tif

gdal = pytest.importorskip("osgeo.gdal")
distributed = pytest.importorskip("distributed")
dd = pytest.importorskip("dhc.distributed")

SETTINGS = dhc.Settings(max_number_of_classes=4, split_gain_threshold=0.05, min_region_area=16)


@pytest.fixture(scope="module")
def client():
    cluster = distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True, dashboard_address=None,
                                       silence_logs=40)
    c = distributed.Client(cluster)
    yield c
    c.close()
    cluster.close()


def read_tif(path):
    ds = gdal.Open(str(path))
    return ds.ReadAsArray(), ds.GetGeoTransform(), ds.GetRasterBand(1).DataType


@pytest.fixture(scope="module")
def raster(scene, tmp_path_factory):
    """The scene tiled to 92 x 115 pixels with a nodata corner, as a GeoTIFF."""
    image, _ = scene
    cube = np.tile(image, (1, 1, 2))[:, :92, :115].copy()
    cube[:, :6, :9] = -1
    path = tmp_path_factory.mktemp("raster") / "scene.tif"
    write_tif(path, cube, nodata=-1)
    model = dhc.segment(image, settings=SETTINGS).model
    whole = dhc.apply(np.where(cube == -1, 0, cube), model, mask=(cube[0] != -1).astype(np.int32))
    return path, cube, model, whole


@pytest.mark.parametrize("block, grid", [(40, (3, 3)), (23, (4, 5))])
def test_blocks_equal_the_whole_image(client, raster, tmp_path, block, grid):
    path, cube, model, whole = raster
    assert (-(-92 // block), -(-115 // block)) == grid
    seen = []
    dd.apply_raster(path, tmp_path / "out.tif", model, client=client, block=block,
                    progress=lambda done, total: seen.append((done, total)))
    labels, transform, dtype = read_tif(tmp_path / "out.tif")
    assert labels.astype(np.int32).tobytes() == whole.tobytes()
    assert (labels[:6, :9] == 0).all()
    assert transform == TRANSFORM and dtype == gdal.GDT_Byte
    assert seen == [(k + 1, grid[0] * grid[1]) for k in range(grid[0] * grid[1])]
    assert os.listdir(tmp_path) == ["out.tif"]


def test_a_killed_worker_costs_a_retry_not_the_output(client, raster, tmp_path):
    path, cube, model, whole = raster
    pids = client.run(os.getpid)
    killed = []

    def kill_one(done, total):
        if done == 2 and not killed:
            victim = sorted(pids.values())[0]
            os.kill(victim, signal.SIGKILL)
            killed.append(victim)

    dd.apply_raster(path, tmp_path / "out.tif", model, client=client, block=11, progress=kill_one)
    assert killed
    assert read_tif(tmp_path / "out.tif")[0].astype(np.int32).tobytes() == whole.tobytes()
    assert os.listdir(tmp_path) == ["out.tif"]
    client.wait_for_workers(2, timeout=60)


def test_a_failed_run_leaves_nothing(client, raster, tmp_path):
    path, cube, model, whole = raster
    (tmp_path / "keep.tif").write_bytes(b"keep")
    bad = np.zeros((3, 4, 4), np.int16)
    write_tif(tmp_path / "three.tif", bad)
    with pytest.raises(ValueError, match="bands"):
        dd.apply_raster(tmp_path / "three.tif", tmp_path / "keep.tif", model, client=client)
    # A block that fails on the worker (the source vanishes after the check).
    gone = tmp_path / "gone.tif"
    write_tif(gone, cube)
    real_check = dd._check

    def check_then_remove(shape, m):
        real_check(shape, m)
        os.unlink(gone)

    dd._check = check_then_remove
    try:
        with pytest.raises(Exception):
            dd.apply_raster(gone, tmp_path / "keep.tif", model, client=client, block=30)
    finally:
        dd._check = real_check
    assert (tmp_path / "keep.tif").read_bytes() == b"keep"
    assert sorted(os.listdir(tmp_path)) == ["keep.tif", "three.tif"]


def test_many_scenes_one_model(client, raster, tmp_path):
    path, cube, model, whole = raster
    flipped = cube[:, ::-1, :].copy()
    write_tif(tmp_path / "b.tif", flipped, nodata=-1)
    outs = dd.apply_many([path, tmp_path / "b.tif"], [tmp_path / "a_out.tif", tmp_path / "b_out.tif"], model,
                         client=client, block=50)
    assert outs == [str(tmp_path / "a_out.tif"), str(tmp_path / "b_out.tif")]
    assert read_tif(outs[0])[0].astype(np.int32).tobytes() == whole.tobytes()
    expected = dhc.apply(np.where(flipped == -1, 0, flipped), model, mask=(flipped[0] != -1).astype(np.int32))
    assert read_tif(outs[1])[0].astype(np.int32).tobytes() == expected.tobytes()
    with pytest.raises(ValueError, match="destinations"):
        dd.apply_many([path], [], model, client=client)


def test_segment_raster_learns_on_a_fixed_sample(client, raster, tmp_path):
    path, cube, _model, _whole = raster
    s1 = dd.sample_raster(path, sample_pixels=2000)
    s2 = dd.sample_raster(path, sample_pixels=2000)
    assert s1[0].shape == (4, 31, 39) and np.array_equal(s1[0], s2[0]) and np.array_equal(s1[1], s2[1])
    assert np.array_equal(s1[0][:, 5, 7], cube[:, 15, 21])  # every third row and column
    model = dd.segment_raster(path, tmp_path / "seg.tif", client=client, settings=SETTINGS, sample_pixels=2000,
                              block=40)
    assert isinstance(model, dhc.Model) and model.bands == 4
    full = dhc.segment(s1[0], mask=s1[1], settings=SETTINGS).model
    assert model == dhc.Model.from_json(full.to_json())
    expected = dhc.apply(np.where(cube == -1, 0, cube), model, mask=(cube[0] != -1).astype(np.int32))
    assert read_tif(tmp_path / "seg.tif")[0].astype(np.int32).tobytes() == expected.tobytes()
