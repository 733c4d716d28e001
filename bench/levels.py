#!/usr/bin/python3
"""Time and peak memory of `dhc segment --levels` against the size it writes.

Runs the tool on synthetic scenes of growing side with settings that split
down to a class per few pixels, so that the number of cuts grows with the
pixels and the stack of cuts with their square.  For each scene it prints the
bands and megabytes written, wall time and peak RSS with and without
--levels, and the time and memory --levels adds per megabyte written: both
stay flat when the cuts are made one band at a time.

With --old-build DIR (a build directory holding an older `dhc`) the old tool
runs too, and the two levels files must be byte-identical.  --format picks a
GDAL output (e.g. tif) instead of hraw.
"""

import argparse
import os
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
from compare import run, same, timed  # noqa: E402

MANY = ["--set", "UNSUPERVISED_MODE_CONF.MaxNumberOfClasses=1000000",
        "--set", "UNSUPERVISED_MODE_CONF.SplitGainThreshold=-1e9",
        "--set", "UNSUPERVISED_MODE_CONF.MinRegionArea=1", "--threads", "1", "-q"]


def main():
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--new-build", default=os.path.join(os.path.dirname(HERE), "build"))
    p.add_argument("--old-build")
    p.add_argument("--sides", default="40,80,150")
    p.add_argument("--format", default="hraw", help="extension of the levels file (hraw, tif, ...)")
    args = p.parse_args()
    tools = [("new", os.path.join(args.new_build, "dhc"))]
    if args.old_build:
        tools.append(("old", os.path.join(args.old_build, "dhc")))
    with tempfile.TemporaryDirectory(prefix="dhc-levels-") as work:
        print("%-5s %5s %6s %9s %9s %9s %9s %9s %10s %10s" % (
            "tool", "side", "bands", "MB", "run s", "levels s", "run MiB", "lvl MiB", "s/MB", "MiB/MB"))
        for side in (int(s) for s in args.sides.split(",")):
            scene = os.path.join(work, "scene%d.hraw" % side)
            run([os.path.join(args.new_build, "dhc-make-scene"), "-o", scene, "--rows", str(side),
                 "--cols", str(side)])
            written = {}
            for name, exe in tools:
                out = os.path.join(work, "levels.%s.%d.%s" % (name, side, args.format))
                base = timed([exe, "segment", scene, "-o", os.path.join(work, "l.hraw")] + MANY)
                full = timed([exe, "segment", scene, "-o", os.path.join(work, "l.hraw"), "--levels", out] + MANY)
                with open(out, "rb") as f:
                    header = f.read(4)
                bands = int.from_bytes(header, "little") if args.format == "hraw" else 0
                mb = os.path.getsize(out) / 1e6
                raw_mb = (bands * side * side * 4) / 1e6 if bands else mb
                print("%-5s %5d %6s %9.1f %9.2f %9.2f %9.1f %9.1f %10.4f %10.3f" % (
                    name, side, bands or "-", raw_mb, base[0], full[0], base[2], full[2],
                    (full[0] - base[0]) / raw_mb, (full[2] - base[2]) / raw_mb))
                written[name] = out
            if "old" in written and not same(written["old"], written["new"]):
                print("DIFFERS: %s vs %s" % (written["old"], written["new"]))
                return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
