"""A sandbox forgets what is changed in its copy; where none can be made, it refuses to begin beside what somebody needs."""

from __future__ import annotations

import os
import subprocess
from pathlib import Path

import pytest
from harness.device import CONFIGURATION, DOWNLOADS, HOOKS, KEYS, ROOT_DATABASE, ROOT_DATABASES, STATUS, VOLUMES, WGETRC

SANDBOX = Path(__file__).resolve().parents[2] / "scripts/sandbox"
WITHOUT_MOUNTS = ("/usr/bin/setpriv", "--bounding-set", "-sys_admin")
UNAVAILABLE = 69
NEEDED = {
    "service settings": CONFIGURATION / "data_update.conf",
    "database settings": CONFIGURATION / "databases.conf",
    "settings of downloads": DOWNLOADS,
    "settings of volumes": VOLUMES,
    "settings of wget": WGETRC,
    "a key": KEYS / "own.pub",
    "a hook": HOOKS / "database_autoupdate/database_autoupdate/version_change/10-own",
    "a record": STATUS / ROOT_DATABASE / "version.json",
    "a database": ROOT_DATABASES / ROOT_DATABASE / "file",
}


def try_plain(own_paths: str = "") -> subprocess.CompletedProcess[str]:
    """A sandbox that cannot be made here, around a program that does nothing."""
    environment = {**os.environ, "TARN_OWN_PATHS": own_paths}
    command = [*WITHOUT_MOUNTS, str(SANDBOX), "--or-plain", "--", "true"]
    return subprocess.run(command, env=environment, capture_output=True, text=True)


@pytest.fixture
def plain(clean_device: None) -> None:
    """A device as it is after its installation, which nothing keeps from being used."""
    result = try_plain()
    if "so this runs on the own paths of this machine" not in result.stderr:
        pytest.skip(f"the right to mount cannot be taken away here, or paths are in use: {result.stderr}")
    assert result.returncode == 0, result.stderr


@pytest.mark.parametrize("kind", NEEDED)
def test_what_somebody_needs_is_not_lost(plain: None, kind: str) -> None:
    path = NEEDED[kind]
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text("# of our own\n")
    result = try_plain()
    assert result.returncode == UNAVAILABLE, result.stderr
    assert f"this machine has a {path.parent if kind == 'a database' else path}, which would be lost" in result.stderr
    assert path.read_text() == "# of our own\n"
    assert try_plain("yes").returncode == 0
    path.unlink()


def test_what_is_changed_in_the_copy_is_forgotten(clean_device: None) -> None:
    made, changed = Path("/usr/tarn/made"), VOLUMES
    before = changed.read_text()
    change = f"touch {made} && echo other >{changed} && test -e {made}"
    result = subprocess.run([SANDBOX, "--", "/bin/sh", "-c", change], capture_output=True, text=True)
    if result.returncode == UNAVAILABLE:
        pytest.skip(f"no copy can be made here: {result.stderr}")
    assert result.returncode == 0, result.stderr
    assert not made.exists()
    assert changed.read_text() == before
