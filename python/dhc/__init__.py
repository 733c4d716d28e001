"""dhc: hierarchical segmentation of multispectral raster images.

    >>> import numpy as np, dhc
    >>> result = dhc.segment(image)                  # image: (bands, rows, cols) integers
    >>> result.labels                                # int32 (rows, cols), 0 outside the region
    >>> s = dhc.Settings(max_number_of_classes=4)    # defaults: examples/default.ini
    >>> result = dhc.segment(image, mask=valid, settings=s, progress=print)

The package is a thin layer over the same calls as the command-line tool
``dhc segment`` and the MATLAB/Octave module: the same inputs give the same
label maps.  Bad input raises TypeError or ValueError with a one-line message,
a fatal condition of the segmenter raises :class:`dhc.Error`; the interpreter
always survives and the next call runs normally.
"""

from __future__ import annotations

import json
import numbers
import os
import tempfile
import time
from typing import Any, Callable, Dict, List, Optional, Sequence, Tuple

import numpy as np

from . import _dhc

__all__ = ["segment", "Settings", "Result", "Region", "Error"]
__version__ = "0.1.0"

Error = _dhc.Error

# attribute, section, ini key, kind, default (examples/default.ini).  Kinds:
# "flag" (0 or 1), "int", "float", "ints" (a list of integers).
_SETTINGS: Tuple[Tuple[str, str, str, str, Any], ...] = (
    ("supervised_mode", "SEGM_MAIN_CONFIGURATION", "SupervisedMode", "flag", False),
    ("split_gain_threshold", "UNSUPERVISED_MODE_CONF", "SplitGainThreshold", "float", 0.2),
    ("max_number_of_classes", "UNSUPERVISED_MODE_CONF", "MaxNumberOfClasses", "int", 8),
    ("min_region_area", "UNSUPERVISED_MODE_CONF", "MinRegionArea", "float", 64.0),
    ("variable_multiplicity", "UNSUPERVISED_MODE_CONF", "VariableMultiplicity", "flag", False),
    ("balanced_tree", "UNSUPERVISED_MODE_CONF", "BalancedTree", "flag", False),
    ("grow_depth", "UNSUPERVISED_MODE_CONF", "GrowDepth", "int", 0),
    ("blind", "UNSUPERVISED_MODE_CONF", "Blind", "flag", False),
    ("metric", "UNSUPERVISED_MODE_CONF", "Metric", "int", 0),
    ("distortion_threshold", "UNSUPERVISED_MODE_CONF", "DistortionThreshold", "float", 0.0),
    ("blind_split_depth_max", "UNSUPERVISED_MODE_CONF", "BlindSplitDepthMax", "float", 0.0),
    ("blind_split_area_min", "UNSUPERVISED_MODE_CONF", "BlindSplitAreaMin", "float", 0.0),
    ("blind_split_mse_min", "UNSUPERVISED_MODE_CONF", "BlindSplitMSEMin", "float", 0.0),
    ("double_split", "UNSUPERVISED_MODE_CONF", "DoubleSplit", "flag", False),
    ("splitwise_disconnect", "UNSUPERVISED_MODE_CONF", "SplitwiseDisconnect", "flag", False),
    ("fragmentation", "UNSUPERVISED_MODE_CONF", "Fragmentation", "flag", False),
    ("number_of_classes", "SUPERVISED_MODE_CONF", "NumberOfClasses", "int", 0),
    ("structure_levels", "SUPERVISED_MODE_CONF", "StructureLevels", "ints", ()),
    ("structure_paths", "SUPERVISED_MODE_CONF", "StructurePaths", "ints", ()),
    ("multiplicity", "POTTS_MODEL", "Multiplicity", "int", 2),
    ("beta_min", "POTTS_MODEL", "BetaMin", "float", 0.0),
    ("beta_max", "POTTS_MODEL", "BetaMax", "float", 1.5),
    ("adaptive", "POTTS_MODEL", "Adaptive", "flag", False),
    ("beta_bound", "POTTS_MODEL", "BetaBound", "float", 0.0),
    ("range_bandwidth", "POTTS_MODEL", "RangeBandwidth", "float", 0.0),
    ("spatial_bandwidth", "POTTS_MODEL", "SpatialBandwidth", "float", 0.0),
    ("auto_adjust_knn", "MEANSHIFT", "AutoAdjustKNN", "int", 0),
    ("tolerance", "MEANSHIFT", "Tolerance", "float", 0.05),
    ("skip_last", "MEANSHIFT", "SkipLast", "float", 0.1),
    ("kernel_type", "MEANSHIFT", "KernelType", "int", 0),
)
_SECTIONS = ("SEGM_MAIN_CONFIGURATION", "UNSUPERVISED_MODE_CONF", "SUPERVISED_MODE_CONF", "POTTS_MODEL", "MEANSHIFT")


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

    ``Settings()`` equals ``examples/default.ini`` (unsupervised, gain-driven
    splitting into two children at a time).  Keyword arguments set attributes:
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

    __slots__ = (
        "label", "depth", "path", "children", "offspring", "split", "is_terminal", "beta", "edges",
        "texture_based", "sg_basic", "sg_tex", "sg_spec", "area", "child_areas",
        "total_likelihood_energy", "bands", "mean", "covariance",
    )

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
    - cut(k) / cut(classes=n): the label map after k splits, or with n classes
      (``dhc segment --cut``); levels(): every cut, (splits + 1, rows, cols)
      (``dhc segment --levels``)
    - to_html(): the run as one self-contained HTML page (``dhc segment
      --html``); in Jupyter a result shows as that page

    classes, split_order, offspring, regions and tree are None when the run
    has no tree to report (``fragmentation`` or, unsupervised,
    ``splitwise_disconnect``), as the MATLAB module then gives one output only;
    cut and levels then raise ValueError.
    """

    __slots__ = ("labels", "fragments", "classes", "split_order", "offspring", "regions", "tree", "_hierarchy",
                 "_image", "_timings")

    def __init__(self, labels: np.ndarray, fragments: Optional[np.ndarray], classes: Optional[np.ndarray],
                 split_order: Optional[np.ndarray], offspring: Optional[np.ndarray],
                 regions: Optional[List[Region]], tree: Optional[dict] = None, hierarchy: Any = None,
                 image: Optional[np.ndarray] = None, timings: Sequence[Tuple[str, float]] = ()) -> None:
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
            target = os.fspath(path)
            fd, temporary = tempfile.mkstemp(prefix=os.path.basename(target) + ".", suffix=".tmp",
                                             dir=os.path.dirname(os.path.abspath(target)))
            try:
                with os.fdopen(fd, "w", encoding="utf-8") as f:
                    f.write(page)
                os.replace(temporary, target)
            except BaseException:
                if os.path.exists(temporary):
                    os.unlink(temporary)
                raise
        return page

    def _repr_html_(self) -> Optional[str]:
        if self._hierarchy is None or self._image is None:
            return None
        # In a frame of its own, so that the page's script and style stay out of the notebook's.
        page = self.to_html().replace("&", "&amp;").replace('"', "&quot;")
        return f'<iframe srcdoc="{page}" style="width: 100%; height: 900px; border: 0"></iframe>'

    def __repr__(self) -> str:
        rows, cols = self.labels.shape
        n = None if self.classes is None else len(self.classes)
        classes = "no tree" if n is None else f"{n} class" if n == 1 else f"{n} classes"
        return f"dhc.Result({rows} x {cols}, {classes})"


def _image(image: Any) -> np.ndarray:
    a = _integers(image, "image")
    if a.ndim == 2:
        a = a[np.newaxis]
    elif a.ndim != 3:
        raise ValueError(f"image must be (bands, rows, cols) or (rows, cols), not of shape {a.shape}")
    if 0 in a.shape:
        raise ValueError(f"image is empty (shape {a.shape})")
    return _int32(a, "image")


def _plane(value: Any, name: str, rows: int, cols: int) -> Optional[np.ndarray]:
    if value is None:
        return None
    a = _integers(value, name)
    if a.shape != (rows, cols):
        raise ValueError(f"{name} has shape {a.shape} but the image is {rows} x {cols}")
    return _int32(a, name)


def _integers(value: Any, name: str) -> np.ndarray:
    a = np.asarray(value)
    if name == "image" and a.dtype.kind in "fc":
        raise TypeError(
            f"image has dtype {a.dtype}; dhc segments integer values: scale them to integers first, "
            f"e.g. np.round(image * 1000).astype(np.int32)")
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


def segment(image: Any, mask: Any = None, init: Any = None, gt: Any = None, settings: Optional[Settings] = None,
            progress: Optional[Callable[[int, int], Any]] = None, threads: int = 0) -> Result:
    """Segments a multispectral image into a hierarchy of regions.

    image     (bands, rows, cols) or (rows, cols) array of any integer dtype,
              C- or Fortran-ordered (int32 with contiguous rows is used
              without a copy).  Floats are refused: scale them to integers.
    mask      optional (rows, cols) integer or bool array: the region of
              interest is the set of pixels whose mask value is 1.
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

    Returns a dhc.Result.  The same inputs give the same labels as
    ``dhc segment`` and the MATLAB/Octave module.  The GIL is released during
    the run; runs of several threads are carried out one after the other.

    Raises TypeError (a float or non-numeric array, settings that are not a
    dhc.Settings, a progress that is not callable), ValueError (wrong rank,
    empty image, maps of another size, values outside int32, a bad setting,
    supervised mode without gt, an empty region of interest, a ground truth
    with another number of classes than number_of_classes) and dhc.Error (a
    fatal condition of the segmenter, with .status).
    """
    if settings is None:
        settings = Settings()
    elif not isinstance(settings, Settings):
        raise TypeError(f"settings must be a dhc.Settings, not {type(settings).__name__}")
    if progress is not None and not callable(progress):
        raise TypeError(f"progress must be callable, not {type(progress).__name__}")
    if isinstance(threads, bool) or not isinstance(threads, numbers.Integral):
        raise TypeError(f"threads must be an integer, not {type(threads).__name__}")
    cube = _image(image)
    _bands, rows, cols = cube.shape
    maps = [_plane(m, name, rows, cols) for m, name in ((mask, "mask"), (init, "init"), (gt, "gt"))]
    started = time.perf_counter()
    out = _dhc.segment(cube, *maps, settings._entries(), progress, float(max(min(int(threads), 2**53), -(2**53))))
    timings = [("segmentation", time.perf_counter() - started)]
    regions = None if out["regions"] is None else [Region(**r) for r in out["regions"]]
    tree = None if out["tree"] is None else json.loads(out["tree"])
    return Result(out["labels"], out["fragments"], out["classes"], out["split_order"], out["offspring"], regions,
                  tree, out["hierarchy"], cube, timings)
