"""Bad input raises the documented exception with a one-line message, a fatal
condition raises dhc.Error, and the interpreter goes on, without leaking."""

import shutil
import subprocess
import sys

import numpy as np
import pytest

import dhc
from dhc import _dhc

IMAGE = (np.arange(2 * 12 * 10, dtype=np.int32).reshape(2, 12, 10) * 37) % 101
SUPERVISED = dhc.Settings(supervised_mode=True, number_of_classes=2, structure_levels=[1, 1],
                          structure_paths=[0, 1])
GT2 = np.repeat([[1], [2]], 6, axis=0) * np.ones((1, 10), np.int32)


@pytest.mark.parametrize("kwargs, error, message", [
    (dict(image=IMAGE.astype(np.complex64)), TypeError,
     "image has dtype complex64; an integer, bool or floating-point array is expected"),
    (dict(image=np.array([["a"]])), TypeError, "image has dtype <U1; an integer, bool or floating-point array"),
    (dict(image=np.zeros((12, 10, 2), np.int32)), ValueError,
     "image of shape (12, 10, 2) is ambiguous: taken as (bands, rows, cols) it has more bands (12) than columns "
     "(2); pass channel_axis=-1 for (rows, cols, bands) or channel_axis=0 to take it as 12 bands"),
    (dict(image=IMAGE, channel_axis=1), ValueError, "channel_axis must be 0 (bands first) or -1 (bands last), not 1"),
    (dict(image=IMAGE, channel_axis=0.0), TypeError, "channel_axis must be an integer, not float"),
    (dict(image=np.ma.MaskedArray(IMAGE, mask=True)), ValueError, "image holds only nodata pixels (masked or not"),
    (dict(image=np.full((2, 3), np.nan)), ValueError, "image holds only nodata pixels"),
    (dict(image=IMAGE * 1.5, scale=0), ValueError, "scale must be a positive number, not 0"),
    (dict(image=IMAGE * 1.5, scale="2"), TypeError, "scale must be a number, not str"),
    (dict(image=IMAGE * 1.5, scale=1e12), ValueError,
     "image band 1: value 55.5 at row 1, column 2 scaled by 1e+12 does not fit a 32-bit integer (give a smaller "
     "scale=)"),
    (dict(image=IMAGE, mask=np.ones((12, 10))), TypeError, "mask has dtype float64; an integer or bool array"),
    (dict(image=IMAGE[0, 0]), ValueError, "image must be (bands, rows, cols), (rows, cols, bands) with channel_axis=-1, or (rows, cols), not of shape (10,)"),
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

    # Warm up first: the allocator's per-thread arenas of a run on several
    # threads take their size over the first few dozen calls, then stay.
    calls(60)
    # A leak grows every batch; the allocator's noise on a busy machine (a
    # megabyte or two now and then) does not: the smaller of two batches counts.
    grown = []
    for _ in range(2):
        before = rss_kib()
        calls(100)
        grown.append(rss_kib() - before)
    # One leaked label map is 64 KiB: 100 of them would be 6 MiB.
    assert min(grown) < 2048, f"resident memory grew by {grown} KiB over two batches of 100 calls"


def test_a_run_started_from_a_progress_callback_raises_instead_of_waiting():
    # In a child interpreter: before, the inner call waited for the outer run forever.
    code = """
import numpy as np, dhc
image = (np.add.outer(np.arange(24) > 11, np.zeros(20)) * 50 + np.arange(480).reshape(24, 20) % 7)
image = np.stack([image, image[::-1]]).astype(np.int32)
settings = dhc.Settings(split_gain_threshold=0.01, max_number_of_classes=3, min_region_area=4)
seen = []
def progress(leaves, label):
    try:
        dhc.segment(image, settings=settings)
    except RuntimeError as e:
        seen.append(str(e))
outer = dhc.segment(image, settings=settings, progress=progress)
assert seen, "the progress callback was never called"
print(seen[0])
# The callback's error ends the run it was raised in; the session goes on.
def raising(leaves, label):
    dhc.segment(image)
try:
    dhc.segment(image, settings=settings, progress=raising)
except RuntimeError as e:
    print("propagated:", e)
assert np.array_equal(dhc.segment(image, settings=settings).labels, outer.labels)
"""
    done = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, timeout=120)
    assert done.returncode == 0, done.stderr
    first, second = done.stdout.splitlines()
    assert first == ("dhc.segment cannot be called from a progress callback: the run that called it holds the "
                     "segmenter until it ends; start the next run after dhc.segment returns")
    assert second == "propagated: " + first


def test_the_extension_exports_only_its_entry():
    nm = shutil.which("nm")
    if nm is None:
        pytest.skip("nm (binutils) is not installed")
    listing = subprocess.run([nm, "-D", "--defined-only", _dhc.__file__], capture_output=True, text=True,
                             check=True).stdout
    names = {line.split()[-1] for line in listing.splitlines() if line.strip()}
    assert names == {"PyInit__dhc"}, f"{len(names)} exported symbols, e.g. {sorted(names)[:5]}"
