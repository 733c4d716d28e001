"""Result.to_html and the notebook view: the page `dhc segment --html` writes."""

import json
import re

import numpy as np
import pytest

import dhc
from conftest import dhc_tool, tool_settings, write_hraw

SETTINGS = dict(max_number_of_classes=4, split_gain_threshold=0.01)


def run_data(page):
    """The run the page carries, as its script reads it."""
    found = re.search(r'<script type="application/json" id="run-data">\n(.*?)\n</script>', page, re.S)
    assert found, "no run data in the page"
    return json.loads(found.group(1))


def test_page_describes_the_result_like_the_tools(scene, tmp_path):
    image, _ = scene
    result = dhc.segment(image, settings=dhc.Settings(**SETTINGS))
    page = result.to_html(tmp_path / "report.html", rgb=(1, 3, 2), title="scene", pixel_area=900.0)
    assert (tmp_path / "report.html").read_text(encoding="utf-8") == page
    assert [p.name for p in tmp_path.iterdir()] == ["report.html"]  # no temporary file left
    data = run_data(page)
    assert data["cutClasses"] == result.tree["cutClasses"]
    assert data["splitOrder"] == result.split_order.tolist()
    assert data["settings"] == result.tree["settings"]
    assert data["rgb"] == [1, 3, 2] and data["pixelArea"] == 900.0 and data["title"] == "scene"
    assert [t[0] for t in data["timings"]] == ["segmentation"] and data["timings"][0][1] > 0
    assert "default-src 'none'" in page and "href=" not in page

    # The tool's page of the same run holds the same tree.
    write_hraw(tmp_path / "image.hraw", image)
    dhc_tool("segment", tmp_path / "image.hraw", "-o", tmp_path / "l.hraw", "-q", "--html", tmp_path / "tool.html",
             "--rgb", "1,3,2", *tool_settings(tmp_path, dhc.Settings(**SETTINGS)))
    theirs = run_data((tmp_path / "tool.html").read_text(encoding="utf-8"))
    for key in ("cutClasses", "splitOrder", "nodes", "leaves", "settings", "rgb"):
        assert data[key] == theirs[key], key
    # The pictures are the same bytes too.
    pictures = lambda p: re.findall(r'src="data:image/png;base64,([^"]*)"', p)
    assert pictures(page) == pictures((tmp_path / "tool.html").read_text(encoding="utf-8"))


def test_notebook_view_is_the_page_in_a_frame(scene):
    image, _ = scene
    result = dhc.segment(image, settings=dhc.Settings(**SETTINGS))
    view = result._repr_html_()
    prefix = '<iframe srcdoc="'
    assert view.startswith(prefix + "<!DOCTYPE html>")
    inner = view[len(prefix):view.index('" style=')]
    assert '"' not in inner
    assert inner.replace("&quot;", '"').replace("&amp;", "&") == result.to_html()
    pieces = dhc.segment(image, settings=dhc.Settings(fragmentation=True, **SETTINGS))
    assert pieces._repr_html_() is None


def test_bad_report_arguments(scene, tmp_path):
    image, _ = scene
    result = dhc.segment(image, settings=dhc.Settings(**SETTINGS))
    bands = image.shape[0]
    with pytest.raises(ValueError, match=f"rgb: band {bands + 1} does not exist; the image has {bands} bands"):
        result.to_html(rgb=(bands + 1, 1, 1))
    with pytest.raises(ValueError, match="rgb needs three bands"):
        result.to_html(rgb=(1, 2))
    with pytest.raises(ValueError, match="pixel_area must be a positive number"):
        result.to_html(pixel_area=-1)
    with pytest.raises(ValueError, match="no tree"):
        dhc.segment(image, settings=dhc.Settings(fragmentation=True, **SETTINGS)).to_html()
    # An unwritable path leaves nothing behind and raises.
    with pytest.raises(OSError):
        result.to_html(tmp_path / "missing" / "report.html")
    assert list(tmp_path.iterdir()) == []
