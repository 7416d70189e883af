"""Databases whose "install_dest" is changed: no version is taken for installed where it is not, and none are mixed."""

from __future__ import annotations

import json
from pathlib import Path

import pytest
from harness import trees
from harness.device import ROOT_DATABASE, STATUS, Device
from harness.publisher import Publisher
from harness.webserver import Nginx

FIX_NEEDED = 4
LOCKED = 75


class Versions:
    """A tree of a few files, of which each new version changes one of its own."""

    def __init__(self, publisher: Publisher, tree: Path) -> None:
        self._publisher = publisher
        self.tree = trees.write_random_tree(tree, 3, count=4, size=20_000)
        self._number = 0

    def publish(self) -> None:
        self._number += 1
        (self.tree / f"changed{self._number}").write_text(f"{self._number}\n")
        self._publisher.publish(self.tree, ROOT_DATABASE, keep_diffs=9)


@pytest.fixture
def versions(publisher: Publisher, tmp_path: Path) -> Versions:
    return Versions(publisher, tmp_path / "tree")


def install_in(device: Device, on_root: bool) -> Path:
    device.add_database(ROOT_DATABASE, on_root=on_root)
    return device.installed(ROOT_DATABASE)


def assert_not_installed_there(device: Device, old: Path, new: Path) -> None:
    """Every command says so, and those that speak to people name both directories."""
    shown = device.run_ok("status", ROOT_DATABASE)
    assert " elsewhere " in shown.stdout
    assert f"it is installed in {old}, but databases.conf has it in {new}" in shown.stderr
    entry = device.status(ROOT_DATABASE)
    assert (entry["installed_version"], entry["up_to_date"]) == (None, False)
    assert (entry["install_dir"], entry["previous_dir"]) == (str(new), str(old))
    checked = device.run("check", ROOT_DATABASE)
    assert checked.status == FIX_NEEDED
    assert f"it is installed in {old}, but databases.conf has it in {new}" in checked.stdout
    read = device.run("read", ROOT_DATABASE, "--", "true")
    assert read.status == LOCKED
    assert str(old) in read.stderr and str(new) in read.stderr
    plan = json.loads(device.run_ok("plan", ROOT_DATABASE, "--json").stdout)[0]
    assert (plan["installed_version"], plan["way"], plan["update"], plan["previous_dir"]) == (None, "full package", True, str(old))
    assert f'tarndbud_installed{{database="{ROOT_DATABASE}"}} 0' in device.run_ok("metrics").stdout


def assert_installed(device: Device, tree: Path) -> None:
    trees.assert_same(tree, device.installed(ROOT_DATABASE))
    device.run_ok("check", ROOT_DATABASE)
    device.run_ok("read", ROOT_DATABASE, "--", "true")
    entry = device.status(ROOT_DATABASE)
    assert entry["up_to_date"] is True and "previous_dir" not in entry


@pytest.mark.parametrize("command", ["update", "fix"])
@pytest.mark.parametrize("by_diff", [False, True])
def test_a_database_is_installed_anew_where_the_settings_have_it(
    connected: Device, versions: Versions, command: str, by_diff: bool
) -> None:
    old = install_in(connected, on_root=False)
    versions.publish()
    connected.update(ROOT_DATABASE)
    if by_diff:  # After which the library's record names files without their directory.
        versions.publish()
        connected.update(ROOT_DATABASE)
    new = install_in(connected, on_root=True)
    assert_not_installed_there(connected, old, new)
    result = connected.run_ok(command, ROOT_DATABASE)
    assert f"nothing uses {old}, where it was installed before, any more, and you may delete it" in result.stdout
    assert_installed(connected, versions.tree)
    trees.assert_same(versions.tree, old)
    assert connected.run_ok("fix", ROOT_DATABASE).stdout.startswith(f"{ROOT_DATABASE}: intact")


def test_going_back_to_the_old_directory_mixes_no_versions(
    connected: Device, nginx: Nginx, versions: Versions
) -> None:
    volume = install_in(connected, on_root=False)
    versions.publish()
    connected.update(ROOT_DATABASE)
    root = install_in(connected, on_root=True)
    versions.publish()
    connected.update(ROOT_DATABASE)
    assert_installed(connected, versions.tree)
    install_in(connected, on_root=False)
    assert_not_installed_there(connected, root, volume)
    versions.publish()
    connected.update(ROOT_DATABASE)
    assert_installed(connected, versions.tree)
    # The plan asked how large the package of version 2 is.
    assert nginx.packages() == ["v1", "v2", "v2", "v3"]


def test_a_change_that_is_taken_back_at_once_changes_nothing(connected: Device, versions: Versions) -> None:
    install_in(connected, on_root=False)
    versions.publish()
    connected.update(ROOT_DATABASE)
    install_in(connected, on_root=True)
    install_in(connected, on_root=False)
    assert_installed(connected, versions.tree)
    versions.publish()
    assert "updated from version 1 to version 2" in connected.update(ROOT_DATABASE).stdout
    assert_installed(connected, versions.tree)


def test_the_library_s_record_tells_the_directory_when_the_other_record_is_lost(
    connected: Device, versions: Versions
) -> None:
    old = install_in(connected, on_root=False)
    versions.publish()
    connected.update(ROOT_DATABASE)
    (STATUS / ROOT_DATABASE / "installed_in.json").unlink()
    assert_installed(connected, versions.tree)
    assert_not_installed_there(connected, old, install_in(connected, on_root=True))
