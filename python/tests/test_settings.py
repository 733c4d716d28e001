"""dhc.Settings: the defaults, the ini files and the tool's checks."""

import os
import subprocess
import sys

import numpy as np
import pytest

import dhc
from dhc import _dhc
from conftest import SOURCE_DIR, run_tool


def test_defaults_are_examples_default_ini():
    assert dhc.Settings() == dhc.Settings.from_ini(SOURCE_DIR / "examples" / "default.ini")


def test_a_run_creates_no_file(scene, tmp_path):
    """The settings reach the library's reader in memory: a run makes no
    temporary file (TMPDIR names a directory that does not exist, where making
    one fails even for root) and leaves its working directory empty."""
    private, work = tmp_path / "no-such-dir", tmp_path / "work"
    work.mkdir()
    image, _ = scene
    np.save(tmp_path / "image.npy", image)
    code = ("import numpy as np, dhc\n"
            f"image = np.load({str(tmp_path / 'image.npy')!r})\n"
            "r = dhc.segment(image, settings=dhc.Settings(max_number_of_classes=3), verbose=False)\n"
            "dhc.Settings(beta_max=2.0).check()\n"
            "assert r.regions and r.labels.max() > 0\n")
    env = dict(os.environ, TMPDIR=str(private), TMP=str(private), TEMP=str(private))
    subprocess.run([sys.executable, "-c", code], cwd=work, env=env, check=True)
    assert not private.exists() and list(work.iterdir()) == []


def test_ini_round_trip_and_the_tool_reads_it(scene, tmp_path):
    s = dhc.Settings(max_number_of_classes=3, split_gain_threshold=0.1 + 0.2, min_region_area=16,
                     beta_max=np.float32(1.25), adaptive=1, structure_levels=[1, 1], structure_paths=[0, 1])
    s.to_ini(tmp_path / "s.ini")
    back = dhc.Settings.from_ini(tmp_path / "s.ini")
    assert back == s and back.split_gain_threshold == 0.1 + 0.2 and back.adaptive is True
    assert back.structure_levels == [1, 1]
    image, _ = scene
    assert np.array_equal(dhc.segment(image, settings=s).labels,
                          run_tool(tmp_path, image, "--config", tmp_path / "s.ini"))


def test_a_key_the_file_lacks_reads_as_zero(tmp_path):
    (tmp_path / "short.ini").write_text("[SEGM_MAIN_CONFIGURATION]\r\nSupervisedMode=0\r\n\r\n"
                                        "[POTTS_MODEL]\r\nMultiplicity=3\r\nBetaMax=2\r\n")
    s = dhc.Settings.from_ini(tmp_path / "short.ini")
    assert s.multiplicity == 3 and s.beta_max == 2.0
    assert s.max_number_of_classes == 0 and s.tolerance == 0.0 and s.structure_levels == []


def test_bad_values_get_the_tools_messages():
    """A refusal of the shared check (every case: tests/frontend) reaches the
    user as ValueError naming the attribute; values are written as the ini
    text the check reads (8.5, nan, a newline)."""
    cases = [
        (dict(max_number_of_classes="eight"), 'settings.max_number_of_classes: MaxNumberOfClasses must be an integer, not "eight"'),
        (dict(max_number_of_classes=8.5), 'MaxNumberOfClasses must be an integer, not "8.5"'),
        (dict(adaptive=2), 'settings.adaptive: Adaptive must be 0 or 1, not "2"'),
        (dict(beta_max=float("nan")), 'settings.beta_max: BetaMax must be a number, not "nan"'),
        (dict(beta_min=2.0), "settings.beta_min: BetaMin must not exceed BetaMax (1.5)"),
        (dict(multiplicity=1000), "settings.multiplicity: Multiplicity must be from 2 to 64, not 1000"),
        (dict(tolerance="0.1\n[X]"), "settings.tolerance: the value must be on one line"),
        (dict(supervised_mode=True, number_of_classes=2, structure_levels=[1]),
         "settings.structure_levels: StructureLevels must list 2 path lengths (NumberOfClasses)"),
        (dict(supervised_mode=True, number_of_classes=2, structure_levels=[1, 2], structure_paths=[0, 0, 1]),
         "settings.structure_paths: class path 1 is a prefix of class path 2"),
    ]
    image = np.arange(64, dtype=np.int32).reshape(8, 8)
    for values, message in cases:
        s = dhc.Settings(**values)
        for call in (s.check, lambda: dhc.segment(image, settings=s)):
            with pytest.raises(ValueError) as e:
                call()
            assert message in str(e.value), (values, str(e.value))
    with pytest.raises(AttributeError, match="no setting 'max_classes'"):
        dhc.Settings(max_classes=3)
    with pytest.raises(AttributeError):
        dhc.Settings().max_classes = 3


def test_bad_ini_files(tmp_path):
    (tmp_path / "cfg.ini").write_text("[SEGM_MAIN_CONFIGURATION]\nSupervisedMode=0\n\n"
                                      "[UNSUPERVISED_MODE_CONF]\nMaxNumberOfClasses=eight\n")
    with pytest.raises(ValueError, match=r'cfg.ini:5: MaxNumberOfClasses must be an integer, not "eight"$'):
        dhc.Settings.from_ini(tmp_path / "cfg.ini")
    (tmp_path / "nomain.ini").write_text("[POTTS_MODEL]\nMultiplicity=2\n")
    with pytest.raises(ValueError, match=r"nomain.ini: no \[SEGM_MAIN_CONFIGURATION\] section"):
        dhc.Settings.from_ini(tmp_path / "nomain.ini")
    with pytest.raises(OSError, match=r'cannot open configuration ".*none.ini": No such file or directory'):
        dhc.Settings.from_ini(tmp_path / "none.ini")


def test_to_ini_writes_all_or_nothing(tmp_path):
    target = tmp_path / "keep.ini"
    target.write_text("precious")
    with pytest.raises(ValueError, match="BetaMin must not exceed BetaMax"):
        dhc.Settings(beta_min=3.0).to_ini(target)
    assert target.read_text() == "precious" and sorted(p.name for p in tmp_path.iterdir()) == ["keep.ini"]
    dhc.Settings().to_ini(target)
    assert dhc.Settings.from_ini(target) == dhc.Settings()
    assert sorted(p.name for p in tmp_path.iterdir()) == ["keep.ini"]
