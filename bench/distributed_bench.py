#!/usr/bin/python3
"""Benchmark of dhc.distributed against `dhc apply` in one process (not a test).

    PYTHONPATH=build/python bench/distributed_bench.py --size 16384 [--bands 4] [--block 2048]
        [--workers 2] [--memory-limit 3GiB] [--dir DIR] [--dhc build/dhc]

Writes a synthetic SIZE x SIZE mosaic GeoTIFF (Int16, tiled, BANDS bands: six
classes in rectangles of a few hundred pixels, Gaussian noise; the same file
for the same size), then
  1. segment_raster end to end (sample, learn, label) on a LocalCluster of
     WORKERS single-threaded worker processes with MEMORY_LIMIT each;
  2. apply_raster alone with that model on a fresh cluster of the same kind;
  3. `dhc apply --threads 1` on the same mosaic, one process;
and prints wall and CPU times, pixels per second per core, and the peak
resident memory of each worker and of the tool.  The two label maps are
compared pixel for pixel.  Generating and labelling take minutes at 16384;
give a smaller --size on a small machine.
"""

import argparse
import os
import resource
import subprocess
import sys
import time

import numpy as np
from osgeo import gdal

import dhc
import dhc.distributed as dd

gdal.UseExceptions()


def make_mosaic(path, size, bands, strip=512):
    """Six classes in rectangles, noise; written strip by strip."""
    if os.path.exists(path):
        return
    tmp = path + ".tmp"
    ds = gdal.GetDriverByName("GTiff").Create(tmp, size, size, bands, gdal.GDT_Int16,
                                              ["TILED=YES", "BLOCKXSIZE=512", "BLOCKYSIZE=512", "BIGTIFF=YES"])
    ds.SetGeoTransform((300000.0, 10.0, 0.0, 5000000.0, 0.0, -10.0))
    means = np.array([[300, 500, 400, 2500], [900, 1200, 1000, 3000], [1500, 1300, 900, 1800],
                      [400, 700, 1800, 2200], [2000, 2100, 2300, 2600], [700, 600, 500, 400]], dtype=np.float64)
    means = np.resize(means, (6, bands))
    cols = np.arange(size)
    for top in range(0, size, strip):
        rows = np.arange(top, min(size, top + strip))
        cls = ((rows[:, None] // 317) * 7 + (cols[None, :] // 229) * 3 + (rows[:, None] // 1024)) % 6
        rng = np.random.default_rng(top)
        for b in range(bands):
            v = means[cls, b] + rng.normal(0.0, 60.0, cls.shape)
            ds.GetRasterBand(b + 1).WriteArray(np.round(v).astype(np.int16), 0, int(top))
    ds = None
    os.replace(tmp, path)


def worker_peaks(client):
    return sorted(v / 1024 for v in client.run(lambda: resource.getrusage(resource.RUSAGE_SELF).ru_maxrss).values())


def cluster(workers, memory_limit):
    from distributed import Client, LocalCluster
    c = LocalCluster(n_workers=workers, threads_per_worker=1, processes=True, memory_limit=memory_limit,
                     dashboard_address=None, silence_logs=40)
    return Client(c), c


def cpu_of(client):
    return sum(client.run(lambda: time.process_time()).values())


def same_labels(a, b, strip=1024):
    da, db = gdal.Open(a), gdal.Open(b)
    rows, cols = da.RasterYSize, da.RasterXSize
    for top in range(0, rows, strip):
        n = min(strip, rows - top)
        if not np.array_equal(da.ReadAsArray(0, top, cols, n), db.ReadAsArray(0, top, cols, n)):
            return False
    return True


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    p.add_argument("--size", type=int, default=16384)
    p.add_argument("--bands", type=int, default=4)
    p.add_argument("--block", type=int, default=2048)
    p.add_argument("--workers", type=int, default=2)
    p.add_argument("--memory-limit", default="3GiB")
    p.add_argument("--sample-pixels", type=int, default=4_000_000)
    p.add_argument("--dir", default="bench-out")
    p.add_argument("--steps", default="segment,apply,tool",
                   help="which of segment, apply, tool to run (apply and tool reuse DIR/model.json)")
    p.add_argument("--dhc", default=os.path.join(os.path.dirname(__file__), "..", "build", "dhc"))
    a = p.parse_args()
    os.makedirs(a.dir, exist_ok=True)
    mosaic = os.path.join(a.dir, f"mosaic_{a.size}x{a.bands}.tif")
    t = time.time()
    make_mosaic(mosaic, a.size, a.bands)
    pixels = a.size * a.size
    print(f"mosaic {a.size} x {a.size} x {a.bands} ({pixels / 1e6:.0f} Mpixels): {mosaic} "
          f"({time.time() - t:.1f} s to make or find)")
    settings = dhc.Settings(max_number_of_classes=6, split_gain_threshold=0.05)

    steps = set(a.steps.split(","))
    if "segment" not in steps:
        model = dhc.Model.load(os.path.join(a.dir, "model.json"))
    else:
        model = segment_step(a, mosaic, settings, pixels)
    if "apply" in steps:
        apply_step(a, mosaic, model, pixels)
    if "tool" in steps:
        tool_step(a, mosaic, pixels)
    if {"apply", "tool"} <= steps:
        print("apply_raster and dhc apply give the same labels:",
              same_labels(os.path.join(a.dir, "apply.tif"), os.path.join(a.dir, "tool.tif")))


def segment_step(a, mosaic, settings, pixels):
    client, c = cluster(a.workers, a.memory_limit)
    t, cpu0 = time.time(), cpu_of(client)
    model = dd.segment_raster(mosaic, os.path.join(a.dir, "segment.tif"), client=client, settings=settings,
                              sample_pixels=a.sample_pixels, block=a.block)
    wall, cpu = time.time() - t, cpu_of(client) - cpu0
    peaks = worker_peaks(client)
    client.close(); c.close()
    print(f"segment_raster: {wall:.1f} s wall, {cpu:.1f} s worker CPU, {len(model.labels)} leaves, "
          f"{pixels / wall / a.workers / 1e6:.2f} Mpixels/s per core (wall), "
          f"worker peaks {', '.join(f'{m:.0f}' for m in peaks)} MiB")
    model.save(os.path.join(a.dir, "model.json"))
    return model


def apply_step(a, mosaic, model, pixels):
    client, c = cluster(a.workers, a.memory_limit)
    t, cpu0 = time.time(), cpu_of(client)
    dd.apply_raster(mosaic, os.path.join(a.dir, "apply.tif"), model, client=client, block=a.block)
    wall, cpu = time.time() - t, cpu_of(client) - cpu0
    peaks = worker_peaks(client)
    client.close(); c.close()
    print(f"apply_raster: {wall:.1f} s wall, {cpu:.1f} s worker CPU, "
          f"{pixels / wall / a.workers / 1e6:.2f} Mpixels/s per core (wall), "
          f"{pixels / cpu / 1e6:.2f} Mpixels/s per CPU second, "
          f"worker peaks {', '.join(f'{m:.0f}' for m in peaks)} MiB")


def tool_step(a, mosaic, pixels):
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    t = time.time()
    subprocess.run([a.dhc, "apply", mosaic, "--model", os.path.join(a.dir, "model.json"), "-o",
                    os.path.join(a.dir, "tool.tif"), "--threads", "1", "-q"], check=True)
    wall = time.time() - t
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    cpu = (after.ru_utime + after.ru_stime) - (before.ru_utime + before.ru_stime)
    print(f"dhc apply --threads 1: {wall:.1f} s wall, {cpu:.1f} s CPU, "
          f"{pixels / wall / 1e6:.2f} Mpixels/s (wall), {pixels * a.bands / cpu / 1e6:.1f} M pixel-bands/s per "
          f"CPU second, peak {after.ru_maxrss / 1024:.0f} MiB")


if __name__ == "__main__":
    sys.exit(main())
