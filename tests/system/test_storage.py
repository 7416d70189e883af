"""Volumes: real file systems, full ones, small ones and none."""

from __future__ import annotations

from pathlib import Path

import pytest
from harness import trees
from harness.device import DATABASE, Device
from harness.publisher import Publisher
from harness.syslog import Syslog
from harness.volumes import MIB, Volumes, is_disk

MINIMUM = {"ext4": 64 * MIB, "btrfs": 256 * MIB, "xfs": 320 * MIB, "tmpfs": 64 * MIB, "bind": 0}


def assert_not_updated(device: Device, installed: Path) -> str:
    """An update fails and leaves everything as it is; returns the one line that it says."""
    device.forget_document()
    result = device.run("update", DATABASE)
    assert result.status == 1, str(result)
    assert len(result.stderr.splitlines()) == 1
    trees.assert_same(installed, device.installed(DATABASE))
    assert device.version(DATABASE) == 1
    assert device.left_behind() == []
    return result.stderr


@pytest.mark.parametrize("kind", ["ext4", "btrfs", "xfs", "tmpfs", "bind"])
def test_databases_live_on_every_kind_of_volume(
    connected: Device, publisher: Publisher, volumes: Volumes, tmp_path: Path, kind: str
) -> None:
    volume = volumes.make(kind, MINIMUM[kind])
    connected.volume = None
    # Memory is no storage unless the administrator says so; the scratch disk lies in memory as well on some machines.
    connected.list_volumes(*([] if is_disk(volume) else [volume]))
    connected.configure()
    connected.run_ok("init")
    connected.volume = volume
    for seed in (1, 2):
        tree = trees.write_random_tree(tmp_path / "tree", seed, count=40, size=20000)
        publisher.publish(tree, DATABASE)
        connected.forget_document()
        connected.run_ok("update", DATABASE)
        trees.assert_same(tree, connected.installed(DATABASE))
    connected.run_ok("check", DATABASE)
    assert connected.left_behind() == []


def test_too_little_space_is_said_and_the_installed_copy_stays(
    connected: Device, publisher: Publisher, volumes: Volumes, tmp_path: Path
) -> None:
    volume = volumes.make("tmpfs", 48 * MIB)
    connected.use(volume)
    first = trees.write_random_tree(tmp_path / "first", 1, count=4, size=MIB)
    publisher.publish(first, DATABASE)
    connected.run_ok("update", DATABASE)
    # Package and tree fit, a second copy of the tree does not.
    publisher.publish(trees.write_random_tree(tmp_path / "second", 2, count=18, size=MIB), DATABASE)
    told = assert_not_updated(connected, first)
    assert f"Disk space is too low; the file system of {volume} had " in told
    assert " free of 50.3 MB, and at least " in told
    connected.run_ok("check", DATABASE)


@pytest.mark.parametrize("size_in_mib", [12, 30])
def test_a_volume_that_fills_up_on_the_way_keeps_the_installed_copy(
    connected: Device, publisher: Publisher, volumes: Volumes, tmp_path: Path, size_in_mib: int
) -> None:
    volume = volumes.make("tmpfs", size_in_mib * MIB)
    connected.use(volume)
    first = trees.write_random_tree(tmp_path / "first", 1, count=3, size=MIB)
    publisher.publish(first, DATABASE)
    connected.run_ok("update", DATABASE)
    # In the smaller volume the package does not even fit, in the larger one its contents do not.
    publisher.publish(trees.write_random_tree(tmp_path / "second", 2, count=20, size=MIB), DATABASE)
    assert_not_updated(connected, first)


def test_init_removes_what_a_killed_run_left_and_nothing_that_is_still_needed(connected: Device) -> None:
    connected.run_ok("init")
    left = connected.temporary() / f"{DATABASE}_debug/file"
    left.parent.mkdir(parents=True)
    left.touch()
    connected.mark(DATABASE).parent.mkdir(parents=True, exist_ok=True)
    connected.mark(DATABASE).touch()
    with connected.locked("update_any.lock"):
        connected.run_ok("init")
        assert left.exists(), "it may be of the update that runs"
    connected.run_ok("init")
    assert not left.exists(), "nothing can be finished from it, and the repair may need the room"


def test_init_takes_the_first_volume_in_order(connected: Device, volumes: Volumes) -> None:
    second = volumes.make("directory")
    assert connected.volume is not None
    first, connected.volume = connected.volume, None
    connected.list_volumes(second, first)
    connected.configure()
    connected.run_ok("init")
    assert (first / "@database/autoupdate").is_dir()
    assert not (second / "@database").exists()


def test_init_without_a_volume_says_so(connected: Device) -> None:
    connected.volume = None
    connected.list_volumes(patterns=("/nowhere*",))
    connected.configure()
    result = connected.run("init")
    assert result.status == 1, str(result)
    assert "volume" in result.stderr
    assert len(result.stderr.splitlines()) == 1


def test_without_a_volume_nothing_is_updated(
    connected: Device, publisher: Publisher, tmp_path: Path
) -> None:
    publisher.publish(trees.write_tree(tmp_path / "tree", {"file": b"content"}), DATABASE)
    assert connected.volume is not None
    volume, connected.volume = connected.volume, None
    connected.configure()
    result = connected.run("update", DATABASE)
    assert result.status == 1, str(result)
    assert "There is no storage volume" in result.stderr
    assert connected.version(DATABASE) is None
    assert list(volume.iterdir()) == []


def test_without_a_volume_the_log_says_that_the_update_stops(
    connected: Device, publisher: Publisher, syslog: Syslog, tmp_path: Path
) -> None:
    publisher.publish(trees.write_tree(tmp_path / "tree", {"file": b"content"}), DATABASE)
    connected.volume = None
    connected.configure()
    connected.run("update", DATABASE)
    warnings = [text for priority, text in syslog.lines() if priority == 4]
    assert any(text.endswith("There is no volume, stopping updating.") for text in warnings), warnings


def test_a_read_only_volume_is_not_taken(connected: Device, volumes: Volumes) -> None:
    volume = volumes.make("ext4", MINIMUM["ext4"])
    volumes.remount_read_only(volume)
    connected.volume = None
    connected.list_volumes()
    connected.configure()
    assert connected.run("init").status == 1
