"""What users install: cmake --install of the built tree (tool, man page, bash
completion, libraries with their CMake package config, the Octave toolbox,
the Python package), the sdist and the wheel, and the Debian packages' contents.

CTest sets DHC_BUILD_DIR (the configured, built tree), DHC_SOURCE_DIR,
DHC_PYTHON_DIR (the install directory of the Python package, relative to the
prefix) and DHC_TEST_TMP.  DHC_DEB_DIR names a directory holding the .deb
files of `make deb` (the test of their contents is skipped without it);
DHC_SLOW_TESTS=1 adds the sdist's own build, offline, in a clean venv.
"""

import os
import re
import shutil
import subprocess
import sys
import tarfile
import zipfile
from pathlib import Path

import numpy as np
import pytest

BUILD = Path(os.environ.get("DHC_BUILD_DIR", "build")).resolve()
SOURCE = Path(os.environ.get("DHC_SOURCE_DIR", Path(__file__).resolve().parents[2]))
PYTHON_DIR = os.environ.get("DHC_PYTHON_DIR", "")
VERSION = "0.1.0"

# The image of consumer/consumer.cpp, which segment_code makes again in Python.
ROWS, COLS = 24, 20


SETTINGS_INI = """[SEGM_MAIN_CONFIGURATION]
SupervisedMode=0
[UNSUPERVISED_MODE_CONF]
SplitGainThreshold=0.01
MaxNumberOfClasses=3
MinRegionArea=4
[POTTS_MODEL]
Multiplicity=2
BetaMax=1.5
[MEANSHIFT]
Tolerance=0.05
SkipLast=0.1
"""


def run(*args, **kwargs):
    kwargs.setdefault("capture_output", True)
    kwargs.setdefault("text", True)
    done = subprocess.run([str(a) for a in args], **kwargs)
    assert done.returncode == 0, f"{args}: {done.stderr}"
    return done


def python_with(path, code, cwd):
    """Runs code in a fresh interpreter that imports dhc from path only."""
    env = {k: v for k, v in os.environ.items() if k != "PYTHONPATH"}
    env["PYTHONPATH"] = str(path)
    return run(sys.executable, "-c", code, cwd=cwd, env=env).stdout


def segment_code(settings_ini):
    return (f"import dhc, numpy as np, sys\n"
            f"r, c = np.mgrid[:{ROWS}, :{COLS}]\n"
            f"b0 = (r > 11) * 50 + (r * {COLS} + c) % 7\n"
            f"f = {ROWS} - 1 - r\n"
            f"b1 = (f > 11) * 50 + (f * {COLS} + c) % 7\n"
            f"image = np.stack([b0, b1]).astype(np.int32)\n"
            f"s = dhc.Settings.from_ini({str(settings_ini)!r})\n"
            f"print(dhc.__file__)\n"
            f"print(' '.join(map(str, dhc.segment(image, settings=s, threads=1).labels.ravel())))\n")


def expect_the_build_trees_run(out, where, settings_ini, tmp_path):
    """out, the output of segment_code, comes from a package under where and
    holds the labels the build tree's package gives."""
    out = out.splitlines()
    assert out[0].startswith(str(where))
    assert out[1] == python_with(BUILD / "python", segment_code(settings_ini), tmp_path).splitlines()[1]


@pytest.fixture(scope="module")
def prefix(tmp_path_factory):
    root = tmp_path_factory.mktemp("prefix")
    run("cmake", "--install", BUILD, "--prefix", root)
    return root


@pytest.fixture(scope="module")
def settings_ini(tmp_path_factory):
    path = tmp_path_factory.mktemp("settings") / "settings.ini"
    path.write_text(SETTINGS_INI)
    return path


def test_install_puts_the_tool_its_man_page_and_completion_in_place(prefix):
    tool = prefix / "bin" / "dhc"
    assert run(tool, "--version").stdout.strip().endswith(VERSION)
    assert (prefix / "share" / "man" / "man1" / "dhc.1").is_file()
    assert (prefix / "share" / "bash-completion" / "completions" / "dhc").is_file()
    assert (prefix / "share" / "doc" / "dhc" / "LICENSE").read_text() == (SOURCE / "LICENSE").read_text()
    toolbox = prefix / "share" / "octave" / "site" / "m" / "dhc"
    assert (toolbox / "dhc.m").is_file() and (toolbox / "DhcSettings.m").is_file()
    if (BUILD / "mex" / "dhc.mex").is_file():
        assert (toolbox / "dhc.mex").read_bytes() == (BUILD / "mex" / "dhc.mex").read_bytes()
    # Headers keep the layout the libraries include them by; nothing MATLAB-only.
    include = prefix / "include" / "dhc"
    assert (include / "frontend" / "Segmentation.h").is_file() and (include / "io" / "Raster.h").is_file()
    assert not (include / "mex").exists() and not (include / "settings" / "dhcConfig.h").exists()


def test_the_installed_python_package_runs_outside_the_sources(prefix, settings_ini, tmp_path):
    assert PYTHON_DIR, "DHC_PYTHON_DIR is not set (run through ctest)"
    out = python_with(prefix / PYTHON_DIR, segment_code(settings_ini), tmp_path)
    assert len(np.unique(np.array(out.splitlines()[1].split(), int))) > 1
    expect_the_build_trees_run(out, prefix, settings_ini, tmp_path)


def test_a_cmake_project_finds_and_links_the_installed_libraries(prefix, settings_ini, tmp_path):
    build = tmp_path / "consumer"
    run("cmake", "-S", Path(__file__).parent / "consumer", "-B", build, f"-DCMAKE_PREFIX_PATH={prefix}",
        "-DCMAKE_BUILD_TYPE=Release")
    run("cmake", "--build", build)
    run(build / "consumer", settings_ini, tmp_path / "labels.txt")
    theirs = np.loadtxt(tmp_path / "labels.txt", dtype=int)
    ours = python_with(BUILD / "python", segment_code(settings_ini), tmp_path).splitlines()[1]
    assert theirs.shape == (ROWS, COLS) and len(np.unique(theirs)) > 1
    assert " ".join(map(str, theirs.ravel())) == ours


def help_options(*command):
    text = run(BUILD / "dhc", *command, "--help").stdout
    return set(re.findall(r"(?:^|[\s,])(--[a-z][a-z0-9-]*|-[a-zA-Z])\b", text))


def test_the_man_page_describes_every_command_and_option():
    page = (SOURCE / "packaging" / "dhc.1").read_text()
    # troff escapes each "-" of an option name.
    described = set(re.findall(r"(?:\\-){1,2}[a-zA-Z][a-z0-9\\-]*", page))
    described = {d.replace("\\-", "-") for d in described}
    commands = re.findall(r"^  ([a-z][a-z-]*) ", run(BUILD / "dhc", "--help").stdout.split("Commands:")[1]
                          .split("\n\n")[0], re.M)
    assert commands, "no commands in dhc --help"
    missing = []
    for command in commands:
        if f".BI \"{command} " not in page and f".B dhc {command}" not in page:
            missing.append(command)
        missing += sorted(o for o in help_options(command) if o not in described)
    missing += sorted(o for o in help_options() if o not in described)
    assert not missing, f"packaging/dhc.1 does not describe {missing}"
    assert f"dhc {VERSION}" in page


def complete(words, tmp_path):
    """COMPREPLY of the completion for the command line `words` (the last
    word is being completed), with the built dhc first on PATH."""
    script = (f"source {SOURCE / 'packaging' / 'dhc.bash-completion'}\n"
              f"COMP_WORDS=({' '.join(repr(w) for w in words)}); COMP_CWORD={len(words) - 1}\n"
              f"_dhc; printf '%s\\n' \"${{COMPREPLY[@]}}\"\n")
    env = dict(os.environ, PATH=f"{BUILD}:{os.environ['PATH']}")
    return run("bash", "-c", script, cwd=tmp_path, env=env).stdout.split()


def test_bash_completion_offers_commands_options_and_files(tmp_path):
    (tmp_path / "scene.tif").write_bytes(b"")
    assert complete(["dhc", ""], tmp_path) == ["segment", "apply", "info", "--help", "--version"]
    assert complete(["dhc", "segment", "--le"], tmp_path) == ["--levels="]
    assert set(complete(["dhc", "segment", "--tree"], tmp_path)) == {"--tree", "--tree-png", "--tree-svg"}
    assert set(complete(["dhc", "segment", "-"], tmp_path)) == help_options("segment")
    assert complete(["dhc", "segment", "sc"], tmp_path) == ["scene.tif"]
    assert complete(["dhc", "segment", "scene.tif", "--threads", ""], tmp_path) == []


@pytest.fixture(scope="module")
def sdist(tmp_path_factory):
    out = tmp_path_factory.mktemp("sdist")
    run(sys.executable, "setup.py", "-q", "egg_info", "--egg-base", out, "sdist", "--dist-dir", out,
        cwd=SOURCE / "python")
    return out / f"dhc-{VERSION}.tar.gz"


def test_the_sdist_holds_the_cpp_project_and_the_licence(sdist):
    with tarfile.open(sdist) as t:
        names = set(t.getnames())
        pkg_info = t.extractfile(f"dhc-{VERSION}/PKG-INFO").read().decode()
    root = f"dhc-{VERSION}/cpp/"
    for name in ("CMakeLists.txt", "LICENSE", "packaging/Install.cmake", "src/driver/DHC.cpp",
                 "src/frontend/Scaling.h", "src/io/Raster.cpp", "src/mex/sources.list", "python/CMakeLists.txt",
                 "python/exports.map", "python/src/_dhc.cpp", "python/dhc/__init__.py"):
        assert root + name in names, name
    # Every core source file is there.
    for source in (SOURCE / "src").rglob("*.cpp"):
        assert root + str(source.relative_to(SOURCE)) in names, source
    assert f"dhc-{VERSION}/LICENSE" in names and "License: Apache-2.0" in pkg_info
    assert not any("__pycache__" in n or n.endswith(".so") for n in names)


def test_a_wheel_built_from_the_sdist_installs_into_a_venv(sdist, tmp_path, settings_ini):
    # The wheel reuses the configured build tree (DHC_BUILD_DIR), offline.
    env = dict(os.environ, DHC_BUILD_DIR=str(BUILD))
    run(sys.executable, "-m", "pip", "wheel", "-q", "--no-build-isolation", "--no-deps", "--no-index", sdist,
        "-w", tmp_path, cwd=tmp_path, env=env)
    wheel = next(tmp_path.glob(f"dhc-{VERSION}-*.whl"))
    with zipfile.ZipFile(wheel) as z:
        names = set(z.namelist())
        metadata = z.read(f"dhc-{VERSION}.dist-info/METADATA").decode()
    assert {"dhc/__init__.py", "dhc/py.typed", f"dhc-{VERSION}.dist-info/LICENSE"} <= names
    assert any(re.fullmatch(r"dhc/_dhc\.cpython-.*\.so", n) for n in names)
    assert "License: Apache-2.0" in metadata
    # The README's install line on Debian: a venv that sees the system's numpy
    # (the system's pip installs into it: seeding the venv with its own pip
    # takes longer than the rest of the test).
    venv = tmp_path / "venv"
    run(sys.executable, "-m", "venv", "--system-site-packages", "--without-pip", venv)
    run(sys.executable, "-m", "pip", "--python", venv / "bin" / "python", "install", "-q", "--no-index", "--no-deps",
        wheel)
    env = {k: v for k, v in os.environ.items() if k != "PYTHONPATH"}
    out = run(venv / "bin" / "python", "-c", segment_code(settings_ini), cwd=tmp_path, env=env).stdout
    expect_the_build_trees_run(out, venv, settings_ini, tmp_path)


@pytest.mark.skipif(os.environ.get("DHC_SLOW_TESTS") != "1", reason="slow: set DHC_SLOW_TESTS=1")
def test_the_sdist_builds_offline_in_a_clean_venv(sdist, tmp_path, settings_ini):
    venv = tmp_path / "venv"
    run(sys.executable, "-m", "venv", "--system-site-packages", venv)
    env = {k: v for k, v in os.environ.items() if k not in ("PYTHONPATH", "DHC_BUILD_DIR")}
    env["CMAKE_BUILD_PARALLEL_LEVEL"] = "2"
    run(venv / "bin" / "python", "-m", "pip", "install", "-q", "--no-index", "--no-build-isolation", sdist,
        cwd=tmp_path, env=env)
    out = run(venv / "bin" / "python", "-c", segment_code(settings_ini), cwd=tmp_path, env=env).stdout
    expect_the_build_trees_run(out, venv, settings_ini, tmp_path)


def test_the_debian_packages_hold_a_working_tool_and_python_package(tmp_path, settings_ini):
    debs = os.environ.get("DHC_DEB_DIR")
    if not debs:
        pytest.skip("DHC_DEB_DIR is not set (make deb, then DHC_DEB_DIR=build-deb)")
    main = next(Path(debs).glob(f"dhc_{VERSION}_*.deb"))
    octave = next(Path(debs).glob(f"dhc-octave_{VERSION}_*.deb"))
    listing = run("dpkg-deb", "-c", main).stdout
    for path in ("./usr/bin/dhc", "./usr/share/man/man1/dhc.1", "./usr/share/bash-completion/completions/dhc",
                 "./usr/include/dhc/frontend/Segmentation.h",
                 "./usr/share/doc/dhc/LICENSE"):
        assert path in listing, path
    assert re.search(r"\./usr/lib/python3\.\d+/dist-packages/dhc/_dhc\.cpython-[^ ]*\.so", listing)
    assert re.search(r"\./usr/lib/([a-z0-9_-]+/)?cmake/dhc/dhcConfig\.cmake", listing)
    fields = run("dpkg-deb", "-f", main, "Package", "Version", "Depends").stdout
    assert "Package: dhc\n" in fields and f"Version: {VERSION}" in fields
    assert "python3-numpy" in fields and "libgdal" in fields and "octave" not in fields
    assert "./usr/share/octave/site/m/dhc/dhc.m" in run("dpkg-deb", "-c", octave).stdout
    # Unpacked (not installed): the tool runs and the package imports.
    root = tmp_path / "root"
    run("dpkg-deb", "-x", main, root)
    assert run(root / "usr" / "bin" / "dhc", "--version").stdout.strip().endswith(VERSION)
    site = next((root / "usr" / "lib").glob("python3.*/dist-packages"))
    expect_the_build_trees_run(python_with(site, segment_code(settings_ini), tmp_path), root, settings_ini, tmp_path)
