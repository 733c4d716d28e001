#!/usr/bin/python3
"""Runs an old build of `dhc` and the current one side by side on the same inputs.

small mode (the default; run by `make test`): a matrix of configurations on
small synthetic scenes; every output file of the new build (labels, report,
fragments, picture) must be byte-identical to the old build's.  Exit status 1
names each file that differs.

big mode: 1024², 2048², 4096² synthetic scenes and the 6-band Landsat scene
(L7_ETMs.tif of Debian's r-cran-stars) tiled 4 x 4; prints wall time and
peak RSS of both builds and the ratios new/old, and compares the outputs too.
With --repeat N the two builds run N times each, alternately, and the medians
are printed: on a shared virtual machine one run's speed can drift by a
third within minutes.

The old build is the commit given by --old (default: the commit before the
speed-ups), exported with `git archive` into a scratch directory and built
there (only the `dhc` target), unless --old-build names a directory that
already holds it.
"""

import argparse
import os
import resource
import shutil
import subprocess
import sys
import tempfile
import time

import numpy as np

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(HERE)
DEFAULT_OLD = "3a2b9e0"


def run(cmd, **kw):
    r = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **kw)
    if r.returncode != 0:
        sys.stderr.write("failed (%d): %s\n%s" % (r.returncode, " ".join(cmd), r.stdout))
        sys.exit(2)
    return r.stdout


def build_old(commit, build_dir):
    """Builds the dhc target of `commit` in build_dir (sources in build_dir/src)."""
    exe = os.path.join(build_dir, "build", "dhc")
    stamp = os.path.join(build_dir, "commit")
    r = subprocess.run(["git", "-C", REPO, "rev-parse", "--verify", "-q", commit + "^{commit}"],
                       stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    if r.returncode != 0:
        # A shallow clone may lack it: nothing to compare with (CTest: skipped).
        print("commit %s is not in this clone: comparison skipped" % commit)
        sys.exit(77)
    full = r.stdout.strip()
    if os.path.exists(exe) and os.path.exists(stamp) and open(stamp).read().strip() == full:
        return exe
    src = os.path.join(build_dir, "src")
    shutil.rmtree(src, ignore_errors=True)
    os.makedirs(src)
    archive = subprocess.Popen(["git", "-C", REPO, "archive", full], stdout=subprocess.PIPE)
    run(["tar", "-x", "-C", src], stdin=archive.stdout)
    archive.wait()
    bdir = os.path.join(build_dir, "build")
    run(["cmake", "-S", src, "-B", bdir, "-DCMAKE_BUILD_TYPE=RelWithDebInfo"])
    run(["cmake", "--build", bdir, "-j2", "--target", "dhc_tool"])
    with open(stamp, "w") as f:
        f.write(full + "\n")
    return exe


def write_hraw(path, cube):
    cube = np.ascontiguousarray(cube, dtype="<i4")
    if cube.ndim == 2:
        cube = cube[None]
    with open(path, "wb") as f:
        np.array(cube.shape, dtype="<i4").tofile(f)
        cube.tofile(f)


# The behaviour the old build has: the settings added since at 0 (the new
# build only knows them) and the old built-in class limit; a case's own
# --set come after and win.
CLASSIC = ["--set", "UNSUPERVISED_MODE_CONF.StopCriterion=0", "--set", "UNSUPERVISED_MODE_CONF.FinalRefinement=0",
           "--set", "UNSUPERVISED_MODE_CONF.MaxNumberOfClasses=8"]


def make_scene(tool, out, rows, cols, seed=1):
    scene = os.path.join(out, "scene_%dx%d_%d.hraw" % (rows, cols, seed))
    truth = os.path.join(out, "truth_%dx%d_%d.hraw" % (rows, cols, seed))
    if not os.path.exists(scene):
        run([tool, "-o", scene, "--truth", truth, "--rows", str(rows), "--cols", str(cols),
             "--seed", str(seed)])
    return scene, truth


def band_variants(out, scene):
    """The scene cut to 3 bands and widened to 5 and 6 (sums of its bands)."""
    raw = np.fromfile(scene, dtype="<i4")
    b, r, c = raw[:3]
    cube = raw[3:].reshape(b, r, c)
    paths = []
    for n in (3, 5, 6):
        extra = [cube[i % b] + cube[(i + 1) % b] for i in range(max(0, n - b))]
        path = os.path.join(out, "bands%d.hraw" % n)
        write_hraw(path, np.concatenate([cube[:min(n, b)]] + ([np.stack(extra)] if extra else [])))
        paths.append(path)
    return paths


def mask_and_init(out, rows, cols):
    """A disc-shaped mask and a two-region initial segmentation (0 outside a frame)."""
    r, c = np.mgrid[0:rows, 0:cols]
    mask = (((r - rows / 2) ** 2 + (c - cols / 2) ** 2) < (0.4 * min(rows, cols)) ** 2).astype(np.int32)
    init = np.where(c < cols // 3, 1, 2).astype(np.int32)
    init[:2, :] = 0
    mpath, ipath = os.path.join(out, "mask.hraw"), os.path.join(out, "init.hraw")
    write_hraw(mpath, mask)
    write_hraw(ipath, init)
    return mpath, ipath


def configurations(scene, truth, mask, init):
    """(name, extra arguments, output kinds) for every case of the matrix."""
    s = lambda *kv: sum((["--set", x] for x in kv), [])
    U = "UNSUPERVISED_MODE_CONF."
    P = "POTTS_MODEL."
    rp = ("report", "png")
    return [
        ("default", [], rp),
        ("mult3", s(P + "Multiplicity=3"), rp),
        ("mult4", s(P + "Multiplicity=4"), rp),
        ("variable", s(U + "VariableMultiplicity=1"), rp),
        ("variable_knn", s(U + "VariableMultiplicity=1", "MEANSHIFT.AutoAdjustKNN=3"), rp),
        ("balanced", s(U + "BalancedTree=1", U + "GrowDepth=3"), rp),
        ("blind", s(U + "Blind=1", U + "Metric=2", U + "SplitGainThreshold=50000"), rp),
        ("blind_limits", s(U + "Blind=1", U + "BlindSplitDepthMax=2", U + "BlindSplitAreaMin=200"), rp),
        ("supervised", ["--gt", truth] + s("SEGM_MAIN_CONFIGURATION.SupervisedMode=1",
                                          "SUPERVISED_MODE_CONF.NumberOfClasses=4",
                                          "SUPERVISED_MODE_CONF.StructureLevels={2 2 2 2}",
                                          "SUPERVISED_MODE_CONF.StructurePaths={0 0 0 1 1 0 1 1}"), rp),
        ("fragmentation", s(U + "Fragmentation=1"), ("fragments", "png")),
        ("disconnect", s(U + "SplitwiseDisconnect=1"), ("png",)),
        ("mask", ["--mask", mask], rp),
        ("init", ["--init", init], rp),
        ("fixed_beta", s(P + "BetaMin=0.7", P + "BetaMax=0.7", U + "MaxNumberOfClasses=12"), rp),
        ("min_area", s(U + "MinRegionArea=400", U + "SplitGainThreshold=0.05"), rp),
    ]


def outputs(prefix, kinds):
    args, files = ["-o", prefix + ".labels.hraw"], [prefix + ".labels.hraw"]
    ext = {"report": ".report.txt", "png": ".png", "fragments": ".fragments.hraw"}
    for k in kinds:
        args += ["--" + k, prefix + ext[k]]
        files.append(prefix + ext[k])
    return args, files


def timed(cmd):
    """Runs cmd; returns (wall seconds, CPU seconds, peak RSS in MiB) of that child alone."""
    t0 = time.monotonic()
    pid = os.fork()
    if pid == 0:
        try:
            devnull = os.open(os.devnull, os.O_WRONLY)
            os.dup2(devnull, 1)
            os.execv(cmd[0], cmd)
        finally:
            os._exit(127)
    _, status, usage = os.wait4(pid, 0)
    wall = time.monotonic() - t0
    if os.waitstatus_to_exitcode(status) != 0:
        sys.stderr.write("failed (%d): %s\n" % (os.waitstatus_to_exitcode(status), " ".join(cmd)))
        sys.exit(2)
    return wall, usage.ru_utime + usage.ru_stime, usage.ru_maxrss / 1024.0


def medians(runs):
    """The median of each column of (wall, CPU, peak) triples."""
    return tuple(sorted(column)[len(column) // 2] for column in zip(*runs))


def supports_threads(exe):
    r = subprocess.run([exe, "segment", "--help"], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    return "--threads" in r.stdout


def same(a, b):
    return subprocess.run(["cmp", "-s", a, b]).returncode == 0


def small(args, old, new, work):
    tool = os.path.join(args.new_build, "dhc-make-scene")
    threads = [None]
    if supports_threads(new):
        threads = ["1", "2"]
    bad = 0
    count = 0
    # The two largest scenes are above the sizes at which a loop, and an ICM
    # sweep, are cut among threads, so there 1 and 2 threads take different
    # paths.
    for rows, cols in ((96, 112), (160, 128), (256, 272), (384, 400)):
        d = os.path.join(work, "%dx%d" % (rows, cols))
        os.makedirs(d, exist_ok=True)
        scene, truth = make_scene(tool, d, rows, cols, seed=rows)
        mask, init = mask_and_init(d, rows, cols)
        cases = [(scene, c) for c in configurations(scene, truth, mask, init)]
        if rows == 256:
            cases = [c for c in cases if c[1][0] in ("default", "mult3", "variable", "supervised", "mask",
                                                     "fixed_beta", "blind")]
        if rows == 384:
            cases = [c for c in cases if c[1][0] in ("default", "mult3", "mask", "fixed_beta")]
        if rows == 96:
            cases += [(v, ("bands" + v[-6], [], ("report",))) for v in band_variants(d, scene)]
        for image, (name, extra, kinds) in cases:
            oa, ofiles = outputs(os.path.join(d, name + ".old"), kinds)
            run([old, "segment", image, "-q"] + oa + extra)
            for t in threads:
                tag = name + ".new" + ("" if t is None else ".t" + t)
                na, nfiles = outputs(os.path.join(d, tag), kinds)
                targs = [] if t is None else ["--threads", t]
                run([new, "segment", image, "-q"] + CLASSIC + na + extra + targs)
                for a, b in zip(ofiles, nfiles):
                    count += 1
                    if not same(a, b):
                        bad += 1
                        print("DIFFERS: %s vs %s" % (a, b))
    print("%d passed, %d failed" % (count - bad, bad))
    return 1 if bad else 0


def landsat(work):
    """The Landsat scene tiled 4 x 4 as hraw, or None when it cannot be had."""
    out = os.path.join(work, "landsat_4x4.hraw")
    if os.path.exists(out):
        return out
    tif = None
    for root, _, files in os.walk(work):
        if "L7_ETMs.tif" in files:
            tif = os.path.join(root, "L7_ETMs.tif")
    if tif is None:
        deb = os.path.join(work, "deb")
        os.makedirs(deb, exist_ok=True)
        if subprocess.run(["apt-get", "download", "r-cran-stars"], cwd=deb).returncode != 0:
            return None
        pkg = [f for f in os.listdir(deb) if f.endswith(".deb")][0]
        run(["dpkg", "-x", os.path.join(deb, pkg), os.path.join(deb, "x")])
        return landsat(work)
    from osgeo import gdal
    ds = gdal.Open(tif)
    cube = np.stack([ds.GetRasterBand(b + 1).ReadAsArray().astype(np.int32) for b in range(ds.RasterCount)])
    write_hraw(out, np.tile(cube, (1, 4, 4)))
    return out


def big(args, old, new, work):
    tool = os.path.join(args.new_build, "dhc-make-scene")
    cases = []
    for side in args.sides:
        scene, _ = make_scene(tool, work, side, side)
        cases.append(("%d²" % side, scene, side * side * 4))
    if not args.no_landsat:
        ls = landsat(work)
        if ls is not None:
            hdr = np.fromfile(ls, dtype="<i4", count=3)
            cases.append(("Landsat 4x4 (%dx%d, %d bands)" % (hdr[1], hdr[2], hdr[0]), ls,
                          int(hdr[0]) * int(hdr[1]) * int(hdr[2])))
    threads = supports_threads(new)
    # CPU time is printed beside wall time: on a shared machine it is the
    # steadier measure of the work done.
    print("| scene | old wall s | new wall s | wall new/old | old CPU s | new CPU s | CPU new/old "
          "| old peak MiB | new peak MiB | memory new/old | new bytes/pixel/band | same bytes |")
    print("|---|---|---|---|---|---|---|---|---|---|---|---|")
    bad = 0
    for name, scene, values in cases:
        po, pn = os.path.join(work, "big.old"), os.path.join(work, "big.new")
        oa, of = outputs(po, ("report",))
        na, nf = outputs(pn, ("report",))
        olds, news = [], []
        for _ in range(max(args.repeat, 1)):
            olds.append(timed([old, "segment", scene, "-q"] + oa))
            news.append(timed([new, "segment", scene, "-q"] + CLASSIC + na +
                              (["--threads", str(args.threads)] if threads else [])))
        to, co, mo = medians(olds)
        tn, cn, mn = medians(news)
        ok = all(same(a, b) for a, b in zip(of, nf))
        bad += 0 if ok else 1
        print("| %s | %.1f | %.1f | %.2f | %.1f | %.1f | %.2f | %.0f | %.0f | %.2f | %.1f | %s |" % (
            name, to, tn, tn / to, co, cn, cn / co, mo, mn, mn / mo, mn * 1048576 / values, "yes" if ok else "NO"))
        sys.stdout.flush()
    return 1 if bad else 0


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("mode", nargs="?", choices=("small", "big"), default="small")
    ap.add_argument("--old", default=DEFAULT_OLD, help="commit to compare against (default %(default)s)")
    ap.add_argument("--old-build", help="scratch directory of the old build (reused when it holds that commit)")
    ap.add_argument("--new-build", default=os.path.join(REPO, "build"), help="build directory of the current tree")
    ap.add_argument("--work", help="directory for scenes and outputs (default: a temporary one)")
    ap.add_argument("--sides", type=int, nargs="*", default=[1024, 2048, 4096])
    ap.add_argument("--threads", type=int, default=os.cpu_count() or 1, help="big mode: --threads of the new build")
    ap.add_argument("--no-landsat", action="store_true")
    ap.add_argument("--repeat", type=int, default=1, help="big mode: runs of each build per scene (medians printed)")
    args = ap.parse_args()

    new = os.path.join(args.new_build, "dhc")
    if not os.access(new, os.X_OK):
        sys.exit("no dhc in %s" % args.new_build)
    old_dir = args.old_build or os.path.join(tempfile.gettempdir(), "dhc-compare-old")
    os.makedirs(old_dir, exist_ok=True)
    old = build_old(args.old, old_dir)
    work = args.work or tempfile.mkdtemp(prefix="dhc-compare-")
    os.makedirs(work, exist_ok=True)
    try:
        return small(args, old, new, work) if args.mode == "small" else big(args, old, new, work)
    finally:
        if not args.work:
            shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
