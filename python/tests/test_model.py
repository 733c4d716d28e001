"""Models and labelling with them: Result.model, dhc.Model, dhc.apply, and the
tool's `dhc segment --model` and `dhc apply` against them."""

import json
import pickle

import numpy as np
import pytest

import dhc
from conftest import SOURCE_DIR, dhc_tool, read_hraw, tool_settings, write_hraw, write_tif

# Explicit settings: the tests must not depend on the built-in defaults.
SETTINGS = dict(max_number_of_classes=4, split_gain_threshold=0.05, min_region_area=16, stop_criterion=0,
                final_refinement=0)


@pytest.fixture(scope="module")
def run(scene):
    image, _ = scene
    return dhc.segment(image, settings=dhc.Settings(**SETTINGS))


def test_model_holds_the_runs_leaves(run):
    m = run.model
    leaves = sorted((r for r in run.regions if r.is_terminal), key=lambda r: r.label)
    assert m.bands == 4 and list(m.labels) == [r.label for r in leaves]
    assert np.array_equal(m.means, np.array([r.mean for r in leaves]))
    assert np.array_equal(m.covariances, np.array([r.covariance for r in leaves]))
    assert m.scale is None and m.nodata is None
    # beta: the split regions' betas weighted by their areas.
    split = [r for r in run.regions if r.split]
    assert m.beta == pytest.approx(sum(r.beta * r.area for r in split) / sum(r.area for r in split), rel=1e-12)
    assert m.tree["regions"] == run.tree["regions"] and m.tree["splitOrder"] == run.tree["splitOrder"]
    assert m.radius == 4 * dhc._dhc.label_sweeps


def test_model_of_a_refined_run_holds_the_refined_classes():
    # The Landsat scene with the joint refinement: the final map is the
    # refinement's, so the model must be its classes and its beta.
    scene = dhc.read(str(SOURCE_DIR / "data" / "L7_ETMs.tif"))
    result = dhc.segment(scene, settings=dhc.Settings(stop_criterion=1, final_refinement=10))
    final = result.tree["finalModel"]
    assert final["refined"]
    classes = sorted((c for c in final["classes"] if c["mean"]), key=lambda c: c["label"])
    m = result.model
    assert list(m.labels) == [c["label"] for c in classes]
    assert np.array_equal(m.means, np.array([c["mean"] for c in classes]))
    assert m.beta == final["beta"]
    # Every class of the final map is one of the model's.
    assert set(np.unique(result.labels)) - {0} <= set(m.labels)


def test_model_round_trips_through_file_and_pickle(run, tmp_path):
    m = run.model
    m.save(tmp_path / "m.json")
    back = dhc.Model.load(tmp_path / "m.json")
    assert back == m and back.to_json() == (tmp_path / "m.json").read_text()
    # Every number to the bit.
    assert back.means.tobytes() == m.means.tobytes() and back.covariances.tobytes() == m.covariances.tobytes()
    assert back.beta.hex() == m.beta.hex()
    again = pickle.loads(pickle.dumps(m))
    assert again == m and np.array_equal(dhc.apply(np.zeros((4, 3, 3), np.int32), again),
                                          dhc.apply(np.zeros((4, 3, 3), np.int32), m))
    s = dhc.Settings(max_number_of_classes=3, structure_levels=[1, 2], beta_max=0.75)
    assert pickle.loads(pickle.dumps(s)) == s
    with pytest.raises(TypeError):
        dhc.Model()


def test_apply_equals_the_tool(scene, run, tmp_path):
    image, _ = scene
    write_hraw(tmp_path / "img.hraw", image)
    dhc_tool("segment", tmp_path / "img.hraw", "-o", tmp_path / "seg.hraw", "--model", tmp_path / "m.json",
             "-q", *tool_settings(tmp_path, dhc.Settings(**SETTINGS)))
    # The tool's model is the package's (same run, same leaves and beta).
    tool_model = dhc.Model.load(tmp_path / "m.json")
    assert np.array_equal(tool_model.means, run.model.means) and tool_model.beta == run.model.beta
    labels = dhc.apply(image, tool_model)
    for threads in ("1", "2"):
        dhc_tool("apply", tmp_path / "img.hraw", "--model", tmp_path / "m.json", "-o", tmp_path / "a.hraw",
                 "--threads", threads, "-q")
        assert read_hraw(tmp_path / "a.hraw")[0].tobytes() == labels.tobytes()
    # With a mask: only value 1 is labelled.
    mask = np.ones(image.shape[1:], np.int32)
    mask[10:30, 20:60] = 0
    mask[50:52] = 2
    write_hraw(tmp_path / "mask.hraw", mask)
    masked = dhc.apply(image, tool_model, mask=mask)
    dhc_tool("apply", tmp_path / "img.hraw", "--model", tmp_path / "m.json", "-o", tmp_path / "am.hraw",
             "--mask", tmp_path / "mask.hraw", "-q")
    assert read_hraw(tmp_path / "am.hraw")[0].tobytes() == masked.tobytes()
    assert (masked[mask != 1] == 0).all() and (masked[mask == 1] > 0).all()
    # Most pixels keep the label the run gave them.
    seg = read_hraw(tmp_path / "seg.hraw")[0]
    assert (labels == seg).mean() > 0.9


def test_window_equals_the_whole_images_window(scene, run, tmp_path):
    image, _ = scene
    write_hraw(tmp_path / "img.hraw", image)
    run.model.save(tmp_path / "m.json")
    whole = dhc.apply(image, run.model)
    rows, cols = whole.shape
    for xoff, yoff, xsize, ysize in [(0, 0, 17, 13), (31, 47, 25, 19), (cols - 9, rows - 7, 9, 7), (5, 0, 1, 96)]:
        out = tmp_path / f"w{xoff}_{yoff}.hraw"
        dhc_tool("apply", tmp_path / "img.hraw", "--model", tmp_path / "m.json", "-o", out, "-q",
                 "--window", xoff, yoff, xsize, ysize)
        got = read_hraw(out)[0]
        assert got.shape == (ysize, xsize)
        assert got.tobytes() == np.ascontiguousarray(whole[yoff:yoff + ysize, xoff:xoff + xsize]).tobytes()
    r = dhc_tool("apply", tmp_path / "img.hraw", "--model", tmp_path / "m.json", "-o", tmp_path / "x.hraw",
                 "--window", 100, 0, 20, 5, check=False)
    assert r.returncode == 1 and "reaches outside" in r.stderr and not (tmp_path / "x.hraw").exists()
    r = dhc_tool("apply", tmp_path / "img.hraw", "--model", tmp_path / "m.json", "-o", tmp_path / "x.hraw",
                 "--window", 1, 2, 3, check=False)
    assert r.returncode == 2 and "four values" in r.stderr


def test_a_bad_model_reaches_python_as_value_error(scene, run, tmp_path):
    # Which models are malformed is the model reader's (tests/model); the tool
    # refuses them before any output (tests/tools/model_test.cpp).  Here: the
    # reader's refusal names the file, and a sound model of another band count
    # is refused by apply.
    image, _ = scene
    good = run.model.to_json()
    (tmp_path / "bad.json").write_text(good.replace('"formatVersion": 1', '"formatVersion": 2'))
    with pytest.raises(ValueError, match=f'model "{tmp_path / "bad.json"}": .*newer'):
        dhc.Model.load(tmp_path / "bad.json")
    doc = json.loads(good)
    doc["bands"] = 3
    for leaf in doc["leaves"]:
        leaf["mean"] = leaf["mean"][:3]
        leaf["covariance"] = [row[:3] for row in leaf["covariance"][:3]]
    with pytest.raises(ValueError, match="bands"):
        dhc.apply(image, dhc.Model.from_json(json.dumps(doc)))


def test_floating_point_images_use_the_models_scale(tmp_path):
    gdal = pytest.importorskip("osgeo.gdal")
    rng = np.random.default_rng(5)
    truth = (np.arange(60)[:, None] // 20 + np.arange(70)[None, :] // 35) % 3
    image = (truth[None] * np.array([0.05, 0.02, -0.04])[:, None, None] + rng.normal(0, 0.01, (3, 60, 70)))
    image = image.astype(np.float32)
    image[:, 5, 7] = -9999
    write_tif(tmp_path / "f.tif", image, gdal.GDT_Float32)
    dhc_tool("segment", tmp_path / "f.tif", "-o", tmp_path / "s.tif", "--model", tmp_path / "m.json", "-q",
             "--nodata", -9999, *tool_settings(tmp_path, dhc.Settings(**SETTINGS)))
    model = dhc.Model.load(tmp_path / "m.json")
    assert model.scale == 100000 and model.nodata == -9999
    dhc_tool("apply", tmp_path / "f.tif", "--model", tmp_path / "m.json", "-o", tmp_path / "a.tif", "-q")
    out = gdal.Open(str(tmp_path / "a.tif"))
    labels = dhc.apply(image, model)
    assert labels[5, 7] == 0 and np.array_equal(out.ReadAsArray(), labels)
    assert out.GetRasterBand(1).GetNoDataValue() == 0 and out.GetRasterBand(1).GetColorTable() is not None
    with pytest.raises(ValueError, match="integers"):
        dhc.apply(np.zeros((3, 4, 4), np.int32), model)
    # An integer image against this model in the tool.
    write_hraw(tmp_path / "i.hraw", np.zeros((3, 4, 4), np.int32))
    r = dhc_tool("apply", tmp_path / "i.hraw", "--model", tmp_path / "m.json", "-o", tmp_path / "i_out.hraw",
                 check=False)
    assert r.returncode == 1 and "floating-point" in r.stderr and not (tmp_path / "i_out.hraw").exists()


def test_a_floating_point_runs_model_keeps_its_scale(scene):
    image, _ = scene
    values = image.astype(np.float64) / 1000.0
    result = dhc.segment(values, settings=dhc.Settings(**SETTINGS))
    assert result.scale is not None and result.model.scale == result.scale
    labels = dhc.apply(values, result.model)
    assert (labels == result.labels).mean() > 0.9
    with pytest.raises(ValueError, match="floating-point"):
        dhc.apply(image, result.model)
