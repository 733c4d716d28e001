"""dhc on a Dask ``distributed`` cluster: learn a model on a sample of a
raster, then label the whole raster block by block, on any number of
machines.

    >>> from dask.distributed import Client
    >>> import dhc.distributed as dd
    >>> model = dd.segment_raster("mosaic.tif", "labels.tif")              # a LocalCluster
    >>> dd.apply_raster("other.tif", "other_labels.tif", model, client=Client("tcp://scheduler:8786"))
    >>> dd.apply_many(["a.tif", "b.tif"], ["a_labels.tif", "b_labels.tif"], model)

Every block is read by a worker straight from the raster with a margin of
``model.radius`` pixels around it (cut at the raster's edges) and labelled
there, so its labels are exactly those of :func:`dhc.apply` on the whole
image; only the block's labels travel back.  The calling process writes them
into a GeoTIFF under a temporary name next to the destination, window by
window, and renames it when every block is in: the output appears whole or
not at all.  A worker that dies costs a retry of its blocks on another
worker, never a damaged output.  No process holds the whole raster.

The source must be a path every worker can open (a shared file system, or
any GDAL path such as ``/vsis3/...``); the destination is written by the
calling process.
"""

from __future__ import annotations

import itertools
import math
import os
import uuid
from typing import Any, Callable, Iterator, List, Optional, Sequence, Tuple

import numpy as np

from . import Model, Settings, _dhc, _model_values, _round_half_away, segment

__all__ = ["segment_raster", "apply_raster", "apply_many", "sample_raster"]

# Tasks a worker may lose to dying workers before the run gives up.
_RETRIES = 3


def _gdal() -> Any:
    try:
        from osgeo import gdal
    except ImportError as e:  # pragma: no cover - the Debian package brings it
        raise ImportError("dhc.distributed needs GDAL's Python bindings (Debian: python3-gdal)") from e
    gdal.UseExceptions()
    return gdal


# GDAL's block cache of a worker: its default (5 % of the memory) would
# make a worker's memory grow with the raster it reads, not with its blocks.
_CACHE_BYTES = 64 << 20


def _open(path: str) -> Any:
    gdal = _gdal()
    if gdal.GetCacheMax() > _CACHE_BYTES:
        gdal.SetCacheMax(_CACHE_BYTES)
    try:
        return gdal.Open(os.fspath(path))
    except RuntimeError as e:
        raise ValueError(f"cannot open raster {os.fspath(path)!r}: {e}") from None


def _value_bands(ds: Any) -> List[Any]:
    """Every band but alpha bands, which only say which pixels hold data."""
    gdal = _gdal()
    bands = [ds.GetRasterBand(b) for b in range(1, ds.RasterCount + 1)]
    values = [b for b in bands if b.GetColorInterpretation() != gdal.GCI_AlphaBand]
    return values or bands[:1]


def _is_float(band: Any) -> bool:
    gdal = _gdal()
    return band.DataType in (gdal.GDT_Float32, gdal.GDT_Float64)


class _Shape:
    """What the calling process needs to know of a raster."""

    def __init__(self, path: str) -> None:
        ds = _open(path)
        self.path = os.fspath(path)
        self.rows, self.cols = ds.RasterYSize, ds.RasterXSize
        bands = _value_bands(ds)
        self.bands = len(bands)
        self.floats = any(_is_float(b) for b in bands)
        self.transform = ds.GetGeoTransform(can_return_null=True)
        self.projection = ds.GetProjection()
        self.metadata = ds.GetMetadata() or {}


def _check(shape: _Shape, model: Model) -> None:
    name = f"raster {shape.path!r}"
    if shape.bands != model.bands:
        raise ValueError(f"the model has {model.bands} bands but {name} has {shape.bands}")
    if shape.floats and model.scale is None:
        raise ValueError(f"the model was made from integer values but {name} has floating-point bands")
    if not shape.floats and model.scale is not None:
        raise ValueError(f"the model was made from floating-point values (scaled) but {name} has integer bands")


def _read(path: str, window: Tuple[int, int, int, int], nodata: Optional[float],
          stride: int = 1) -> Tuple[np.ndarray, np.ndarray, List[bool]]:
    """Bands of a window (row, col, rows, cols) as float64 and the pixels
    holding data, by the rules of ``dhc segment``'s reader: a band's nodata
    value (or ``nodata`` for every band), NaN and infinity, a mask or alpha
    band.  stride > 1 keeps only every stride-th row and column of the window
    (from its first), reading one row at a time."""
    gdal = _gdal()
    ds = _open(path)
    row, col, rows, cols = window
    bands = _value_bands(ds)
    alpha = next((ds.GetRasterBand(b) for b in range(1, ds.RasterCount + 1)
                  if ds.GetRasterBand(b).GetColorInterpretation() == gdal.GCI_AlphaBand), None)

    def read(band: Any, buf_type: int) -> np.ndarray:
        if stride == 1:
            return band.ReadAsArray(col, row, cols, rows, buf_type=buf_type)
        return np.stack([band.ReadAsArray(col, r, cols, 1, buf_type=buf_type)[0, ::stride]
                         for r in range(row, row + rows, stride)])

    out_rows, out_cols = -(-rows // stride), -(-cols // stride)
    values = np.empty((len(bands), out_rows, out_cols), dtype=np.float64)
    ok = np.ones((out_rows, out_cols), dtype=bool)
    for i, band in enumerate(bands):
        v = read(band, gdal.GDT_Float64)
        values[i] = v
        ok &= np.isfinite(v)
        value = band.GetNoDataValue() if nodata is None else nodata
        if value is not None:
            same = v == value
            if band.DataType == gdal.GDT_Float32:
                with np.errstate(over="ignore", invalid="ignore"):
                    same |= v.astype(np.float32) == np.float32(value)
            ok &= ~same
        flags = band.GetMaskFlags()
        mask = None
        if not (flags & gdal.GMF_ALL_VALID) and not (flags & gdal.GMF_NODATA):
            mask = band.GetMaskBand()
        elif alpha is not None:
            mask = alpha
        if mask is not None:
            ok &= read(mask, gdal.GDT_Byte) != 0
    return values, ok, [_is_float(b) for b in bands]


def _integers(values: np.ndarray, ok: np.ndarray, floats: List[bool], scale: Optional[float],
              where: str) -> np.ndarray:
    """The int32 cube of read values: floating-point bands times scale,
    rounded half away from zero; nodata pixels 0."""
    cube = np.zeros(values.shape, dtype=np.int32)
    for i, is_float in enumerate(floats):
        v = np.where(ok, values[i], 0.0)
        if is_float:
            v = _round_half_away(v * scale)
        if v.size and (v.max() > 2**31 - 1 or v.min() < -(2**31)):
            raise ValueError(f"{where} band {i + 1}: values do not fit 32-bit integers"
                             + (f" once scaled by {scale:g}" if is_float else ""))
        cube[i] = v
    return cube


def _label_block(path: str, model_text: str, rows: int, cols: int, block: Tuple[int, int, int, int],
                 threads: int) -> np.ndarray:
    """Runs on a worker: the labels of one block, from the block and its halo."""
    model = Model.from_json(model_text)
    row, col, h, w = block
    r = model.radius
    top, left = max(0, row - r), max(0, col - r)
    bottom, right = min(rows, row + h + r), min(cols, col + w + r)
    values, ok, floats = _read(path, (top, left, bottom - top, right - left), model.nodata)
    cube = _integers(values, ok, floats, model.scale, f"raster {path!r}")
    del values
    valid = None if ok.all() else ok.astype(np.uint8)
    labels = _dhc.apply(cube, valid, model_text, top, left, float(threads))
    return np.ascontiguousarray(labels[row - top:row - top + h, col - left:col - left + w])


def _blocks(rows: int, cols: int, block: int) -> Iterator[Tuple[int, int, int, int]]:
    for row in range(0, rows, block):
        for col in range(0, cols, block):
            yield row, col, min(block, rows - row), min(block, cols - col)


def _client(client: Any) -> Tuple[Any, Any]:
    """The client to use and what to close afterwards (a LocalCluster of our own)."""
    if client is not None:
        return client, None
    from distributed import Client, LocalCluster
    cluster = LocalCluster(processes=True, threads_per_worker=1, dashboard_address=None)
    own = Client(cluster)
    return own, (own, cluster)


def _close(owned: Any) -> None:
    if owned is not None:
        client, cluster = owned
        client.close()
        cluster.close()


def _create(path: str, shape: _Shape, model: Model) -> Any:
    """An empty label GeoTIFF georeferenced like the source: the smallest
    unsigned type for the model's labels, nodata 0, tiled, DEFLATE."""
    gdal = _gdal()
    top = int(model.labels.max())
    dtype = gdal.GDT_Byte if top <= 255 else gdal.GDT_UInt16 if top <= 65535 else gdal.GDT_UInt32
    options = ["TILED=YES", "COMPRESS=DEFLATE", "BIGTIFF=IF_SAFER"]
    ds = gdal.GetDriverByName("GTiff").Create(path, shape.cols, shape.rows, 1, dtype, options)
    if shape.transform is not None:
        ds.SetGeoTransform(shape.transform)
    if shape.projection:
        ds.SetProjection(shape.projection)
    if shape.metadata:
        ds.SetMetadata(shape.metadata)
    band = ds.GetRasterBand(1)
    band.SetNoDataValue(0)
    if dtype != gdal.GDT_UInt32:
        table = gdal.ColorTable()
        for label, (r, g, b) in zip(model.labels, _dhc.label_colours(len(model.labels))):
            table.SetColorEntry(int(label), (r, g, b, 255))
        band.SetColorTable(table)
    return ds


def apply_raster(src: "os.PathLike[str] | str", dst: "os.PathLike[str] | str", model: "Model | str",
                 client: Any = None, block: int = 2048, threads: int = 1,
                 progress: Optional[Callable[[int, int], Any]] = None) -> str:
    """Labels the raster src with model into the GeoTIFF dst, block by block
    on the cluster of ``client`` (a LocalCluster of this machine's cores when
    None).  The labels are those of ``dhc.apply`` on the whole image.

    block     side of the square blocks in pixels (the last ones are smaller)
    threads   threads of each block's labelling on its worker
    progress  optional progress(done, total), called after each block written

    The model's bands and kind of values must fit the raster (ValueError
    before anything is written).  dst appears when every block is written,
    by a rename; on any error it is not created (nor changed).  Returns dst.
    """
    if not isinstance(model, Model):
        model = Model.load(model)
    if isinstance(block, bool) or not isinstance(block, int) or not 1 <= block <= 65535:
        raise ValueError(f"block must be a whole number of pixels from 1 to 65535, not {block!r}")
    src, dst = os.fspath(src), os.fspath(dst)
    shape = _Shape(src)
    _check(shape, model)
    if os.path.exists(dst) and os.path.samefile(src, dst):
        raise ValueError(f"the destination {dst!r} is the source raster")
    client, owned = _client(client)
    tmp = os.path.join(os.path.dirname(os.path.abspath(dst)),
                       f".{os.path.basename(dst)}.tmp.{os.getpid()}.{uuid.uuid4().hex[:8]}")
    try:
        from distributed import as_completed
        out = _create(tmp, shape, model)
        band = out.GetRasterBand(1)
        blocks = list(_blocks(shape.rows, shape.cols, block))
        text = model.to_json()
        # The model's text travels with each block (a few kilobytes): data
        # scattered to the workers once is lost with a killed worker, and the
        # blocks that need it are cancelled instead of retried.  A bounded
        # number of blocks is in flight, so finished labels never pile up.
        ahead = 2 * max(1, sum(client.nthreads().values()))
        pending = iter(blocks)

        def submit(b: Tuple[int, int, int, int]) -> Any:
            future = client.submit(_label_block, src, text, shape.rows, shape.cols, b, threads,
                                   key=f"dhc-block-{uuid.uuid4().hex}", retries=_RETRIES)
            where[future.key] = b
            return future

        where: dict = {}
        running = as_completed([submit(b) for b in itertools.islice(pending, ahead)])
        done = 0
        for future in running:
            row, col, _h, _w = where.pop(future.key)
            band.WriteArray(future.result(), col, row)
            done += 1
            nxt = next(pending, None)
            if nxt is not None:
                running.add(submit(nxt))
            if progress is not None:
                progress(done, len(blocks))
        band.FlushCache()
        out.FlushCache()
        band = None
        out = None
        os.replace(tmp, dst)
    except BaseException:
        band = None
        out = None
        if os.path.exists(tmp):
            os.unlink(tmp)
        raise
    finally:
        _close(owned)
    return dst


def apply_many(srcs: Sequence["os.PathLike[str] | str"], dsts: Sequence["os.PathLike[str] | str"],
               model: "Model | str", client: Any = None, block: int = 2048) -> List[str]:
    """Labels many rasters with one model (so their classes are the same
    classes), one after the other, each block by block on the cluster.  Every
    source is checked against the model before the first output is made.
    Each output appears whole or not at all.  Returns the destinations."""
    if not isinstance(model, Model):
        model = Model.load(model)
    srcs, dsts = [os.fspath(s) for s in srcs], [os.fspath(d) for d in dsts]
    if len(srcs) != len(dsts):
        raise ValueError(f"{len(srcs)} sources but {len(dsts)} destinations")
    if len(set(map(os.path.abspath, dsts))) != len(dsts):
        raise ValueError("a destination is given more than once")
    for s in srcs:
        _check(_Shape(s), model)
    client, owned = _client(client)
    try:
        return [apply_raster(s, d, model, client=client, block=block) for s, d in zip(srcs, dsts)]
    finally:
        _close(owned)


def sample_raster(src: "os.PathLike[str] | str", sample_pixels: int = 4_000_000,
                  scale: Optional[float] = None) -> Tuple[np.ndarray, Optional[np.ndarray], Optional[float]]:
    """The decimated overview segment_raster learns on: rows 0, f, 2f, ...
    and columns 0, f, 2f, ... of the raster, f the smallest whole number that
    leaves at most sample_pixels pixels.  Returns the int32 cube, the pixels
    holding data (None when all do) and the scale of floating-point values
    (None for integer rasters): ``scale`` when given, else the power of ten
    that makes the widest band range of the sample span at least 10,000
    steps, as ``dhc segment`` chooses it for a whole image."""
    src = os.fspath(src)
    shape = _Shape(src)
    f = max(1, math.ceil(math.sqrt(shape.rows * shape.cols / max(1, int(sample_pixels)))))
    while math.ceil(shape.rows / f) * math.ceil(shape.cols / f) > sample_pixels and f < max(shape.rows, shape.cols):
        f += 1
    values, ok, floats = _read(src, (0, 0, shape.rows, shape.cols), None, f)
    if not ok.any():
        raise ValueError(f"the sample of raster {src!r} holds only nodata pixels")
    if any(floats) and scale is None:
        widest = max(float(np.ptp(values[i][ok])) or abs(float(values[i][ok][0]))
                     for i, fl in enumerate(floats) if fl)
        scale = 1.0
        if widest > 0:
            scale = 10.0 ** max(0, math.ceil(math.log10(10000.0 / widest)))
            while widest * scale < 10000.0:
                scale *= 10.0
    cube = _integers(values, ok, floats, scale, f"raster {src!r}")
    return cube, (None if ok.all() else ok.astype(np.uint8)), (scale if any(floats) else None)


def _learn(src: str, sample_pixels: int, settings: Settings) -> str:
    """Runs on a worker: the model learnt on the raster's sample."""
    cube, valid, scale = sample_raster(src, sample_pixels)
    result = segment(cube, mask=valid, settings=settings, threads=1)
    if result.model is None:
        raise ValueError("these settings cut the map into pieces (fragmentation or splitwise_disconnect): "
                         "such a run has no model")
    if scale is None:
        return result.model.to_json()
    import json
    doc = json.loads(result.model.to_json())
    doc["values"]["floatBands"] = True
    doc["values"]["scale"] = scale
    return Model.from_json(json.dumps(doc)).to_json()


def segment_raster(src: "os.PathLike[str] | str", dst: "os.PathLike[str] | str", client: Any = None,
                   settings: Optional[Settings] = None, sample_pixels: int = 4_000_000,
                   block: int = 2048) -> Model:
    """Segments a raster of any size: learns a model on its decimated
    overview (:func:`sample_raster`: at most sample_pixels pixels, the same
    sample every time), on one worker, then labels the whole raster with it
    block by block (:func:`apply_raster`) into the GeoTIFF dst.  Returns the
    model, to label other rasters with the same classes."""
    if settings is None:
        settings = Settings()
    elif not isinstance(settings, Settings):
        raise TypeError(f"settings must be a dhc.Settings, not {type(settings).__name__}")
    settings.check()
    if isinstance(sample_pixels, bool) or not isinstance(sample_pixels, int) or sample_pixels < 1:
        raise ValueError(f"sample_pixels must be a positive whole number, not {sample_pixels!r}")
    src = os.fspath(src)
    _Shape(src)
    client, owned = _client(client)
    try:
        text = client.submit(_learn, src, sample_pixels, settings, pure=False, retries=_RETRIES).result()
        model = Model.from_json(text)
        apply_raster(src, dst, model, client=client, block=block)
        return model
    finally:
        _close(owned)
