"""Builds the extension module dhc._dhc with the project's own CMake build
(the directory above this one), so that pip installs exactly what `make test`
tests.  Offline: pip install --no-build-isolation ./python"""

import os
import subprocess
import sys
from pathlib import Path

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

HERE = Path(__file__).resolve().parent
PROJECT = HERE.parent


class CMakeExtension(Extension):
    def __init__(self, name):
        super().__init__(name, sources=[])


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        if not (PROJECT / "CMakeLists.txt").is_file():
            raise RuntimeError(f"dhc: the CMake project is expected in {PROJECT} (build from the source tree)")
        build = Path(self.build_temp).resolve() / "cmake"
        build.mkdir(parents=True, exist_ok=True)
        subprocess.run(["cmake", "-S", str(PROJECT), "-B", str(build), "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
                        f"-DPython3_EXECUTABLE={sys.executable}", "-DDHC_PYTHON=ON", "-DDHC_BUILD_TESTS=OFF",
                        "-DDHC_BUILD_BENCH=OFF", "-DDHC_BUILD_TOOLS=OFF"], check=True)
        jobs = os.environ.get("CMAKE_BUILD_PARALLEL_LEVEL", str(os.cpu_count() or 1))
        subprocess.run(["cmake", "--build", str(build), "--target", "dhc_python", "-j", jobs], check=True)
        built = next((build / "python" / "dhc").glob("_dhc*.so"))
        target = Path(self.get_ext_fullpath(ext.name))
        target.parent.mkdir(parents=True, exist_ok=True)
        self.copy_file(str(built), str(target))


setup(ext_modules=[CMakeExtension("dhc._dhc")], cmdclass={"build_ext": CMakeBuild})
