"""The Landsat demo's tree picture and HTML report, as a user meets them.

The tree's SVG is read element by element (cut lines, tooltips in map
units).  The report is opened in headless Chromium with the network
cut off; the test drives it through the DevTools protocol (a pipe, no
extra packages): it moves the cut slider, points at and clicks a tree
node, and checks the page through its DOM, its map canvas and screenshots.
No request may leave the page and nothing may be logged as an error.
"""

import base64
import json
import os
import shutil
import subprocess
import tempfile
import time
import xml.etree.ElementTree as ET

import pytest
from osgeo import gdal

SOURCE = os.environ.get("DHC_SOURCE_DIR", os.path.join(os.path.dirname(__file__), "..", ".."))
TOOL = os.environ.get("DHC_TOOL", "dhc")
SCENE = os.path.join(SOURCE, "data", "L7_ETMs.tif")
SVG = "{http://www.w3.org/2000/svg}"
# The demo's settings, given explicitly so the test does not follow the defaults.
SETTINGS = ["UNSUPERVISED_MODE_CONF.MaxNumberOfClasses=6", "UNSUPERVISED_MODE_CONF.SplitGainThreshold=0.05",
            "UNSUPERVISED_MODE_CONF.StopCriterion=0", "UNSUPERVISED_MODE_CONF.FinalRefinement=0"]

gdal.UseExceptions()


@pytest.fixture(scope="module")
def demo():
    base = os.environ.get("DHC_TEST_TMP")
    if base:
        os.makedirs(base, exist_ok=True)
    work = tempfile.mkdtemp(prefix="dhc-browser-", dir=base)
    args = [TOOL, "segment", SCENE, "-o", os.path.join(work, "labels.tif"), "-q",
            "--tree", os.path.join(work, "tree.json"), "--tree-svg", os.path.join(work, "tree.svg"),
            "--tree-png", os.path.join(work, "tree.png"), "--html", os.path.join(work, "landsat.html")]
    for s in SETTINGS:
        args += ["--set", s]
    run = subprocess.run(args, capture_output=True, text=True, timeout=120)
    assert run.returncode == 0, run.stderr
    with open(os.path.join(work, "tree.json")) as f:
        tree = json.load(f)
    yield work, tree
    shutil.rmtree(work)


def pixel_area():
    t = gdal.Open(SCENE).GetGeoTransform()
    return abs(t[1] * t[5] - t[2] * t[4])  # UTM: metres


def area_text(pixels):
    hectares = pixels * pixel_area() / 1e4
    value, unit = (hectares, "ha") if hectares < 100 else (hectares / 100, "km\u00b2")
    digits = "%.0f" if value >= 100 else "%.1f" if value >= 10 else "%.2f" if value >= 1 else "%.3g"
    return (digits % value) + " " + unit


def test_tree_svg_has_cut_lines_and_tooltips_in_map_units(demo):
    work, tree = demo
    root = ET.parse(os.path.join(work, "tree.svg")).getroot()
    groups = lambda cls: [g for g in root.iter(SVG + "g") if cls in g.get("class", "").split()]

    # A cut line for every cut, in order, with its class count; the finest one labelled.
    cuts = groups("cut")
    assert [int(g.get("data-classes")) for g in cuts] == tree["cutClasses"]
    assert [int(g.get("data-splits")) for g in cuts] == list(range(len(tree["splitOrder"]) + 1))
    ys = [float(g.find(SVG + "line").get("y1")) for g in cuts]
    assert ys == sorted(ys) and len(set(ys)) == len(ys)
    assert cuts[-1].find(SVG + "text").text == "%d classes" % tree["cutClasses"][-1]

    # The axis and where each region stands on it are the layout's (tests/hierarchy).
    regions = {r["label"]: r for r in tree["regions"]}
    nodes = {int(g.get("data-label")): g for g in groups("node")}
    assert set(nodes) == set(regions)

    # Tooltips: the area in map units (the scene is georeferenced) and pixels.
    for label, g in nodes.items():
        title = g.find(SVG + "title").text
        assert title.startswith("#%d" % label)
        assert "%s (%d px)" % (area_text(regions[label]["area"]), regions[label]["area"]) in title, title
        if regions[label]["mean"]:
            assert "mean per band:" in title

    # The PNG is that picture, drawn.
    png = gdal.Open(os.path.join(work, "tree.png"))
    assert (png.RasterXSize, png.RasterYSize) == (int(root.get("width")), int(root.get("height")))


class Chromium:
    """Headless Chromium driven through the DevTools protocol on a pipe."""

    def __init__(self, profile):
        self.to_r, self.to_w = os.pipe()
        self.from_r, self.from_w = os.pipe()
        to_r, from_w = self.to_r, self.from_w

        def pipes():
            a, b = os.dup(to_r), os.dup(from_w)
            os.dup2(a, 3)
            os.dup2(b, 4)

        browser = shutil.which("chromium") or shutil.which("chromium-browser")
        assert browser, "chromium is needed (Debian package chromium)"
        self.process = subprocess.Popen(
            [browser, "--headless", "--no-sandbox", "--disable-gpu", "--remote-debugging-pipe",
             "--user-data-dir=" + profile, "--no-first-run", "--no-default-browser-check", "--disable-extensions",
             "--disable-background-networking", "--disable-component-update", "--disable-sync",
             "--disable-default-apps", "--metrics-recording-only", "--mute-audio",
             # No network: every host unknown, every proxied request to a closed port.
             "--host-resolver-rules=MAP * ~NOTFOUND", "--proxy-server=127.0.0.1:9",
             "--window-size=1400,1000", "about:blank"],
            pass_fds=(3, 4, to_r, from_w), preexec_fn=pipes, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.close(self.to_r)
        os.close(self.from_w)
        self.buffer = b""
        self.next_id = 0
        self.events = []
        self.session = None

    def close(self):
        os.close(self.to_w)
        os.close(self.from_r)
        self.process.terminate()
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()

    def _read(self, deadline):
        while b"\0" not in self.buffer:
            assert time.monotonic() < deadline, "Chromium did not answer in time"
            chunk = os.read(self.from_r, 1 << 20)
            assert chunk, "Chromium closed the pipe"
            self.buffer += chunk
        message, self.buffer = self.buffer.split(b"\0", 1)
        return json.loads(message)

    def send(self, method, params=None, session=True, timeout=20):
        self.next_id += 1
        message = {"id": self.next_id, "method": method, "params": params or {}}
        if session and self.session:
            message["sessionId"] = self.session
        os.write(self.to_w, json.dumps(message).encode() + b"\0")
        deadline = time.monotonic() + timeout
        while True:
            reply = self._read(deadline)
            if reply.get("id") == self.next_id:
                assert "error" not in reply, (method, reply["error"])
                return reply.get("result", {})
            self.events.append(reply)

    def wait_for(self, method, timeout=20):
        deadline = time.monotonic() + timeout
        while True:
            for i, e in enumerate(self.events):
                if e.get("method") == method:
                    return self.events.pop(i)
            self.events.append(self._read(deadline))

    def js(self, expression):
        result = self.send("Runtime.evaluate", {"expression": expression, "returnByValue": True,
                                                "awaitPromise": True})
        assert "exceptionDetails" not in result, result["exceptionDetails"]
        return result["result"].get("value")

    def click(self, x, y, kind="left"):
        for event in ("mouseMoved", "mousePressed", "mouseReleased"):
            self.send("Input.dispatchMouseEvent", {"type": event, "x": x, "y": y, "button": kind, "clickCount": 1})

    def screenshot(self, selector):
        box = self.js("(() => { const b = document.querySelector(%r).getBoundingClientRect();"
                      " return [b.left, b.top, b.width, b.height]; })()" % selector)
        shot = self.send("Page.captureScreenshot", {"format": "png", "clip": {
            "x": box[0], "y": box[1], "width": box[2], "height": box[3], "scale": 1}})
        name = "/vsimem/shot-%d.png" % self.next_id
        gdal.FileFromMemBuffer(name, base64.b64decode(shot["data"]))
        pixels = gdal.Open(name).ReadAsArray()  # (3 or 4, rows, cols)
        gdal.Unlink(name)
        return pixels[:3]


# The overlay's pixels: [opaque colours and their counts, pixels drawn at all].
OVERLAY = """(() => {
  const c = document.getElementById('overlay');
  const d = c.getContext('2d').getImageData(0, 0, c.width, c.height).data;
  const colours = {}; let drawn = 0, full = 0, sum = 0;
  for (let i = 0; i < d.length; i += 4) {
    if (d[i + 3] === 0) continue;
    ++drawn; sum = (sum * 31 + d[i] * 7 + d[i + 1] * 3 + d[i + 2] + d[i + 3]) % 1000000007;
    if (d[i + 3] === 255) { ++full; const k = d[i] + ',' + d[i + 1] + ',' + d[i + 2]; colours[k] = (colours[k] || 0) + 1; }
  }
  return {drawn: drawn, full: full, sum: sum, colours: colours, width: c.width, height: c.height};
})()"""


def test_report_in_headless_chromium(demo):
    work, tree = demo
    page = os.path.join(work, "landsat.html")
    profile = tempfile.mkdtemp(prefix="profile-", dir=work)
    browser = Chromium(profile)
    try:
        target = browser.send("Target.createTarget", {"url": "about:blank"}, session=False)["targetId"]
        browser.session = browser.send("Target.attachToTarget", {"targetId": target, "flatten": True},
                                       session=False)["sessionId"]
        for domain in ("Page", "Runtime", "Network", "Log"):
            browser.send(domain + ".enable")
        browser.send("Network.emulateNetworkConditions", {"offline": True, "latency": 0, "downloadThroughput": -1,
                                                          "uploadThroughput": -1})
        browser.send("Page.navigate", {"url": "file://" + page})
        browser.wait_for("Page.loadEventFired")
        deadline = time.monotonic() + 20
        while browser.js("document.body.dataset.ready") != "1":
            assert time.monotonic() < deadline, "the page did not finish drawing"
            time.sleep(0.05)

        splits = len(tree["splitOrder"])
        regions = {r["label"]: r for r in tree["regions"]}
        root_area = regions[tree["root"]]["area"]
        # The page opens on the finest cut: its classes, one opaque colour each, over the whole region.
        assert browser.js("document.getElementById('cut').value") == str(splits)
        assert browser.js("document.getElementById('cut-label').textContent") == \
            "%d classes" % tree["cutClasses"][splits]
        browser.js("document.getElementById('opacity').value = 100;"
                   "document.getElementById('opacity').dispatchEvent(new Event('input'))")
        first = browser.js(OVERLAY)
        assert first["drawn"] == root_area  # one picture pixel per image pixel here
        assert len(first["colours"]) == tree["cutClasses"][splits]
        map_before = browser.screenshot("#map-stack")

        # Move the slider: a click a quarter of the way along its track.
        box = browser.js("(() => { const b = document.getElementById('cut').getBoundingClientRect();"
                         " return [b.left, b.top, b.width, b.height]; })()")
        browser.click(box[0] + 0.3 * box[2], box[1] + box[3] / 2)
        k = int(browser.js("document.getElementById('cut').value"))
        assert 0 < k < splits
        assert browser.js("document.getElementById('cut-label').textContent") == "%d classes" % tree["cutClasses"][k]
        assert browser.js("document.querySelector('#tree g.cut.current').dataset.splits") == str(k)
        second = browser.js(OVERLAY)
        assert second["sum"] != first["sum"]
        assert len(second["colours"]) == tree["cutClasses"][k]
        map_after = browser.screenshot("#map-stack")
        assert (map_before != map_after).mean() > 0.05  # the map on screen changed

        # A region of this cut that is split later: point at it, then click it.
        in_cut = browser.js("Array.from(document.querySelectorAll('#tree g.node.in-cut')).map(g => +g.dataset.label)")
        label = max((l for l in in_cut if regions[l]["children"]), key=lambda l: regions[l]["area"])
        centre = browser.js("(() => { const g = document.querySelector('#tree g.node[data-label=\"%d\"] rect');"
                            " g.scrollIntoView({block: 'center', inline: 'center'});"
                            " const b = g.getBoundingClientRect(); return [b.left + b.width / 2, b.top + b.height / 2]; })()"
                            % label)
        browser.send("Input.dispatchMouseEvent", {"type": "mouseMoved", "x": centre[0], "y": centre[1]})
        assert browser.js("document.querySelector('#info').textContent").startswith("region#%d" % label)
        assert browser.js("document.querySelectorAll('#info svg.spectrum polyline').length") == 2
        browser.click(centre[0], centre[1])
        assert browser.js("document.querySelector('#tree g.node.selected').dataset.label") == str(label)
        assert browser.js("document.getElementById('selection').textContent").startswith("Selected #%d:" % label)
        third = browser.js(OVERLAY)
        # Its pixels in full colour, every other pixel dimmed.
        assert third["drawn"] == root_area
        assert third["full"] == regions[label]["area"]
        (colour,) = third["colours"]
        map_selected = browser.screenshot("#map-stack")
        rgb = [int(v) for v in colour.split(",")]
        on_screen = ((map_selected[0] == rgb[0]) & (map_selected[1] == rgb[1]) & (map_selected[2] == rgb[2])).mean()
        share = regions[label]["area"] / (first["width"] * first["height"])
        assert on_screen > 0.5 * share, (on_screen, share)
        assert map_selected.mean() < map_after.mean()  # the rest of the map is dimmed
        # The whole page as the user sees it, kept beside the test's files for a look.
        shot = browser.send("Page.captureScreenshot", {"format": "png"})
        with open(os.path.join(os.environ.get("DHC_TEST_TMP", work), "landsat-report.png"), "wb") as f:
            f.write(base64.b64decode(shot["data"]))
    finally:
        browser.close()

    # Nothing failed, nothing left the page, nothing was logged as an error.
    failures, requests, errors = [], [], []
    for e in browser.events:
        method, params = e.get("method"), e.get("params", {})
        if method == "Network.loadingFailed":
            failures.append(params)
        elif method == "Network.requestWillBeSent":
            url = params["request"]["url"]
            if not url.startswith(("file:", "data:", "about:")):
                requests.append(url)
        elif method == "Runtime.exceptionThrown":
            errors.append(params["exceptionDetails"])
        elif method == "Runtime.consoleAPICalled" and params["type"] in ("error", "assert", "warning"):
            errors.append(params)
        elif method == "Log.entryAdded" and params["entry"]["level"] in ("error", "warning"):
            errors.append(params["entry"])
    assert failures == []
    assert requests == []
    assert errors == [], [e.get("text", e) for e in errors]
