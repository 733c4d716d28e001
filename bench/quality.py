#!/usr/bin/env python3
"""Quality of dhc's default segmentation against peers, on scenes with known truth.

Each scene is built from real statistics: class Gaussians fitted (a full
covariance Gaussian mixture) to the pixels of a real multispectral image, laid
out on a spatially coherent random label field (smoothed random fields, the
largest wins at every pixel), and pixels drawn from their class's fitted
Gaussian, rounded and clipped to the value range of the source.  Sources: the
6-band 8-bit Landsat-7 scene data/L7_ETMs.tif (all bands, or its first four)
and the 10-band 16-bit Landsat-8 scene of Debian's r-cran-satellite (bands
1-7 and 9-11, fetched with apt-get download and dpkg -x).

Methods, each told nothing but the image (the peers are given the true class
count, dhc is not):
  dhc          `dhc segment` with no configuration (the built-in defaults)
  dhc-bic      the defaults with StopCriterion=2 (BIC instead of ICL)
  dhc-classic  the same with StopCriterion=0 FinalRefinement=0 (the rule
               before automatic stopping: SplitGainThreshold 0.2, 8 classes)
  kmeans       scikit-learn KMeans, true class count
  gmm          scikit-learn GaussianMixture, full covariances, true count
  gmm+icm      the mixture's map refined by Potts ICM (8-neighbourhood, the
               classes' log-densities, beta by maximum pseudo-likelihood on the
               map in [0, 1.5], sweeps until fewer than 0.1% of pixels change)
Scores: adjusted Rand index and normalised mutual information against the
truth, number of classes, seconds.  Not part of `make test`.

    bench/quality.py [--build build] [--work DIR] [--timing N]

--timing N also runs `dhc segment data/L7_ETMs.tif` with the defaults and
as `make demo` ran it before (6 classes, SplitGainThreshold=0.05), N times
each, alternately, and prints the medians of the elapsed and of the
processor time.
"""

import argparse
import os
import resource
import subprocess
import sys
import tempfile
import time

import numpy as np
from scipy import ndimage
from scipy.stats import multivariate_normal
from sklearn.cluster import KMeans
from sklearn.metrics import adjusted_rand_score, normalized_mutual_info_score
from sklearn.mixture import GaussianMixture

REPO = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
L8_BANDS = ("B1", "B2", "B3", "B4", "B5", "B6", "B7", "B9", "B10", "B11")
CLASSIC = ["--set", "UNSUPERVISED_MODE_CONF.StopCriterion=0", "--set", "UNSUPERVISED_MODE_CONF.FinalRefinement=0",
           "--set", "UNSUPERVISED_MODE_CONF.MaxNumberOfClasses=8"]


def read_gdal(paths):
    from osgeo import gdal
    bands = []
    for p in paths:
        ds = gdal.Open(p)
        for b in range(ds.RasterCount):
            bands.append(ds.GetRasterBand(b + 1).ReadAsArray().astype(np.float64))
    return np.stack(bands)


def landsat7():
    return read_gdal([os.path.join(REPO, "data", "L7_ETMs.tif")])


def landsat8(work):
    """The 10-band Landsat-8 scene of r-cran-satellite, fetched once into work."""
    x = os.path.join(work, "satellite")
    ext = os.path.join(x, "usr", "lib", "R", "site-library", "satellite", "extdata")
    if not os.path.isdir(ext):
        os.makedirs(x, exist_ok=True)
        subprocess.run(["apt-get", "download", "r-cran-satellite"], cwd=x, check=True)
        deb = [f for f in os.listdir(x) if f.endswith(".deb")][0]
        subprocess.run(["dpkg", "-x", os.path.join(x, deb), x], check=True)
    names = sorted(os.listdir(ext))
    paths = []
    for band in L8_BANDS:
        paths.append(os.path.join(ext, [n for n in names if n.startswith("LC08") and n.endswith("_%s.TIF" % band)][0]))
    return read_gdal(paths)


def class_gaussians(cube, k, seed):
    """Means and covariances of k classes fitted to the image's pixels, ordered by mean."""
    pixels = cube.reshape(cube.shape[0], -1).T
    gm = GaussianMixture(k, covariance_type="full", random_state=seed, reg_covar=1e-3).fit(pixels)
    order = np.argsort(gm.means_.sum(axis=1))
    return gm.means_[order], gm.covariances_[order]


def label_field(rows, cols, k, seed, smooth):
    """A spatially coherent random map of k classes, every class present."""
    rng = np.random.default_rng(seed)
    while True:
        fields = np.stack([ndimage.gaussian_filter(rng.standard_normal((rows, cols)), smooth) for _ in range(k)])
        labels = fields.argmax(axis=0)
        if len(np.unique(labels)) == k:
            return labels


def draw(labels, means, covs, seed, top):
    rng = np.random.default_rng(seed + 1000)
    d = means.shape[1]
    out = np.empty((d,) + labels.shape)
    for c in range(len(means)):
        where = labels == c
        z = rng.standard_normal((where.sum(), d))
        out[:, where] = (means[c] + z @ np.linalg.cholesky(covs[c]).T).T
    return np.clip(np.rint(out), 0, top).astype(np.int32)


def write_hraw(path, cube):
    cube = np.asarray(cube, dtype="<i4")
    if cube.ndim == 2:
        cube = cube[None]
    with open(path, "wb") as f:
        np.array(cube.shape, dtype="<i4").tofile(f)
        cube.tofile(f)


def read_hraw(path):
    raw = np.fromfile(path, dtype="<i4")
    return raw[3:].reshape(raw[:3])


def run_dhc(exe, cube, work, extra):
    scene, labels = os.path.join(work, "q.hraw"), os.path.join(work, "q.labels.hraw")
    write_hraw(scene, cube)
    t0 = time.monotonic()
    subprocess.run([exe, "segment", scene, "-o", labels, "-q"] + extra, check=True)
    return read_hraw(labels)[0], time.monotonic() - t0


def neighbour_counts(labels, k):
    """n[c, r, col]: 8-neighbours of each pixel in class c."""
    kernel = np.ones((3, 3))
    kernel[1, 1] = 0
    return np.stack([ndimage.convolve((labels == c).astype(np.float64), kernel, mode="constant") for c in range(k)])


def beta_hat(labels, k, lo=0.0, hi=1.5):
    n = neighbour_counts(labels, k)
    own = np.take_along_axis(n, labels[None], axis=0)[0]
    betas = np.linspace(lo, hi, 301)
    scores = [np.sum(b * own - np.log(np.exp(b * n).sum(axis=0))) for b in betas]
    return betas[int(np.argmax(scores))]


def icm(labels, logdens, k):
    """Potts ICM from labels on the class log-densities (k, rows, cols)."""
    rows, cols = labels.shape
    beta = beta_hat(labels, k)
    colour = (np.arange(rows)[:, None] % 2) * 2 + (np.arange(cols)[None, :] % 2)
    for _ in range(50):
        changes = 0
        # No two pixels of one colour are 8-neighbours: each colour is updated at once.
        for c in range(4):
            n = neighbour_counts(labels, k)
            best = (logdens + beta * n).argmax(axis=0)
            sel = (colour == c) & (best != labels)
            labels = np.where(sel, best, labels)
            changes += int(sel.sum())
        if changes * 1000 <= labels.size:
            break
    return labels


def peers(cube, k):
    d, rows, cols = cube.shape
    x = cube.reshape(d, -1).T.astype(np.float64)
    out = {}
    t0 = time.monotonic()
    out["kmeans"] = (KMeans(k, n_init=4, random_state=0).fit_predict(x).reshape(rows, cols), time.monotonic() - t0)
    t0 = time.monotonic()
    gm = GaussianMixture(k, covariance_type="full", random_state=0, reg_covar=1e-3).fit(x)
    gl = gm.predict(x).reshape(rows, cols)
    out["gmm"] = (gl, time.monotonic() - t0)
    logdens = np.stack([multivariate_normal(gm.means_[c], gm.covariances_[c]).logpdf(x) for c in range(k)])
    refined = icm(gl, logdens.reshape(k, rows, cols), k)
    out["gmm+icm"] = (refined, time.monotonic() - t0)
    return out


SCENES = [
    # name, source, bands, classes, value ceiling
    ("L7 4 bands 8-bit, 3 classes", "l7", [0, 1, 2, 3], 3, 255),
    ("L7 4 bands 8-bit, 6 classes", "l7", [0, 1, 2, 3], 6, 255),
    ("L7 6 bands 8-bit, 5 classes", "l7", list(range(6)), 5, 255),
    ("L7 6 bands 8-bit, 8 classes", "l7", list(range(6)), 8, 255),
    ("L7 6 bands 8-bit, 12 classes", "l7", list(range(6)), 12, 255),
    ("L8 10 bands 16-bit, 4 classes", "l8", list(range(10)), 4, 65535),
    ("L8 10 bands 16-bit, 7 classes", "l8", list(range(10)), 7, 65535),
    ("L8 10 bands 16-bit, 10 classes", "l8", list(range(10)), 10, 65535),
]


def median(values):
    v = sorted(values)
    return v[len(v) // 2]


def timing(exe, repeat):
    tif = os.path.join(REPO, "data", "L7_ETMs.tif")
    demo = ["--set", "UNSUPERVISED_MODE_CONF.MaxNumberOfClasses=6", "--set",
            "UNSUPERVISED_MODE_CONF.SplitGainThreshold=0.05"] + CLASSIC[:4]
    with tempfile.TemporaryDirectory() as work:
        out = os.path.join(work, "l.tif")
        times = {"default": [], "demo before": []}
        cpu = {"default": [], "demo before": []}
        for _ in range(repeat):
            for name, extra in (("default", []), ("demo before", demo)):
                t0 = time.monotonic()
                r0 = resource.getrusage(resource.RUSAGE_CHILDREN)
                subprocess.run([exe, "segment", tif, "-o", out, "-q"] + extra, check=True)
                r1 = resource.getrusage(resource.RUSAGE_CHILDREN)
                times[name].append(time.monotonic() - t0)
                cpu[name].append(r1.ru_utime + r1.ru_stime - r0.ru_utime - r0.ru_stime)
    # On a shared machine the processor time of the run is the steadier figure.
    for label, t in (("elapsed", times), ("processor", cpu)):
        print("Landsat-7 L7_ETMs.tif, %d runs each, alternately, %s time: default %.2f s, as make demo before "
              "%.2f s (median; ratio %.2f)" % (repeat, label, median(t["default"]), median(t["demo before"]),
                                               median(t["default"]) / median(t["demo before"])))


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--build", default=os.path.join(REPO, "build"))
    ap.add_argument("--work", help="directory for the fetched Landsat-8 scene and the scenes")
    ap.add_argument("--size", type=int, default=200, help="rows and columns of each scene")
    ap.add_argument("--timing", type=int, default=0, help="runs of the Landsat-7 timing (0: none)")
    args = ap.parse_args()
    exe = os.path.join(args.build, "dhc")
    work = args.work or tempfile.mkdtemp(prefix="dhc-quality-")
    os.makedirs(work, exist_ok=True)

    sources = {"l7": landsat7(), "l8": landsat8(work)}
    for name, cube in sources.items():
        labels, _ = run_dhc(exe, cube.astype(np.int32), work, [])
        print("real scene %s (%d bands, %d x %d): default dhc gives %d classes" % (
            name, cube.shape[0], cube.shape[1], cube.shape[2], len(np.unique(labels))))
    methods = ("dhc", "dhc-bic", "dhc-classic", "kmeans", "gmm", "gmm+icm")
    print()
    print("| scene | classes | " + " | ".join("%s classes / ARI / NMI / s" % m for m in methods) + " |")
    print("|---|---|" + "---|" * len(methods))
    rows = []
    for i, (name, source, bands, k, top) in enumerate(SCENES):
        means, covs = class_gaussians(sources[source][bands], k, seed=i)
        truth = label_field(args.size, args.size, k, seed=i, smooth=5.0)
        cube = draw(truth, means, covs, seed=i, top=top)
        results = {}
        results["dhc"] = run_dhc(exe, cube, work, [])
        results["dhc-bic"] = run_dhc(exe, cube, work, ["--set", "UNSUPERVISED_MODE_CONF.StopCriterion=2"])
        results["dhc-classic"] = run_dhc(exe, cube, work, CLASSIC)
        results.update(peers(cube, k))
        row = {}
        cells = []
        for m in methods:
            labels, seconds = results[m]
            ari = adjusted_rand_score(truth.ravel(), labels.ravel())
            nmi = normalized_mutual_info_score(truth.ravel(), labels.ravel())
            count = len(np.unique(labels))
            row[m] = (count, ari, nmi, seconds)
            cells.append("%d / %.2f / %.2f / %.1f" % (count, ari, nmi, seconds))
        rows.append((name, k, row))
        print("| %s | %d | %s |" % (name, k, " | ".join(cells)))
        sys.stdout.flush()

    counts_ok = sum(3 <= r["dhc"][0] <= 15 and abs(r["dhc"][0] - k) <= 2 for _, k, r in rows)
    by_gmm = sorted(rows, key=lambda x: x[2]["gmm"][1])
    mid = by_gmm[len(by_gmm) // 2]
    beat_icm = sum(r["dhc"][1] >= r["gmm+icm"][1] for _, _, r in rows)
    print()
    print("default class count in 3..15 and within 2 of the truth: %d of %d scenes" % (counts_ok, len(rows)))
    print("median scene (by the mixture's ARI), %s: dhc ARI %.2f, mixture %.2f" % (
        mid[0], mid[2]["dhc"][1], mid[2]["gmm"][1]))
    print("dhc ARI at least the mixture + ICM's: %d of %d scenes" % (beat_icm, len(rows)))
    if args.timing:
        timing(exe, args.timing)
    return 0


if __name__ == "__main__":
    sys.exit(main())
