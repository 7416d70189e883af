"""Ctrl-C, and a service manager's request to end: everything ends, nothing is left half done."""

from __future__ import annotations

import os
import signal
from pathlib import Path

import pytest
from harness import programs, trees, waiting
from harness.device import DATABASE, RUN, Device
from harness.faultserver import FaultServer
from harness.publisher import Publisher

LOCKS = ("update_any.lock", f"update_{DATABASE}.lock", f"using_{DATABASE}.lock", "fresh_info.lock")


def children(pid: int) -> list[int]:
    """The processes that a process's threads have started and not yet awaited."""
    found: list[int] = []
    for thread in Path(f"/proc/{pid}/task").iterdir():
        found += map(int, (thread / "children").read_text().split())
    return found


def assert_nothing_left(device: Device) -> None:
    for name in LOCKS:
        assert not device.is_locked(name), name
    assert device.left_behind() == []


def install(device: Device, publisher: Publisher, tree: Path) -> None:
    publisher.publish(trees.write_random_tree(tree, 1, count=20, size=1000), DATABASE)
    device.run_ok("update", DATABASE)


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
def test_a_signal_during_a_download_ends_program_and_downloader(
    faulty: Device, publisher: Publisher, faults: FaultServer, tmp_path: Path, number: signal.Signals
) -> None:
    old = tmp_path / "old"
    install(faulty, publisher, old)
    new = trees.write_random_tree(tmp_path / "new", 2, count=40, size=10_000)
    publisher.publish(new, DATABASE, base=f"{faults.url}/gate/1000")
    faulty.run_ok("refresh")
    update = faulty.start("update", DATABASE, "no-such-database")
    assert faults.reached.wait(60)
    helpers = children(update.pid)
    assert helpers
    os.kill(update.pid, number)
    result = update.wait(20)
    assert result.status == -number, str(result)
    assert result.stderr == "tarndbudctl: Interrupted; nothing is left half done.\n"
    assert not any(Path(f"/proc/{pid}").exists() for pid in helpers)
    assert_nothing_left(faulty)
    trees.assert_same(old, faulty.installed(DATABASE))
    faults.gate.set()
    faulty.run_ok("update", DATABASE)
    trees.assert_same(new, faulty.installed(DATABASE))


def test_a_signal_ends_the_wait_for_another_update(faulty: Device, publisher: Publisher, tmp_path: Path) -> None:
    install(faulty, publisher, tmp_path / "tree")
    with faulty.locked("update_any.lock"):
        for command in (("update", DATABASE), ("fix", DATABASE), ("force-install", DATABASE, "1")):
            waiting_one = faulty.start(*command)
            waiting.until(lambda: waiting.has_open(waiting_one.pid, RUN / "update_any.lock"), f"{command} waits")
            os.kill(waiting_one.pid, signal.SIGTERM)
            assert waiting_one.wait(20).status == -signal.SIGTERM
    assert_nothing_left(faulty)


def test_a_signal_while_readers_are_waited_for_gives_up_the_new_version(
    connected: Device, publisher: Publisher, tmp_path: Path
) -> None:
    old = tmp_path / "old"
    install(connected, publisher, old)
    publisher.publish(trees.write_random_tree(tmp_path / "new", 2, count=20, size=1000), DATABASE)
    connected.run_ok("refresh")
    with connected.locked(f"using_{DATABASE}.lock", shared=True):
        update = connected.start("update", DATABASE)
        waiting.until(lambda: waiting.has_open(update.pid, RUN / f"using_{DATABASE}.lock"), "the update waits")
        os.kill(update.pid, signal.SIGINT)
        assert update.wait(20).status == -signal.SIGINT
    assert_nothing_left(connected)
    trees.assert_same(old, connected.installed(DATABASE))
    assert connected.version(DATABASE) == 1


def test_a_replacement_that_has_begun_is_finished_and_recorded(
    connected: Device, publisher: Publisher, tmp_path: Path
) -> None:
    install(connected, publisher, tmp_path / "old")
    new = trees.write_random_tree(tmp_path / "new", 2, count=20, size=1000)
    publisher.publish(new, DATABASE)
    connected.run_ok("refresh")
    fifo = tmp_path / "fifo"
    os.mkfifo(fifo)
    connected.add_hook("10-wait", f'#!/bin/sh\n[ "$1" = post ] && read -r word < {fifo}\nexit 0\n')
    update = connected.start("update", DATABASE)
    with fifo.open("w") as gate:  # returns once the hook reads, when all files have been replaced
        os.kill(update.pid, signal.SIGINT)
        gate.write("go\n")
    result = update.wait(30)
    assert result.status == 0, str(result)
    assert connected.version(DATABASE) == 2
    trees.assert_same(new, connected.installed(DATABASE))
    connected.run_ok("check", DATABASE)
    assert_nothing_left(connected)


def test_what_is_ignored_stays_ignored(faulty: Device, publisher: Publisher, faults: FaultServer, tmp_path: Path) -> None:
    tree = trees.write_random_tree(tmp_path / "tree", 1, count=20, size=1000)
    publisher.publish(tree, DATABASE, base=f"{faults.url}/gate/1000")
    update = programs.Running(["/bin/sh", "-c", f"trap '' HUP; exec {programs.CTL} update {DATABASE}"])
    assert faults.reached.wait(60)
    os.kill(update.pid, signal.SIGHUP)
    faults.gate.set()
    assert update.wait().status == 0
    trees.assert_same(tree, faulty.installed(DATABASE))
