"""Diff updates that change many files: readers wait for a few renames, and all else is as after a small one."""

from __future__ import annotations

import os
import stat
from pathlib import Path

import pytest
from harness import programs, readers, tracing, trees, waiting
from harness.chains import Snapshot
from harness.device import DATABASE, Device
from harness.packages import Diff, HandPublisher
from harness.volumes import MIB, Volumes

Files = dict[str, bytes]

MOST_RENAMES = 128
SIZES = {"directory": 0, "ext4": 64 * MIB, "btrfs": 256 * MIB, "xfs": 320 * MIB}
DIRECTORIES = 12

needs_tracing = pytest.mark.skipif(not tracing.is_possible(), reason="other programs cannot be traced here")


def files(version: int) -> Files:
    """600 files, of which half change with each version; some come and go."""
    made = {
        f"part{number % DIRECTORIES:02}/{number % 5}/file{number:03}": b"%d %d" % (version * (number % 2), number)
        for number in range(600)
    }
    made |= {f"only in {version}/{number:03}": b"%d" % version for number in range(200)}
    return made | {"top": b"%d" % version, "kept": b"always"}


def directories(of: Files) -> set[str]:
    return {str(above) for name in of for above in Path(name).parents if str(above) != "."}


def publish(hand: HandPublisher, version: int, old: Files, new: Files) -> None:
    hand.full(DATABASE, version, new)
    diff = Diff()
    for name in sorted(old.keys() | new.keys() | (directories(old) - directories(new))):
        if name not in new:
            diff.delete(name)
        elif old.get(name) != new[name]:
            diff.create(name, new[name])
    hand.diff(DATABASE, version, diff)


def use(device: Device, volumes: Volumes, kind: str) -> None:
    if kind != "directory":
        device.volume = volumes.make(kind, SIZES[kind])
        device.list_volumes(device.volume)
        device.configure()


def install_first(device: Device, hand: HandPublisher) -> None:
    hand.full(DATABASE, 1, files(1))
    device.update(DATABASE)


def offer_second(device: Device, hand: HandPublisher) -> None:
    publish(hand, 2, files(1), files(2))
    device.forget_document()


def assert_second(device: Device) -> None:
    trees.assert_holds(device.installed(DATABASE), files(2))
    assert device.version(DATABASE) == 2
    device.run_ok("check", DATABASE)
    assert not device.mark(DATABASE).exists()
    assert device.left_behind() == []


@needs_tracing
@pytest.mark.parametrize("kind", SIZES)
def test_readers_wait_for_few_renames_whatever_the_number_of_changed_files(
    connected: Device, hand: HandPublisher, volumes: Volumes, tmp_path: Path, kind: str
) -> None:
    use(connected, volumes, kind)
    install_first(connected, hand)
    offer_second(connected, hand)
    calls = tracing.calls_under_lock(tmp_path / "report", f"using_{DATABASE}.lock", [programs.CTL, "update", DATABASE])
    assert 1 < calls["renameat2"] <= MOST_RENAMES, calls
    assert calls["linkat"] + calls["copy_file_range"] + calls["unlinkat"] + calls["unlink"] == 0, calls
    assert_second(connected)


@needs_tracing
def test_each_file_is_renamed_that_changes_at_the_top(connected: Device, hand: HandPublisher, tmp_path: Path) -> None:
    """Nothing stands in a directory's place there; and it shows what the test before counts."""
    old = {f"file{number:03}": b"old" for number in range(300)}
    new = {name: b"new" for name in old}
    hand.full(DATABASE, 1, old)
    connected.update(DATABASE)
    publish(hand, 2, old, new)
    connected.forget_document()
    calls = tracing.calls_under_lock(tmp_path / "report", f"using_{DATABASE}.lock", [programs.CTL, "update", DATABASE])
    assert calls["renameat2"] == len(old)
    trees.assert_holds(connected.installed(DATABASE), new)


def attributes(path: Path) -> tuple[object, ...]:
    status = path.lstat()
    kept = {name: os.getxattr(path, name) for name in os.listxattr(path)}
    return stat.filemode(status.st_mode), status.st_uid, status.st_gid, kept


@pytest.mark.parametrize("kind", ["ext4", "btrfs", "xfs"])
def test_what_does_not_change_stays_the_same_file_and_directories_keep_their_attributes(
    connected: Device, hand: HandPublisher, volumes: Volumes, kind: str
) -> None:
    use(connected, volumes, kind)
    install_first(connected, hand)
    installed = connected.installed(DATABASE)
    directory, link = installed / "part03/3", installed / "part03/link"
    directory.chmod(0o2750)
    os.setxattr(directory, "user.note", b"kept")
    link.symlink_to("nowhere")
    unchanged = [installed / name for name, content in files(1).items() if files(2).get(name) == content]
    before = {path: (path.stat().st_ino, path.stat().st_mtime_ns) for path in unchanged}
    owned = {path: attributes(path) for path in [installed, *installed.glob("part*"), *installed.glob("part*/*/")]}
    offer_second(connected, hand)
    connected.run_ok("update", DATABASE)
    assert {path: (path.stat().st_ino, path.stat().st_mtime_ns) for path in unchanged} == before
    assert {path: attributes(path) for path in owned} == owned
    assert link.is_symlink()
    link.unlink()
    assert_second(connected)


def test_what_is_put_into_the_database_while_the_update_waits_for_readers_stays(
    connected: Device, hand: HandPublisher
) -> None:
    install_first(connected, hand)
    offer_second(connected, hand)
    staged = connected.temporary() / f"{DATABASE}_staged"
    added = connected.installed(DATABASE) / "part05/0/added"
    with readers.reading(DATABASE):
        update = connected.start("update", DATABASE)
        lock = connected.lock_path(f"using_{DATABASE}.lock")
        waiting.until(lambda: waiting.has_open(update.pid, lock), "the update waits for readers")
        assert any(staged.iterdir()), "directories were made ready, or this test shows nothing"
        assert stat.S_IMODE(staged.stat().st_mode) == 0o700, "nobody else may reach them"
        trees.assert_holds(connected.installed(DATABASE), files(1))
        added.write_bytes(b"foreign")
    assert update.wait().status == 0
    assert added.read_bytes() == b"foreign"
    added.unlink()
    assert_second(connected)


def test_directories_made_ready_by_a_killed_update_are_never_used(connected: Device, hand: HandPublisher) -> None:
    install_first(connected, hand)
    offer_second(connected, hand)
    lock = connected.lock_path(f"using_{DATABASE}.lock")
    with readers.reading(DATABASE):
        update = connected.start("update", DATABASE)
        waiting.until(lambda: waiting.has_open(update.pid, lock), "the update waits for readers")
        update.kill()
        update.wait()
    staged = connected.temporary() / f"{DATABASE}_staged"
    assert any(staged.iterdir())
    trees.assert_holds(connected.installed(DATABASE), files(1))
    connected.run_ok("check", DATABASE)
    assert not connected.mark(DATABASE).exists()
    for directory in staged.iterdir():
        (directory / "foreign").write_bytes(b"of a killed run")
    connected.run_ok("update", DATABASE)
    assert_second(connected)


@needs_tracing
def test_a_kill_at_any_rename_is_made_good_by_the_next_update(
    connected: Device, hand: HandPublisher, tmp_path: Path
) -> None:
    install_first(connected, hand)
    snapshot = Snapshot(connected, tmp_path / "snapshot")
    offer_second(connected, hand)
    report, update = tmp_path / "report", [programs.CTL, "update", DATABASE]
    renames = [point for point in tracing.points(report, update) if point.name == "renameat2"]
    assert DIRECTORIES < len(renames) <= MOST_RENAMES
    for point in [*renames[:3], *renames[3:-3:7], *renames[-3:]]:
        snapshot.restore()
        assert tracing.run_with_fault(report, "signal=SIGKILL", point, update).status != 0
        assert connected.mark(DATABASE).exists()
        connected.run_ok("update", DATABASE)
        assert_second(connected)
