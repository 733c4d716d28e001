"""dhc.segment against the command-line tool (which the MATLAB/Octave module
is compared with too), and the consistency of what a Result holds."""

import json
import threading

import numpy as np
import pytest

import dhc
from dhc import _dhc
from conftest import dhc_tool, read_hraw, run_tool, tool_settings, write_hraw

# A mask with a hole and a stray value (only 1 selects), an initial
# segmentation with unlabelled rows.
def maps(truth):
    mask = np.ones(truth.shape, np.int32)
    mask[:, :6] = 0
    mask[40:50, 40:50] = 2
    init = 1 + (truth > 2).astype(np.int32)
    init[:4] = 0
    return mask, init


def test_labels_equal_the_tools(scene, tmp_path):
    image, truth = scene
    mask, init = maps(truth)
    supervised = dict(supervised_mode=True, number_of_classes=4, structure_levels=[2, 2, 2, 2],
                      structure_paths=[0, 0, 0, 1, 1, 0, 1, 1])
    cases = [  # the tool's built-in settings for none given
        ("defaults", {}, {}),
        ("mask and init", dict(mask=mask, init=init), dict(max_number_of_classes=3, min_region_area=16)),
        ("init only", dict(init=init), {}),
        ("supervised", dict(gt=truth), supervised),
    ]
    for name, inputs, settings in cases:
        result = dhc.segment(image, settings=dhc.Settings(**settings), **inputs)
        args = tool_settings(tmp_path, dhc.Settings(**settings)) if settings else []
        for key, plane in inputs.items():
            write_hraw(tmp_path / f"{key}.hraw", plane)
            args += [f"--{key}", tmp_path / f"{key}.hraw"]
        expected = run_tool(tmp_path, image, *args, name=name.replace(" ", "_"))
        assert result.labels.dtype == np.int32 and result.labels.shape == truth.shape, name
        assert result.labels.tobytes() == expected.astype(np.int32).tobytes(), name


def test_fragments_equal_the_tools(scene, tmp_path):
    image, _ = scene
    result = dhc.segment(image, settings=dhc.Settings(fragmentation=True))
    frag = tmp_path / "frag.hraw"
    labels = run_tool(tmp_path, image, "--set", "UNSUPERVISED_MODE_CONF.Fragmentation=1", "--fragments", frag)
    assert np.array_equal(result.labels, labels)
    assert np.array_equal(result.fragments, read_hraw(frag)[0])
    # No tree once the map is cut into pieces, as in the MATLAB one-output call.
    assert result.classes is None and result.regions is None and result.offspring is None


def test_layouts_and_dtypes_give_the_same_labels(scene):
    image, truth = scene
    mask, init = maps(truth)
    reference = dhc.segment(image, mask=mask, init=init).labels
    bands, rows, cols = image.shape
    padded = np.zeros((bands, 2 * rows, cols + 3), np.int32)  # rows apart, not contiguous
    padded[:, ::2, 1:cols + 1] = image
    raw = np.zeros(image.nbytes + 1, np.uint8)
    unaligned = np.ndarray(image.shape, dtype=np.int32, buffer=raw, offset=1)
    unaligned[...] = image
    variants = [
        (np.asfortranarray(image), np.asfortranarray(mask), np.asfortranarray(init)),
        (padded[:, ::2, 1:cols + 1], mask, init),
        (unaligned, mask, init),
        (image.astype(np.uint8), mask.astype(bool) & (mask == 1), init.astype(np.int64)),
        (image.astype(np.int16).byteswap().view(image.astype(np.int16).dtype.newbyteorder()), mask, init),
        (np.transpose(np.transpose(image, (1, 2, 0)).copy(), (2, 0, 1)), mask, init),  # bands innermost
    ]
    for img, m, i in variants:
        assert np.array_equal(dhc.segment(img, mask=m, init=i).labels, reference)
    # A one-band image may be given as (rows, cols).
    assert np.array_equal(dhc.segment(image[1]).labels, dhc.segment(image[1:2]).labels)


def test_result_describes_one_tree(scene):
    image, truth = scene
    mask, _ = maps(truth)
    result = dhc.segment(image, mask=mask, settings=dhc.Settings(max_number_of_classes=5))
    labels = result.labels
    assert np.all(labels[mask != 1] == 0) and np.all(labels[mask == 1] > 0)
    assert sorted(np.unique(labels[mask == 1])) == sorted(result.classes)
    by_label = {r.label: r for r in result.regions}
    root = result.regions[0]
    assert root.depth == 0 and root.area == np.count_nonzero(mask == 1)
    leaves = [r.label for r in result.regions if r.is_terminal]
    assert leaves == list(result.classes)
    for r in result.regions:
        if r.is_terminal:
            assert len(r.children) == 0 and r.area == np.count_nonzero(labels == r.label)
        else:
            assert r.area == sum(by_label[c].area for c in r.children)
            assert list(r.child_areas) == [by_label[c].area for c in r.children]
        assert r.mean.shape == (4,) and r.covariance.shape == (4, 4)
        assert np.allclose(r.covariance, r.covariance.T)
    # Splits in order, each row of offspring the leaves below that split.
    assert result.offspring.shape == (len(result.split_order), len(result.classes))
    assert result.split_order[0] == root.label
    for k, label in enumerate(result.split_order):
        below = list(by_label[label].offspring)
        assert list(result.offspring[k, :len(below)]) == below and not result.offspring[k, len(below):].any()
    # Leaf means are the means of their pixels.
    leaf = by_label[leaves[0]]
    assert np.allclose(leaf.mean, image[:, labels == leaf.label].mean(axis=1), rtol=1e-4)
    # Every field is the tree document's value of that region (null there:
    # no figure of a split that was not made).
    documented = {r["label"]: r for r in result.tree["regions"]}
    for r in result.regions:
        for name, path in _dhc.region_fields:
            if path is None:
                continue
            value = documented[r.label]
            for key in path.split("."):
                value = None if value is None else value[key]
            if value is not None:
                mine = getattr(r, name)
                assert (mine.tolist() if isinstance(mine, np.ndarray) else mine) == value, (r.label, name)
    assert any(r.sg_tex not in (r.sg_basic, r.sg_spec) for r in result.regions if r.split)


def test_progress_reports_every_split_and_may_stop_the_run(scene):
    image, _ = scene
    calls = []
    result = dhc.segment(image, progress=lambda leaves, label: calls.append((leaves, label)))
    assert [label for _, label in calls] == sorted(set(label for _, label in calls), key=[l for _, l in calls].index)
    assert {label for _, label in calls} == set(result.split_order)
    assert calls[-1][0] == len(result.classes)

    class Stop(Exception):
        pass

    def stop(leaves, label):
        raise Stop(f"stopped at {leaves} leaves")

    with pytest.raises(Stop, match="stopped at 2 leaves"):
        dhc.segment(image, progress=stop)
    assert np.array_equal(dhc.segment(image).labels, result.labels)


def test_threads_take_turns(scene):
    image, truth = scene
    mask, init = maps(truth)
    expected = [dhc.segment(image).labels, dhc.segment(image, mask=mask, init=init).labels]
    got = {}

    def run(k):
        got[k] = dhc.segment(image, progress=lambda *_: None) if k % 2 == 0 else dhc.segment(image, mask=mask, init=init)

    threads = [threading.Thread(target=run, args=(k,)) for k in range(4)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert all(np.array_equal(got[k].labels, expected[k % 2]) for k in range(4))


def test_cuts_levels_and_tree_equal_the_tools(scene, tmp_path):
    image, _ = scene
    for multiplicity in (2, 3):
        # The last cut is the final map when that is the tree's leaves: no refinement.
        s = dhc.Settings(multiplicity=multiplicity, min_region_area=16, max_number_of_classes=6, final_refinement=0)
        result = dhc.segment(image, settings=s)
        write_hraw(tmp_path / "image.hraw", image)
        dhc_tool("segment", tmp_path / "image.hraw", "-o", tmp_path / "l.hraw", "--quiet", "--levels",
                 tmp_path / "levels.hraw", "--tree", tmp_path / "tree.json", *tool_settings(tmp_path, s))
        levels = result.levels()
        assert levels.tobytes() == read_hraw(tmp_path / "levels.hraw").astype(np.int32).tobytes()
        assert levels[-1].tobytes() == result.labels.tobytes()
        for k in range(levels.shape[0]):
            assert result.cut(k).tobytes() == levels[k].tobytes()
            n = len(np.unique(levels[k][levels[k] > 0]))
            assert result.cut(classes=n).tobytes() == levels[k].tobytes()
        with open(tmp_path / "tree.json") as f:
            expected = json.load(f)
        # The same document but for the program's name.
        assert result.tree["regions"] == expected["regions"]
        assert result.tree["splitOrder"] == expected["splitOrder"]
        # Each region's own figures are the document's, field by field.
        by_label = {r["label"]: r for r in expected["regions"]}
        gains = set()
        for r in result.regions:
            doc = by_label[r.label]
            assert (r.area, r.edges if r.split else None) == (doc["area"], doc["edges"])
            if r.split:
                g = doc["splitGain"]
                assert (r.beta, r.sg_basic, r.sg_tex, r.sg_spec) == (doc["beta"], g["TFR"], g["mixtureTFR"], g["MRF"])
                gains.add((g["TFR"], g["mixtureTFR"], g["MRF"]))
        assert any(tfr != mixture for tfr, mixture, _ in gains)  # a gain filed under the other shows
    with pytest.raises(ValueError, match="no cut of the tree has 2 classes"):
        result.cut(classes=2)  # three children per split: 1, 3, 5, ... classes
    with pytest.raises(ValueError, match="k must be from 0 to"):
        result.cut(levels.shape[0])
    no_tree = dhc.segment(image, settings=dhc.Settings(fragmentation=True))
    assert no_tree.tree is None
    with pytest.raises(ValueError, match="no tree to cut"):
        no_tree.levels()
