"""Degenerate regions under variable multiplicity: the principal components of
a rank-deficient scatter once overflowed a buffer and ended the interpreter."""

import numpy as np
import pytest

import dhc


def digits(text, bands, rows, cols):
    return np.array([int(c) for c in text], dtype=np.int32).reshape(bands, rows, cols)


REPORTED = digits("1233003301311311220033323113010130113021030111032302123120131210121312331022"
                  "31101233023113222233002302333023101003233311", 3, 5, 8)
REPORTED_INIT = digits("2131321323312132333331122332223123233323", 1, 5, 8)[0]


def deep_variable(disconnect):
    return dhc.Settings(variable_multiplicity=True, balanced_tree=True, grow_depth=4,
                        splitwise_disconnect=disconnect)


def degenerate_images():
    base = (np.arange(36).reshape(6, 6) * 7) % 5
    rows = np.arange(6)[:, None] * np.ones((1, 6), dtype=np.int64)
    return {
        "one pixel": np.array([1, 2, 3]).reshape(3, 1, 1),
        "two pixels": np.arange(1, 7).reshape(3, 1, 2),
        "three pixels": np.array([1, 0, 2, 0, 3, 0, 4, 0, 5]).reshape(3, 1, 3),
        "all equal": np.full((3, 6, 6), 5),
        "one band constant": np.stack([base, np.full((6, 6), 9), base + 2]),
        "collinear bands": np.stack([base, 2 * base, 3 * base]),
        "one direction": np.stack([3 + 4 * (rows >= 3), np.full((6, 6), 3), np.full((6, 6), 3)]),
    }


@pytest.mark.parametrize("disconnect", [True, False])
def test_the_reported_image_runs_to_the_end(disconnect):
    result = dhc.segment(REPORTED, init=REPORTED_INIT, settings=deep_variable(disconnect))
    assert result.labels.shape == (5, 8)
    assert (result.labels > 0).all()


@pytest.mark.parametrize("name", sorted(degenerate_images()))
@pytest.mark.parametrize("disconnect", [True, False])
def test_every_degenerate_region_runs_to_the_end(name, disconnect):
    image = degenerate_images()[name].astype(np.int32)
    result = dhc.segment(image, settings=deep_variable(disconnect), channel_axis=0)
    assert result.labels.shape == image.shape[1:]
    assert (result.labels > 0).all()
