"""Bad input raises the documented exception with a one-line message, a fatal
condition raises dhc.Error, and the interpreter goes on, without leaking."""

import numpy as np
import pytest

import dhc
from dhc import _dhc

IMAGE = (np.arange(2 * 12 * 10, dtype=np.int32).reshape(2, 12, 10) * 37) % 101
SUPERVISED = dhc.Settings(supervised_mode=True, number_of_classes=2, structure_levels=[1, 1],
                          structure_paths=[0, 1])
GT2 = np.repeat([[1], [2]], 6, axis=0) * np.ones((1, 10), np.int32)


@pytest.mark.parametrize("kwargs, error, message", [
    (dict(image=IMAGE.astype(np.float64)), TypeError,
     "image has dtype float64; dhc segments integer values: scale them to integers first"),
    (dict(image=IMAGE.astype(np.float32)[0]), TypeError, "scale them to integers first"),
    (dict(image=np.array([["a"]])), TypeError, "image has dtype <U1; an integer or bool array is expected"),
    (dict(image=IMAGE, mask=np.ones((12, 10))), TypeError, "mask has dtype float64; an integer or bool array"),
    (dict(image=IMAGE[0, 0]), ValueError, "image must be (bands, rows, cols) or (rows, cols), not of shape (10,)"),
    (dict(image=IMAGE[np.newaxis]), ValueError, "not of shape (1, 2, 12, 10)"),
    (dict(image=IMAGE[:, :0]), ValueError, "image is empty (shape (2, 0, 10))"),
    (dict(image=np.zeros((1, 1, 65536), np.uint8)), ValueError, "image has a side above 65535 pixels"),
    (dict(image=IMAGE.astype(np.uint32) + 2**31), ValueError, "image holds values outside the int32 range"),
    (dict(image=IMAGE, init=np.ones((12, 9), np.int32)), ValueError, "init has shape (12, 9) but the image is 12 x 10"),
    (dict(image=IMAGE, mask=np.ones((10, 12), np.int32)), ValueError, "mask has shape (10, 12) but the image is 12 x 10"),
    (dict(image=IMAGE, gt=GT2[:, :4], settings=SUPERVISED), ValueError, "gt has shape (12, 4) but the image is 12 x 10"),
    (dict(image=IMAGE, settings=SUPERVISED), ValueError,
     "supervised mode (supervised_mode=True) needs a ground truth: gt=..."),
    (dict(image=IMAGE, gt=GT2), ValueError, "gt is used only in supervised mode (set supervised_mode=True)"),
    (dict(image=IMAGE, gt=np.ones((12, 10), np.int32), settings=SUPERVISED), ValueError,
     "gt holds 1 class (distinct non-zero labels) in the region of interest, but number_of_classes is 2"),
    (dict(image=IMAGE, init=np.zeros((12, 10), np.int32)), ValueError,
     "the region of interest is empty: no pixel has a positive initial label"),
    (dict(image=IMAGE, mask=np.full((12, 10), 2)), ValueError, "the region of interest is empty: no mask value is 1"),
    (dict(image=IMAGE, settings=dhc.Settings(multiplicity=1)), ValueError,
     "settings.multiplicity: Multiplicity must be at least 2"),
    (dict(image=IMAGE, settings={"max_number_of_classes": 3}), TypeError, "settings must be a dhc.Settings, not dict"),
    (dict(image=IMAGE, progress=3), TypeError, "progress must be callable, not int"),
    (dict(image=IMAGE, threads=1.0), TypeError, "threads must be an integer, not float"),
    (dict(image=IMAGE, threads=-1), ValueError,
     "threads -1: must be a whole number of threads from 0 (one per core) to 256"),
    (dict(image=IMAGE, threads=257), ValueError, "threads 257: must be a whole number"),
])
def test_bad_input(kwargs, error, message):
    with pytest.raises(error) as e:
        dhc.segment(**kwargs)
    assert message in str(e.value) and "\n" not in str(e.value)


def test_a_fatal_condition_raises_dhc_error_and_the_next_call_runs():
    expected = dhc.segment(IMAGE).labels
    with pytest.raises(dhc.Error, match=r"^fatal condition of the segmenter \(status -20\)$") as e:
        _dhc._fatal(-20)
    assert e.value.status == -20 and isinstance(e.value, RuntimeError)
    with pytest.raises(dhc.Error, match="^Etichette non disponibili$") as e:
        _dhc._fatal(-1, "Etichette non disponibili")
    assert e.value.status == -1
    assert np.array_equal(dhc.segment(IMAGE).labels, expected)


def rss_kib():
    with open("/proc/self/status") as f:
        return next(int(line.split()[1]) for line in f if line.startswith("VmRSS:"))


def test_repeated_calls_do_not_grow_memory():
    rng = np.random.default_rng(7)
    image = (rng.normal(100, 10, (3, 128, 128)) + (np.arange(128) > 64) * 40).astype(np.int32)
    mask = np.ones((128, 128), np.int32)

    def calls(n):
        for _ in range(n):
            r = dhc.segment(image, mask=mask)
            assert r.labels.shape == (128, 128)
            with pytest.raises(ValueError):
                dhc.segment(image, gt=mask)
            with pytest.raises(dhc.Error):
                _dhc._fatal(-2)
            with pytest.raises(ZeroDivisionError):
                dhc.segment(image, progress=lambda leaves, label: 1 / 0)

    calls(10)
    before = rss_kib()
    calls(100)
    grown = rss_kib() - before
    # One leaked label map is 64 KiB: 100 of them would be 6 MiB.
    assert grown < 2048, f"resident memory grew by {grown} KiB over 100 calls"
