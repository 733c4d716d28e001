"""dhc: hierarchical segmentation of multispectral raster images.

    >>> import numpy as np, dhc
    >>> result = dhc.segment(image)                  # image: (bands, rows, cols) integers
    >>> result.labels                                # int32 (rows, cols), 0 outside the region
    >>> s = dhc.Settings(max_number_of_classes=4)    # defaults: examples/default.ini
    >>> result = dhc.segment(image, mask=valid, settings=s, progress=print)
    >>> result = dhc.segment(rgb, channel_axis=-1)     # (rows, cols, bands), scikit-image layout
    >>> raster = dhc.read("scene.tif")               # through the tool's GDAL code
    >>> dhc.segment(raster, settings=s).write("labels.tif")   # georeferenced like scene.tif
    >>> result.model.save("model.json")             # what labelling new pixels needs
    >>> labels = dhc.apply(other_image, dhc.Model.load("model.json"))

The package is a thin layer over the same calls as the command-line tool
``dhc segment`` and the MATLAB/Octave module: the same inputs give the same
label maps.  Bad input raises TypeError or ValueError with a one-line message,
a fatal condition of the segmenter raises :class:`dhc.Error`; the interpreter
always survives and the next call runs normally.
"""

from __future__ import annotations

import errno
import json
import numbers
import os
import stat
import tempfile
import time
from typing import Any, Callable, Dict, List, Optional, Sequence, Tuple

import numpy as np

from . import _dhc

__all__ = ["segment", "apply", "read", "Raster", "Georeference", "Settings", "Result", "Region", "Model",
           "Error"]
__version__ = "0.1.0"

Error = _dhc.Error



def _default(kind: str, text: Optional[str]) -> Any:
    """A setting's default as its attribute holds it (None: an empty list)."""
    if text is None:
        return ()
    return bool(int(text)) if kind == "flag" else int(text) if kind == "int" else float(text)


# attribute, section, ini key, kind, default (examples/default.ini), from the
# library's settings table.  Kinds: "flag" (0 or 1), "int", "float", "ints" (a
# list of integers).
_SETTINGS: Tuple[Tuple[str, str, str, str, Any], ...] = tuple(
    (attribute, section, key, kind, _default(kind, text))
    for attribute, section, key, kind, text, _meaning in _dhc.settings_table)
_SECTIONS = tuple(dict.fromkeys(section for _a, section, *_ in _SETTINGS))


def _text(kind: str, value: Any) -> str:
    """The ini text of a value; anything unexpected is written as it prints,
    so that the configuration check names it."""
    if isinstance(value, (bool, np.bool_)):
        return "1" if value else "0"
    if kind == "ints" and isinstance(value, (list, tuple, np.ndarray)):
        return "{" + " ".join(_text("int", v) for v in value) + "}"
    if isinstance(value, (float, np.floating)):
        return repr(float(value))
    return str(value)


def _same(kind: str, a: Any, b: Any) -> bool:
    """Whether two values of a setting are the same number (8 and 8.0 are)."""
    try:
        if kind == "ints":
            return len(a) == len(b) and all(int(x) == int(y) for x, y in zip(a, b))
        return float(a) == float(b)
    except (TypeError, ValueError):
        return _text(kind, a) == _text(kind, b)


class Settings:
    """Settings of one run: the ini keys of ``dhc segment --config``, as attributes.

    ``Settings()`` equals ``examples/default.ini`` (unsupervised splitting
    into two children at a time while a split's ICL is positive, then the
    joint refinement of the final map).  Keyword arguments set attributes:
    ``Settings(max_number_of_classes=4, min_region_area=16)``.  Values are
    checked when the settings are used (``dhc.segment``, ``to_ini``,
    ``check``) with the tool's checks and messages; a bad value raises
    ValueError naming the attribute, e.g. ``settings.beta_min: BetaMin must
    not exceed BetaMax (1.5)``.  Unknown attribute names raise AttributeError.

    Attribute (ini key; MATLAB settings object property):

    - supervised_mode (SupervisedMode; supervisedMode): split along the class
      structure, seeded by ``gt``
    - split_gain_threshold (SplitGainThreshold; unsupSet.classicSet.splitGainThreshold)
    - max_number_of_classes (MaxNumberOfClasses; unsupSet.classicSet.maxNumberOfClasses)
    - min_region_area (MinRegionArea; unsupSet.classicSet.minSplitArea)
    - variable_multiplicity (VariableMultiplicity; unsupSet.variableMultiplicity)
    - balanced_tree, grow_depth (BalancedTree, GrowDepth; unsupSet.*)
    - blind, metric, distortion_threshold (Blind, Metric, DistortionThreshold;
      unsupSet.blind, unsupSet.blindSet.metric / distorsionThreshold)
    - blind_split_depth_max, blind_split_area_min, blind_split_mse_min
      (BlindSplitDepthMax, BlindSplitAreaMin, BlindSplitMSEMin; unsupSet.blindSet.depth / area / MSE)
    - double_split, splitwise_disconnect (DoubleSplit, SplitwiseDisconnect; unsupSet.*)
    - fragmentation (Fragmentation; fragmentation): also return fragments
    - number_of_classes, structure_levels, structure_paths (NumberOfClasses,
      StructureLevels, StructurePaths; supSet.*): the supervised class structure
    - multiplicity (Multiplicity; unsupSet.multiplicity): children per split
    - beta_min, beta_max, adaptive, beta_bound, range_bandwidth,
      spatial_bandwidth (POTTS_MODEL keys; engineSet.*)
    - auto_adjust_knn, tolerance, skip_last, kernel_type (MEANSHIFT keys;
      engineSet.autoAdjustkNN, tolerance, skipLast, kernelType)
    - stop_criterion (StopCriterion; unsupSet.classicSet.stopCriterion): 0 =
      split gain against split_gain_threshold, 1 = ICL, 2 = BIC
    - final_refinement (FinalRefinement; unsupSet.finalRefinement): rounds of
      the joint refinement of the final map (EM, then Potts ICM); 0 = none
    """

    __slots__ = tuple(a for a, *_ in _SETTINGS)

    def __init__(self, **values: Any) -> None:
        for attribute, _section, _key, _kind, default in _SETTINGS:
            setattr(self, attribute, list(default) if isinstance(default, tuple) else default)
        for name, value in values.items():
            if name not in self.__slots__:
                raise AttributeError(f"dhc.Settings has no setting {name!r}")
            setattr(self, name, value)

    @classmethod
    def from_ini(cls, path: "os.PathLike[str] | str") -> "Settings":
        """Reads an ini file as ``dhc segment --config`` does; a key the file
        lacks reads as 0, as in the tool.  Raises OSError when the file cannot
        be read and ValueError (``file:line: ...``) for a bad value."""
        values = _dhc.read_ini(os.fspath(path))
        settings = cls()
        for attribute, section, key, kind, _default in _SETTINGS:
            value = values.get(f"{section}.{key}")
            if value is None:
                value = [] if kind == "ints" else False if kind == "flag" else 0.0 if kind == "float" else 0
            setattr(settings, attribute, value)
        return settings

    def to_ini(self, path: "os.PathLike[str] | str") -> None:
        """Writes the settings as an ini file ``dhc segment --config`` reads.
        The settings are checked first; the file is written completely under a
        temporary name and then renamed, or not at all."""
        self.check()
        path = os.fspath(path)
        lines = ["; dhc configuration written by dhc.Settings.to_ini"]
        for section in _SECTIONS:
            lines += ["", f"[{section}]"]
            for attribute, sec, key, kind, _default in _SETTINGS:
                value = getattr(self, attribute)
                if sec == section and not (kind == "ints" and len(value) == 0):
                    lines.append(f"{key}={_text(kind, value)}")
        directory = os.path.dirname(os.path.abspath(path))
        fd, tmp = tempfile.mkstemp(prefix=".dhc-ini-", dir=directory)
        try:
            with os.fdopen(fd, "w", encoding="ascii", newline="\n") as f:
                f.write("\n".join(lines) + "\n")
            os.replace(tmp, path)
        except BaseException:
            os.unlink(tmp)
            raise

    def check(self) -> None:
        """Checks the settings as the tool checks its configuration; raises
        ValueError with the tool's message, naming the attribute."""
        _dhc.check_settings(self._entries())

    def _entries(self) -> List[Tuple[str, str, str, str]]:
        out = []
        for attribute, section, key, kind, _default in _SETTINGS:
            value = getattr(self, attribute)
            if kind == "ints" and isinstance(value, (list, tuple, np.ndarray)) and len(value) == 0:
                continue  # absent, as in examples/default.ini
            out.append((section, key, _text(kind, value), f"settings.{attribute}"))
        return out

    def _values(self) -> Dict[str, Any]:
        return {a: getattr(self, a) for a in self.__slots__}

    def __getstate__(self) -> Dict[str, Any]:
        return self._values()

    def __setstate__(self, state: Dict[str, Any]) -> None:
        self.__init__(**state)

    def __eq__(self, other: object) -> bool:
        if not isinstance(other, Settings):
            return NotImplemented
        return all(_same(k, getattr(self, a), getattr(other, a)) for a, _s, _k, k, _d in _SETTINGS)

    def __repr__(self) -> str:
        changed = [
            f"{a}={getattr(self, a)!r}"
            for a, _s, _k, kind, d in _SETTINGS
            if not _same(kind, getattr(self, a), d)
        ]
        return "dhc.Settings(" + ", ".join(changed) + ")"


class Region:
    """The report of one region (a node of the tree), the fields of the MATLAB
    report (in brackets where the name differs):

    label, depth (depth), path (int32, the node's path from the root),
    children (int32 labels; ``len`` = nChildren), offspring (int32 labels of
    the leaves below; ``len`` = offspCard), split (the region was split),
    is_terminal (isTerminal, a leaf), beta, edges, texture_based
    (textureBased), sg_basic, sg_tex, sg_spec (split gains), area (pixels),
    child_areas (area_k), total_likelihood_energy (TlkE), bands, mean (mi,
    float64 of length bands, or None), covariance (sigma, bands x bands, or
    None).
    """

    __slots__ = tuple(name for name, _json in _dhc.region_fields)

    def __init__(self, **fields: Any) -> None:
        for name in self.__slots__:
            setattr(self, name, fields[name])

    def __repr__(self) -> str:
        return (f"dhc.Region(label={self.label}, depth={self.depth}, area={self.area}, "
                f"children={self.children.tolist()}, is_terminal={self.is_terminal})")


class Result:
    """What :func:`dhc.segment` returns.

    - labels: int32 (rows, cols), the final class label of every pixel, 0
      outside the region of interest
    - fragments: int32 (rows, cols), the 8-connected fragments of the classes
      when ``fragmentation`` is on and ``splitwise_disconnect`` off, else None
    - classes: int32, labels of the leaves (the MATLAB summary's Classes)
    - split_order: int32, labels of the split regions in split order (SplitOrder)
    - offspring: int32 (splits, classes): row k lists the leaves below split
      k, left-aligned, zero-padded (OffspringMat)
    - regions: list of :class:`Region`, one per node of the tree
    - tree: the whole tree as a dict, the document ``dhc segment --tree``
      writes (docs/tree.schema.json)
    - model: the :class:`dhc.Model` of the run (``dhc segment --model``), to
      label other images with :func:`dhc.apply`
    - cut(k) / cut(classes=n): the label map after k splits, or with n classes
      (``dhc segment --cut``); levels(): every cut, (splits + 1, rows, cols)
      (``dhc segment --levels``)
    - to_html(): the run as one self-contained HTML page (``dhc segment
      --html``); in Jupyter a result shows as that page
    - scale: the factor floating-point image values were multiplied by before
      rounding, None for an integer image
    - georeference: the image's :class:`Georeference` when it was a
      :class:`dhc.Raster`, else None; write(path) writes a map with it

    classes, split_order, offspring, regions, tree and model are None when the run
    has no tree to report (``fragmentation`` or, unsupervised,
    ``splitwise_disconnect``), as the MATLAB module then gives one output only;
    cut and levels then raise ValueError.
    """

    __slots__ = ("labels", "fragments", "classes", "split_order", "offspring", "regions", "tree", "scale",
                 "georeference", "_hierarchy", "_source", "_image", "_timings", "model")

    def __init__(self, labels: np.ndarray, fragments: Optional[np.ndarray], classes: Optional[np.ndarray],
                 split_order: Optional[np.ndarray], offspring: Optional[np.ndarray],
                 regions: Optional[List[Region]], tree: Optional[dict] = None, hierarchy: Any = None,
                 image: Optional[np.ndarray] = None, timings: Sequence[Tuple[str, float]] = (), model: Optional["Model"] = None) -> None:
        self.model = model
        self.labels = labels
        self.fragments = fragments
        self.classes = classes
        self.split_order = split_order
        self.offspring = offspring
        self.regions = regions
        self.tree = tree
        self._hierarchy = hierarchy
        self._image = image
        self._timings = list(timings)
        self.scale: Optional[float] = None
        self.georeference: Optional[Georeference] = None
        self._source: Optional[str] = None

    def _tree(self) -> Any:
        if self._hierarchy is None:
            raise ValueError("this run has no tree to cut (fragmentation or splitwise_disconnect cut its map "
                             "into pieces)")
        return self._hierarchy

    def cut(self, k: Optional[int] = None, *, classes: Optional[int] = None) -> np.ndarray:
        """The label map after the first k splits of split_order (k = 0: the
        region of interest as one class), or the cut with ``classes`` classes.
        Pixels carry the label of their region in that cut, 0 outside the
        region of interest; the same map as ``dhc segment --cut``."""
        h = self._tree()
        if (k is None) == (classes is None):
            raise TypeError("give either k (a number of splits) or classes=n")
        if classes is not None:
            k = h.splits_for_leaves(int(classes))
            if k < 0:
                counts = sorted({h.leaves_after(j) for j in range(h.splits() + 1)})
                raise ValueError(f"no cut of the tree has {classes} classes (the cuts have {counts})")
        if not 0 <= int(k) <= h.splits():
            raise ValueError(f"k must be from 0 to {h.splits()} (the number of splits), not {k}")
        return h.cut(int(k))

    def levels(self) -> np.ndarray:
        """Every cut: band k is the label map after k splits, as
        ``dhc segment --levels`` writes it."""
        return self._tree().levels()

    def to_html(self, path: "os.PathLike[str] | str | None" = None, *, rgb: Optional[Sequence[int]] = None,
                title: str = "", pixel_area: Optional[float] = None) -> str:
        """The run as one self-contained HTML page, as ``dhc segment --html``
        writes it: a false-colour picture of the image with the map of any cut
        over it, the tree beside it, the settings and the timings.  It needs
        no network and opens from a local file.

        rgb         the image's bands shown as red, green, blue, numbered from
                    1 (default (4, 3, 2) from four bands on, (3, 2, 1) with
                    three, grey below)
        title       shown at the top of the page
        pixel_area  ground area of one pixel in square metres: areas are then
                    given in hectares or km²
        path        when given, the page is also written there (completely or
                    not at all)

        Returns the page's text.  Raises ValueError for a result without a
        tree and for bands the image does not have."""
        h = self._tree()
        if self._image is None:
            raise ValueError("this result does not hold the image it was segmented from")
        bands = [] if rgb is None else [int(b) for b in rgb]
        if pixel_area is not None and not (float(pixel_area) > 0):
            raise ValueError(f"pixel_area must be a positive number of square metres, not {pixel_area}")
        # The run's stopping record belongs on the page too, once runs keep one.
        stopping_reason = ""
        page = _dhc.html_report(h, self._image, bands, str(title), json.dumps((self.tree or {}).get("settings", {})),
                                self._timings, 0.0 if pixel_area is None else float(pixel_area), stopping_reason,
                                __version__)
        if path is not None:
            _write_atomically(os.fspath(path), page)
        return page

    def _repr_html_(self) -> Optional[str]:
        if self._hierarchy is None or self._image is None:
            return None
        # In a frame of its own, so that the page's script and style stay out of the notebook's.
        page = self.to_html().replace("&", "&amp;").replace('"', "&quot;")
        return f'<iframe srcdoc="{page}" style="width: 100%; height: 900px; border: 0"></iframe>'
    def write(self, path: "os.PathLike[str] | str", labels: Any = None, *, format: Optional[str] = None,
              georeference: Optional["Georeference"] = None) -> None:
        """Writes a label map as ``dhc segment -o`` does: a GDAL raster for a
        ``.tif``/``.tiff`` name or a ``format`` (a GDAL driver name such as
        "GTiff"), else hraw.  GDAL rasters get the smallest unsigned type that
        holds the labels, nodata 0, the colour table of the tool's pictures and
        the image's georeference (``georeference`` replaces it).

        labels: None for the final map (``self.labels``), "fragments" for the
        fragment map, or any (rows, cols) integer array such as
        ``self.cut(3)``.  The file is written completely under a temporary
        name and renamed, or not at all; the image read by :func:`dhc.read`
        is never replaced.  Raises ValueError (a driver GDAL cannot write
        with, a map of another size) or OSError."""
        rows, cols = self.labels.shape
        if labels is None:
            plane = self.labels
        elif isinstance(labels, str) and labels == "fragments":
            if self.fragments is None:
                raise ValueError("this run has no fragment map (fragmentation=True and splitwise_disconnect=False "
                                 "give one)")
            plane = self.fragments
        else:
            plane = _plane(labels, "labels", rows, cols)
        geo = self.georeference if georeference is None else georeference
        if geo is not None and not isinstance(geo, Georeference):
            raise TypeError(f"georeference must be a dhc.Georeference, not {type(geo).__name__}")
        path = os.fspath(path)
        if not isinstance(path, str):
            raise TypeError("path must be a str or path-like of str")
        if format is not None and not isinstance(format, str):
            raise TypeError(f"format must be a str, not {type(format).__name__}")
        driver = _dhc.output_driver(path, format or "")
        if self._source is not None and os.path.exists(path) and os.path.samefile(path, self._source):
            raise ValueError(f"{path!r} is the image this result was segmented from: write the map elsewhere")
        directory = os.path.dirname(os.path.abspath(path))
        fd, tmp = tempfile.mkstemp(prefix=".dhc-map-", dir=directory)
        try:
            if driver:
                os.close(fd)
                fd = -1
                _dhc.write_labels(tmp, path, driver, _int32(np.asarray(plane), "labels"),
                                  None if geo is None else geo.transform, "" if geo is None else geo.crs,
                                  [] if geo is None else [f"{k}={v}" for k, v in geo.metadata.items()])
            else:
                with os.fdopen(fd, "wb") as f:
                    fd = -1
                    np.array((1, rows, cols), dtype="<i4").tofile(f)
                    np.ascontiguousarray(plane, dtype="<i4").tofile(f)
            _keep_mode(tmp, path)
            os.replace(tmp, path)
        except BaseException:
            if fd >= 0:
                os.close(fd)
            if os.path.exists(tmp):
                os.unlink(tmp)
            raise

    def __repr__(self) -> str:
        rows, cols = self.labels.shape
        n = None if self.classes is None else len(self.classes)
        classes = "no tree" if n is None else f"{n} class" if n == 1 else f"{n} classes"
        return f"dhc.Result({rows} x {cols}, {classes})"


def _keep_mode(tmp: str, path: str) -> None:
    """A replaced file keeps its mode; a new one gets the umask's."""
    try:
        mode = stat.S_IMODE(os.stat(path).st_mode)
    except FileNotFoundError:
        umask = os.umask(0)
        os.umask(umask)
        mode = 0o666 & ~umask
    os.chmod(tmp, mode)


def _bands_first(a: np.ndarray, channel_axis: Optional[int], name: str = "image") -> np.ndarray:
    """A 2-D or 3-D array as (bands, rows, cols), by channel_axis (None: 0,
    refusing a shape whose first axis is longer than its last)."""
    if a.ndim == 2:
        return a[np.newaxis]
    if a.ndim != 3:
        raise ValueError(f"{name} must be (bands, rows, cols), (rows, cols, bands) with channel_axis=-1, or "
                         f"(rows, cols), not of shape {a.shape}")
    if channel_axis is None:
        if a.shape[0] > a.shape[2]:
            raise ValueError(
                f"{name} of shape {a.shape} is ambiguous: taken as (bands, rows, cols) it has more bands "
                f"({a.shape[0]}) than columns ({a.shape[2]}); pass channel_axis=-1 for (rows, cols, bands) or "
                f"channel_axis=0 to take it as {a.shape[0]} bands")
        return a
    if channel_axis in (0, -3):
        return a
    if channel_axis in (2, -1):
        return np.moveaxis(a, -1, 0)
    raise ValueError(f"channel_axis must be 0 (bands first) or -1 (bands last), not {channel_axis!r}")


def _image(image: Any, channel_axis: Optional[int], scale: Optional[float]
           ) -> Tuple[np.ndarray, Optional[np.ndarray], Optional[float]]:
    """The int32 cube, the pixels that hold data in every band (None: all)
    and the scale of a float image."""
    if channel_axis is not None and (isinstance(channel_axis, bool) or not isinstance(channel_axis, numbers.Integral)):
        raise TypeError(f"channel_axis must be an integer, not {type(channel_axis).__name__}")
    masked = np.ma.getmaskarray(image) if isinstance(image, np.ma.MaskedArray) else None
    a = np.asarray(np.ma.getdata(image) if masked is not None else image)
    if a.dtype.kind not in "iubf":
        raise TypeError(f"image has dtype {a.dtype}; an integer, bool or floating-point array is expected")
    a = _bands_first(a, channel_axis)
    if 0 in a.shape:
        raise ValueError(f"image is empty (shape {a.shape})")
    valid = None
    if masked is not None:
        valid = ~_bands_first(masked, channel_axis).any(axis=0)
    if a.dtype.kind == "f":
        finite = np.isfinite(a).all(axis=0)
        valid = finite if valid is None else valid & finite
    if valid is not None and valid.all():
        valid = None
    if valid is not None and not valid.any():
        raise ValueError("image holds only nodata pixels (masked or not finite)")
    if a.dtype.kind != "f":
        if valid is not None:
            a = np.where(valid, a, 0)
        return _int32(a, "image"), valid, None
    if scale is not None:
        if isinstance(scale, bool) or not isinstance(scale, numbers.Real):
            raise TypeError(f"scale must be a number, not {type(scale).__name__}")
        if not (np.isfinite(scale) and scale > 0):
            raise ValueError(f"scale must be a positive number, not {scale!r}")
    values = np.ascontiguousarray(a, dtype=np.float64)
    ok = np.ascontiguousarray(np.ones(a.shape[1:], np.uint8) if valid is None else valid, dtype=np.uint8)
    cube, used = _dhc.scale_image(values, ok, None if scale is None else float(scale))
    return cube, valid, used


def _plane(value: Any, name: str, rows: int, cols: int) -> Optional[np.ndarray]:
    if value is None:
        return None
    a = _integers(value, name)
    if a.shape != (rows, cols):
        raise ValueError(f"{name} has shape {a.shape} but the image is {rows} x {cols}")
    return _int32(a, name)


def _integers(value: Any, name: str) -> np.ndarray:
    if isinstance(value, np.ma.MaskedArray):
        value = np.ma.filled(value, 0)  # a masked pixel is outside
    a = np.asarray(value)
    if a.dtype.kind not in "iub":
        raise TypeError(f"{name} has dtype {a.dtype}; an integer or bool array is expected")
    return a


def _int32(a: np.ndarray, name: str) -> np.ndarray:
    """a as int32 whose last axis is contiguous: no copy when it already is."""
    if a.dtype != np.int32 and a.dtype.kind != "b" and a.size > 0:
        low, high = int(a.min()), int(a.max())
        if low < -(2**31) or high >= 2**31:
            raise ValueError(f"{name} holds values outside the int32 range ({low} to {high})")
    if a.dtype == np.int32 and a.dtype.isnative and a.flags.aligned and (a.shape[-1] <= 1 or a.strides[-1] == 4):
        return a
    return np.ascontiguousarray(a, dtype=np.int32)


class Georeference:
    """Where a raster lies on the ground, carried from :func:`dhc.read` to
    :meth:`Result.write`: transform (GDAL's six-number affine geotransform,
    or None), crs (WKT, "" when unknown) and metadata (the raster's default
    metadata domain, a dict of str)."""

    __slots__ = ("transform", "crs", "metadata")

    def __init__(self, transform: Optional[Sequence[float]] = None, crs: str = "",
                 metadata: Optional[Dict[str, str]] = None) -> None:
        if transform is not None:
            transform = tuple(float(v) for v in transform)
            if len(transform) != 6:
                raise ValueError(f"transform must hold 6 numbers (GDAL's geotransform), not {len(transform)}")
        self.transform = transform
        self.crs = str(crs)
        self.metadata = dict(metadata or {})

    def __repr__(self) -> str:
        return f"dhc.Georeference(transform={self.transform!r}, crs={self.crs[:40]!r}...)"


class Raster:
    """An image read by :func:`dhc.read`, as ``dhc segment`` reads it:

    - values: int32 (bands, rows, cols); floating-point bands already
      multiplied by ``scale`` and rounded
    - valid: bool (rows, cols), the pixels that hold data in every band
      (not nodata, not masked, finite), or None when every pixel does
    - scale: the factor of the floating-point bands, None without them
    - georeference: a :class:`Georeference`
    - driver: GDAL's short name of the file's format; path: the file

    ``dhc.segment(raster)`` segments it (nodata pixels outside the region of
    interest) and the result's ``write`` keeps its georeference.
    ``masked()`` gives the values as a ``numpy.ma`` array."""

    __slots__ = ("values", "valid", "scale", "georeference", "driver", "path")

    def __init__(self, values: np.ndarray, valid: Optional[np.ndarray], scale: Optional[float],
                 georeference: Georeference, driver: str, path: str) -> None:
        self.values = values
        self.valid = valid
        self.scale = scale
        self.georeference = georeference
        self.driver = driver
        self.path = path

    def masked(self) -> np.ma.MaskedArray:
        if self.valid is None:
            return np.ma.MaskedArray(self.values)
        return np.ma.MaskedArray(self.values, mask=np.broadcast_to(~self.valid, self.values.shape))

    def __repr__(self) -> str:
        bands, rows, cols = self.values.shape
        return f"dhc.Raster({self.path!r}: {bands} bands, {rows} x {cols}, {self.driver})"


def read(path: "os.PathLike[str] | str", *, scale: Optional[float] = None,
         nodata: Optional[float] = None) -> Raster:
    """Reads an image with the tool's own GDAL code, exactly as ``dhc segment
    IMAGE`` reads it: any raster GDAL opens, integer bands unchanged,
    floating-point bands multiplied by ``scale`` (default: the automatic
    power of ten of ``dhc segment``, see ``dhc info``) and rounded, nodata
    values, alpha bands, masks and non-finite values marking pixels without
    data.  ``nodata`` replaces every band's own nodata value (``--nodata``).

    Returns a :class:`dhc.Raster`.  Raises FileNotFoundError for a missing
    file and ValueError with the tool's message for a file GDAL cannot read
    or values that do not convert."""
    path = os.fspath(path)
    if not isinstance(path, str):
        raise TypeError("path must be a str or path-like of str")
    for value, name in ((scale, "scale"), (nodata, "nodata")):
        if value is not None and (isinstance(value, bool) or not isinstance(value, numbers.Real)):
            raise TypeError(f"{name} must be a number, not {type(value).__name__}")
    if scale is not None and not (np.isfinite(scale) and scale > 0):
        raise ValueError(f"scale must be a positive number, not {scale!r}")
    if not path.startswith("/vsi") and not os.path.exists(path):
        raise FileNotFoundError(errno.ENOENT, os.strerror(errno.ENOENT), path)
    d = _dhc.read_raster(path, None if scale is None else float(scale), None if nodata is None else float(nodata))
    metadata = dict(m.split("=", 1) if "=" in m else (m, "") for m in d["metadata"])
    return Raster(d["values"], d["valid"], d["scale"], Georeference(d["transform"], d["crs"], metadata),
                  d["driver"], path)


def segment(image: Any, mask: Any = None, init: Any = None, gt: Any = None, settings: Optional[Settings] = None,
            progress: Optional[Callable[[int, int], Any]] = None, threads: int = 0, *,
            channel_axis: Optional[int] = None, scale: Optional[float] = None, verbose: bool = False,
            relabel: bool = False) -> Result:
    """Segments a multispectral image into a hierarchy of regions.

    image     (bands, rows, cols) or (rows, cols) array of integers, bools or
              floating-point values, C- or Fortran-ordered (int32 with
              contiguous rows is used without a copy); or a dhc.Raster
              from dhc.read.  A numpy.ma masked array's masked pixels (in
              any band) are left out of the region of interest, as are
              non-finite floating-point values: the tool's nodata pixels.
    mask      optional (rows, cols) integer or bool array: the region of
              interest is the set of pixels whose mask value is 1 (masked
              entries of a numpy.ma mask, init or gt read as 0).
    init      optional (rows, cols) initial segmentation (unsupervised); without
              mask the region of interest is the set of pixels whose initial
              label is positive.  Without init every pixel starts with label 1.
    gt        (rows, cols) ground truth, required in supervised mode and only
              there: its non-zero labels are the classes, 0 is unlabelled.
    settings  dhc.Settings; default dhc.Settings() (examples/default.ini).
    progress  optional callable progress(leaves, last_label), called after
              every split that becomes permanent.  An exception it raises
              stops the run and propagates (Ctrl-C does too).
    threads   threads the run may use: 0 (the default) for one per core.
              The results are the same for every number.
    channel_axis  the axis of a 3-D image that holds the bands: 0 (rasterio
              layout, (bands, rows, cols)) or -1 (scikit-image layout,
              (rows, cols, bands)).  Not given, it is 0 and a 3-D image
              whose first axis is longer than its last (more bands than
              columns: most likely bands last) is refused as ambiguous;
              pass channel_axis explicitly to take such an image.
    scale     floating-point images: the factor their values are multiplied
              by before rounding to integers (half away from zero), as
              ``dhc segment --scale``; default the tool's automatic scale,
              the power of ten that makes the widest band range span at least
              10,000 steps.  Integer images ignore it; result.scale tells the
              factor used.
    verbose   print the segmenter's own lines (mean-shift estimates) to
              sys.stdout; off by default.
    relabel   number the classes of result.labels 1..K in ascending order of
              their region labels, as ``dhc segment --relabel``; the tree
              records the numbering (result.tree["relabel"]).

    Returns a dhc.Result.  The same inputs give the same labels as
    ``dhc segment`` and the MATLAB/Octave module.  The GIL is released during
    the run; runs of several threads are carried out one after the other.

    Raises TypeError (a non-numeric array, settings that are not a
    dhc.Settings, a progress that is not callable), ValueError (wrong rank,
    an ambiguous layout, empty image, maps of another size, values outside
    int32 (after scaling), a bad setting,
    supervised mode without gt, an empty region of interest, a ground truth
    with another number of classes than number_of_classes), RuntimeError
    (called from a progress callback of another run) and dhc.Error (a fatal
    condition of the segmenter, with .status).
    """
    if settings is None:
        settings = Settings()
    elif not isinstance(settings, Settings):
        raise TypeError(f"settings must be a dhc.Settings, not {type(settings).__name__}")
    if progress is not None and not callable(progress):
        raise TypeError(f"progress must be callable, not {type(progress).__name__}")
    if isinstance(threads, bool) or not isinstance(threads, numbers.Integral):
        raise TypeError(f"threads must be an integer, not {type(threads).__name__}")
    source = None
    if isinstance(image, Raster):
        if channel_axis not in (None, 0, -3):
            raise ValueError("a dhc.Raster is (bands, rows, cols): channel_axis must be left out")
        if scale is not None:
            raise ValueError("a dhc.Raster is already scaled: give scale to dhc.read")
        cube, valid, used, geo, source = image.values, image.valid, image.scale, image.georeference, image.path
        if not (isinstance(cube, np.ndarray) and cube.ndim == 3 and 0 not in cube.shape):
            raise ValueError("the dhc.Raster's values must be a non-empty (bands, rows, cols) array")
        cube = _int32(cube, "image")
    else:
        cube, valid, used = _image(image, channel_axis, scale)
        geo = None
    _bands, rows, cols = cube.shape
    maps = [_plane(m, name, rows, cols) for m, name in ((mask, "mask"), (init, "init"), (gt, "gt"))]
    if valid is not None:
        maps[0] = _dhc.mask_without_nodata(maps[0], maps[1], np.ascontiguousarray(valid, dtype=np.uint8))
    started = time.perf_counter()
    out = _dhc.segment(cube, *maps, settings._entries(), progress, float(max(min(int(threads), 2**53), -(2**53))),
                       bool(verbose))
    timings = [("segmentation", time.perf_counter() - started)]
    regions = None if out["regions"] is None else [Region(**r) for r in out["regions"]]
    tree = None if out["tree"] is None else json.loads(out["tree"])
    if relabel:
        out["labels"], classes = _dhc.relabel_consecutive(out["labels"])
        if tree is not None:
            tree["relabel"] = {"order": "ascending region label", "classes": list(classes)}
    result = Result(out["labels"], out["fragments"], out["classes"], out["split_order"], out["offspring"],
                    regions, tree, out["hierarchy"], cube, timings, _run_model(out["model"], used))
    result.scale = used
    result.georeference = geo
    result._source = source
    return result


def _run_model(text: Optional[str], scale: Optional[float]) -> Optional["Model"]:
    """The run's model; floating-point values scaled by `scale` are recorded
    in it, as `dhc segment --model` records them."""
    if text is None:
        return None
    if scale is None:
        return Model._checked(text)
    doc = json.loads(text)
    doc["values"]["floatBands"] = True
    doc["values"]["scale"] = float(scale)
    return Model._checked(json.dumps(doc))


def _write_atomically(path: str, text: str) -> None:
    """Writes text to path under a temporary name in the same directory, then
    renames it: the file appears whole or not at all."""
    directory = os.path.dirname(os.path.abspath(path))
    fd, tmp = tempfile.mkstemp(prefix=".dhc-", suffix=".tmp", dir=directory)
    try:
        with os.fdopen(fd, "w", encoding="utf-8", newline="\n") as f:
            f.write(text)
        _keep_mode(tmp, path)
        os.replace(tmp, path)
    except BaseException:
        if os.path.exists(tmp):
            os.unlink(tmp)
        raise


class Model:
    """What labelling new pixels needs, learnt by one run: each final leaf's
    label, mean and covariance, the Potts beta, and the value conversion of
    the run's image; also the run's settings and tree.  The document
    ``dhc segment --model`` writes (docs/model.schema.json); every number
    survives save and load to the bit.

    ``Result.model`` gives the model of a run; ``Model.load(path)`` reads one
    (checked as the tool checks it: ValueError naming the problem),
    ``save(path)`` writes one (atomically).  Models pickle.

    - bands, beta, labels (int32, ascending), means (leaves, bands),
      covariances (leaves, bands, bands)
    - scale: the factor the run's floating-point values were multiplied by
      before rounding, None for integer values; nodata: the nodata value that
      replaced the file's, or None
    - settings (dict, by settings field), tree (dict, as ``Result.tree``)
    - radius: how far (pixels) a label can see; a block labelled with this
      margin around it gets the whole image's labels
    """

    __slots__ = ("_text", "_doc")

    def __init__(self) -> None:
        raise TypeError("make a dhc.Model with dhc.Model.load(path) or take Result.model")

    @classmethod
    def _checked(cls, text: str, name: str = "model") -> "Model":
        m = object.__new__(cls)
        m._text = _dhc.check_model(text, name)
        m._doc = json.loads(m._text)
        return m

    @classmethod
    def load(cls, path: "os.PathLike[str] | str") -> "Model":
        """Reads a model file; OSError when it cannot be read, ValueError when
        it is not a model this dhc can use (malformed, newer format, numbers
        that are not finite, a covariance that is not positive definite)."""
        path = os.fspath(path)
        with open(path, "rb") as f:
            raw = f.read()
        try:
            text = raw.decode("utf-8")
        except UnicodeDecodeError:
            raise ValueError(f"model {path!r}: not a JSON document (not UTF-8 text)") from None
        return cls._checked(text, f'model "{path}"')

    @classmethod
    def from_json(cls, text: str) -> "Model":
        """A model from its JSON text (checked as load checks a file)."""
        return cls._checked(str(text))

    def to_json(self) -> str:
        """The document, as save writes it."""
        return self._text

    def save(self, path: "os.PathLike[str] | str") -> None:
        """Writes the model under a temporary name, then renames it."""
        _write_atomically(os.fspath(path), self._text)

    @property
    def bands(self) -> int:
        return int(self._doc["bands"])

    @property
    def beta(self) -> float:
        return float(self._doc["beta"])

    @property
    def labels(self) -> np.ndarray:
        return np.array([leaf["label"] for leaf in self._doc["leaves"]], dtype=np.int32)

    @property
    def means(self) -> np.ndarray:
        return np.array([leaf["mean"] for leaf in self._doc["leaves"]], dtype=np.float64)

    @property
    def covariances(self) -> np.ndarray:
        return np.array([leaf["covariance"] for leaf in self._doc["leaves"]], dtype=np.float64)

    @property
    def scale(self) -> Optional[float]:
        v = self._doc["values"]
        return float(v["scale"]) if v["floatBands"] else None

    @property
    def nodata(self) -> Optional[float]:
        v = self._doc["values"]["nodata"]
        return None if v is None else float(v)

    @property
    def radius(self) -> int:
        return int(self._doc["labelling"]["radius"])

    @property
    def settings(self) -> dict:
        return json.loads(json.dumps(self._doc["settings"]))

    @property
    def tree(self) -> dict:
        return json.loads(json.dumps(self._doc["tree"]))

    def __getstate__(self) -> str:
        return self._text

    def __setstate__(self, text: str) -> None:
        self._text = _dhc.check_model(text, "model")
        self._doc = json.loads(self._text)

    def __reduce__(self) -> Any:
        return (Model.from_json, (self._text,))

    def __eq__(self, other: object) -> bool:
        if not isinstance(other, Model):
            return NotImplemented
        return self._text == other._text

    def __hash__(self) -> int:
        return hash(self._text)

    def __repr__(self) -> str:
        return f"dhc.Model({self.bands} bands, {len(self._doc['leaves'])} leaves, beta={self.beta:.4g})"


def _round_half_away(v: np.ndarray) -> np.ndarray:
    """Rounds half away from zero, exactly as C's round()."""
    t = np.trunc(v)
    return t + np.where(np.abs(v - t) >= 0.5, np.sign(v), 0.0)


def _model_values(image: Any, model: Model, name: str = "image") -> Tuple[np.ndarray, Optional[np.ndarray]]:
    """The integer cube and the pixels holding data, by the model's value
    conversion: integers as they are, floating-point values times the
    model's scale, rounded half away from zero; a pixel is nodata when a band
    holds the model's nodata value or, for floating point, NaN or infinity."""
    a = np.asarray(image)
    if a.ndim == 2:
        a = a[np.newaxis]
    elif a.ndim != 3:
        raise ValueError(f"{name} must be (bands, rows, cols) or (rows, cols), not of shape {a.shape}")
    if 0 in a.shape:
        raise ValueError(f"{name} is empty (shape {a.shape})")
    if a.shape[0] != model.bands:
        raise ValueError(f"the model has {model.bands} bands but {name} has {a.shape[0]}")
    scale, nodata = model.scale, model.nodata
    floating = a.dtype.kind == "f"
    if a.dtype.kind not in "iubf":
        raise TypeError(f"{name} has dtype {a.dtype}; an integer or floating-point array is expected")
    if floating and scale is None:
        raise TypeError(f"{name} has dtype {a.dtype} but the model was made from integer values")
    if not floating and scale is not None:
        raise ValueError(f"the model was made from floating-point values (scaled by {scale:g}) but {name} holds "
                         f"integers")
    invalid = np.zeros(a.shape[1:], dtype=bool)
    if floating:
        invalid |= ~np.isfinite(a).all(axis=0)
    if nodata is not None:
        if a.dtype == np.float32:
            invalid |= (a == np.float32(nodata)).any(axis=0)
        else:
            invalid |= (a == nodata).any(axis=0)
    if floating:
        with np.errstate(invalid="ignore", over="ignore"):
            v = _round_half_away(np.where(invalid, 0.0, a.astype(np.float64)) * scale)
        if v.size and (v.max() > 2**31 - 1 or v.min() < -(2**31)):
            raise ValueError(f"{name}: values scaled by {scale:g} do not fit 32-bit integers")
        cube = v.astype(np.int32)
    else:
        cube = _int32(np.where(invalid, 0, a) if invalid.any() else a, name)
    return cube, (None if not invalid.any() else (~invalid).astype(np.uint8))


def apply(image: Any, model: "Model | os.PathLike[str] | str", mask: Any = None, threads: int = 0) -> np.ndarray:
    """Labels an image with a model: each pixel's most likely leaf, then a
    fixed number of synchronous ICM sweeps with the model's beta (the
    labelling of ``dhc apply``: the same image gives the same labels).

    image   (bands, rows, cols) or (rows, cols): integers, or floating-point
            values when the model was learnt on scaled floating-point values
            (they are scaled and rounded as the model says).
    model   a dhc.Model, or the path of a model file.
    mask    optional (rows, cols): only the pixels whose mask value is 1 are
            labelled.
    threads 0 (one per core) or more; the labels are the same for every number.

    Returns int32 (rows, cols): leaf labels, 0 for nodata pixels and pixels
    outside the mask.  A label depends only on the pixels within
    ``model.radius`` rows and columns.
    """
    if not isinstance(model, Model):
        if isinstance(model, (str, os.PathLike)):
            model = Model.load(model)
        else:
            raise TypeError(f"model must be a dhc.Model or a path, not {type(model).__name__}")
    if isinstance(threads, bool) or not isinstance(threads, numbers.Integral):
        raise TypeError(f"threads must be an integer, not {type(threads).__name__}")
    cube, valid = _model_values(image, model)
    _bands, rows, cols = cube.shape
    if mask is not None:
        m = _plane(mask, "mask", rows, cols)
        inside = (m == 1).astype(np.uint8)
        valid = inside if valid is None else valid & inside
    return _dhc.apply(cube, valid, model._text, 0, 0, float(max(min(int(threads), 2**53), -(2**53))))
