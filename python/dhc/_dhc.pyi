# Types of the compiled half of the package; use the functions of dhc instead.
from typing import Any, Callable, Dict, List, Optional, Tuple

import numpy as np
import numpy.typing as npt

_Entry = Tuple[str, str, str, str]  # SECTION, Key, value text, origin named in messages

class Error(RuntimeError):
    status: int

# attribute, SECTION, Key, kind ("flag", "int", "float", "ints"), default text or None, meaning
settings_table: Tuple[Tuple[str, str, str, str, Optional[str], str], ...]
# attribute of dhc.Region, path in the tree JSON's region object ("splitGain.TFR") or None
region_fields: Tuple[Tuple[str, Optional[str]], ...]

def segment(
    image: npt.NDArray[np.int32],
    mask: Optional[npt.NDArray[np.int32]],
    init: Optional[npt.NDArray[np.int32]],
    gt: Optional[npt.NDArray[np.int32]],
    entries: List[_Entry],
    progress: Optional[Callable[[int, int], Any]],
    threads: float,
) -> Dict[str, Any]: ...
class _Hierarchy:
    def splits(self) -> int: ...
    def leaves_after(self, k: int) -> int: ...
    def splits_for_leaves(self, leaves: int) -> int: ...
    def cut(self, k: int) -> npt.NDArray[np.int32]: ...
    def levels(self) -> npt.NDArray[np.int32]: ...

def html_report(hierarchy: _Hierarchy, image: npt.NDArray[np.int32], rgb: List[int], title: str, settings: str,
                timings: List[Tuple[str, float]], pixel_area: float, stopping_reason: str, version: str) -> str: ...
def check_settings(entries: List[_Entry]) -> None: ...
def read_ini(path: str) -> Dict[str, Any]: ...
def _fatal(status: int, message: str = ...) -> None: ...
def scale_image(
    values: npt.NDArray[np.float64], valid: npt.NDArray[np.uint8], scale: Optional[float]
) -> Tuple[npt.NDArray[np.int32], float]: ...
def mask_without_nodata(
    mask: Optional[npt.NDArray[np.int32]], init: Optional[npt.NDArray[np.int32]], valid: npt.NDArray[np.uint8]
) -> npt.NDArray[np.int32]: ...
def read_raster(path: str, scale: Optional[float], nodata: Optional[float]) -> Dict[str, Any]: ...
def relabel_consecutive(labels: npt.NDArray[np.int32]) -> Tuple[npt.NDArray[np.int32], List[int]]: ...
def output_driver(name: str, format: str) -> str: ...
def write_labels(
    path: str,
    target: str,
    driver: str,
    labels: npt.NDArray[np.int32],
    transform: Optional[Tuple[float, float, float, float, float, float]],
    crs: str,
    metadata: List[str],
) -> None: ...

label_radius: int
label_sweeps: int

def check_model(text: str, name: str) -> str: ...
def apply(
    image: npt.NDArray[np.int32],
    valid: Optional[npt.NDArray[np.uint8]],
    model: str,
    origin_row: int,
    origin_col: int,
    threads: float,
) -> npt.NDArray[np.int32]: ...
def label_colours(n: int) -> List[Tuple[int, int, int]]: ...
