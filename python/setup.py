"""Builds the extension module dhc._dhc with the project's own CMake build, so
that pip installs exactly what `make test` tests.

- A configured build tree of the project made for this interpreter is reused
  (DHC_BUILD_DIR, else ../build when installing from the source tree, as with
  pip install ./python), building only what the module needs there; otherwise
  a tree of its own is configured without tests, benchmarks or the tool, and
  only the module's targets are built.
- The sdist (setup.py sdist) carries the C++ project under cpp/, so that it
  builds anywhere CMake, a C++17 compiler and the libraries (GDAL, libpng,
  nlohmann-json, pybind11) are installed, without network access:
  pip install --no-build-isolation dhc-VERSION.tar.gz
"""

import glob
import os
import shutil
import subprocess
import sys
import sysconfig
from pathlib import Path

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext
from setuptools.command.sdist import sdist

HERE = Path(__file__).resolve().parent

# What the sdist carries of the project (paths relative to its root): enough
# to configure it without tests, benchmarks or the tool and build the module.
PROJECT_FILES = ("CMakeLists.txt", "LICENSE", "src/**/*", "packaging/*", "matlab/*.m", "python/CMakeLists.txt",
                 "python/exports.map", "python/src/*.cpp", "python/dhc/*.py", "python/dhc/*.pyi",
                 "python/dhc/py.typed")


def project_dir():
    """The C++ project: cpp/ in an sdist, else the directory above."""
    for candidate in (HERE / "cpp", HERE.parent):
        if (candidate / "CMakeLists.txt").is_file() and (candidate / "src" / "driver").is_dir():
            return candidate
    raise RuntimeError(f"dhc: the C++ project is neither in {HERE / 'cpp'} nor in {HERE.parent}")


def cache_value(cache, key):
    prefix = key + ":"
    for line in cache.read_text(errors="replace").splitlines():
        if line.startswith(prefix):
            return line.split("=", 1)[1]
    return None


def reusable_build(project):
    """A configured build tree of this project, for this interpreter, with the
    Python package on; None when there is none."""
    named = os.environ.get("DHC_BUILD_DIR")
    tree = Path(named) if named else project / "build"
    cache = tree / "CMakeCache.txt"
    if not cache.is_file():
        if named:
            raise RuntimeError(f"dhc: DHC_BUILD_DIR={named} is not a configured CMake build tree")
        return None
    home = cache_value(cache, "CMAKE_HOME_DIRECTORY")
    python = cache_value(cache, "Python3_EXECUTABLE")
    reasons = []
    # A tree named by DHC_BUILD_DIR is taken for this project's (an unpacked
    # sdist builds the same sources); ../build must build this very tree.
    if not named and (home is None or Path(home).resolve() != project.resolve()):
        reasons.append(f"it builds {home}, not {project}")
    if python is None or os.path.realpath(python) != os.path.realpath(sys.executable):
        reasons.append(f"it is configured for {python}, not {sys.executable}")
    if cache_value(cache, "DHC_PYTHON") not in ("ON", "TRUE", "1"):
        reasons.append("its DHC_PYTHON is off")
    if reasons:
        if named:
            raise RuntimeError(f"dhc: cannot use DHC_BUILD_DIR={named}: " + "; ".join(reasons))
        print(f"dhc: not reusing {tree}: " + "; ".join(reasons), file=sys.stderr)
        return None
    return tree


class CMakeExtension(Extension):
    def __init__(self, name):
        super().__init__(name, sources=[])


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        project = project_dir()
        tree = reusable_build(project)
        if tree is None:
            tree = Path(self.build_temp).resolve() / "cmake"
            tree.mkdir(parents=True, exist_ok=True)
            subprocess.run(["cmake", "-S", str(project), "-B", str(tree), "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
                            f"-DPython3_EXECUTABLE={sys.executable}", "-DDHC_PYTHON=ON", "-DDHC_BUILD_TESTS=OFF",
                            "-DDHC_BUILD_BENCH=OFF", "-DDHC_BUILD_TOOLS=OFF"], check=True)
        else:
            print(f"dhc: building the module in the existing build tree {tree}", file=sys.stderr)
        jobs = os.environ.get("CMAKE_BUILD_PARALLEL_LEVEL", str(os.cpu_count() or 1))
        subprocess.run(["cmake", "--build", str(tree), "--target", "dhc_python", "-j", jobs], check=True)
        built = tree / "python" / "dhc" / ("_dhc" + sysconfig.get_config_var("EXT_SUFFIX"))
        if not built.is_file():
            raise RuntimeError(f"dhc: the build made no {built}")
        target = Path(self.get_ext_fullpath(ext.name))
        target.parent.mkdir(parents=True, exist_ok=True)
        self.copy_file(str(built), str(target))


class SdistWithProject(sdist):
    """An sdist that also holds the C++ project under cpp/."""

    def make_release_tree(self, base_dir, files):
        super().make_release_tree(base_dir, files)
        project = project_dir()
        for pattern in PROJECT_FILES:
            for name in sorted(glob.glob(str(project / pattern), recursive=True)):
                source = Path(name)
                if not source.is_file() or "__pycache__" in source.parts:
                    continue
                target = Path(base_dir) / "cpp" / source.relative_to(project)
                target.parent.mkdir(parents=True, exist_ok=True)
                shutil.copy2(source, target)


setup(ext_modules=[CMakeExtension("dhc._dhc")], cmdclass={"build_ext": CMakeBuild, "sdist": SdistWithProject})
