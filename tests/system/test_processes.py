"""Several processes at once: updates, readers, and ones that are killed."""

from __future__ import annotations

import os
import random
import time
from pathlib import Path

from harness import programs, trees, waiting
from harness.device import DATABASE, DOCUMENT, RUN, Device
from harness.faultserver import FaultServer
from harness.publisher import Publisher
from harness.readers import reading

KILLS = 20


def package_requests(faults: FaultServer) -> list[str]:
    return [line for line in faults.requests() if "/packages/" in line]


def publish_gated(publisher: Publisher, faults: FaultServer, tree: Path) -> None:
    """Publishes a package whose download stops after 1,000 bytes, until the gate is opened."""
    publisher.publish(tree, DATABASE, base=f"{faults.url}/gate/1000")


def kill_at_the_fault(device: Device, faults: FaultServer) -> None:
    """Begins an update, and kills it when it asks for what never ends."""
    update = device.start("update", DATABASE)
    assert faults.reached.wait(60)
    update.kill()
    update.wait()


def test_of_two_updates_at_once_the_second_finds_the_work_done(
    faulty: Device, publisher: Publisher, faults: FaultServer, tmp_path: Path
) -> None:
    tree = trees.write_random_tree(tmp_path / "tree", 1, count=20, size=1000)
    publish_gated(publisher, faults, tree)
    first = faulty.start("update", DATABASE)
    assert faults.reached.wait(60)
    second = faulty.start("update", DATABASE)
    waiting.until(lambda: waiting.has_open(second.pid, RUN / "update_any.lock"), "the second update waits")
    assert not second.has_ended()
    faults.gate.set()
    for running in (first, second):
        result = running.wait()
        assert result.status == 0, str(result)
    trees.assert_same(tree, faulty.installed(DATABASE))
    assert len(package_requests(faults)) == 1


def test_an_update_that_must_not_wait_ends_with_75(
    faulty: Device, publisher: Publisher, faults: FaultServer, tmp_path: Path
) -> None:
    publish_gated(publisher, faults, trees.write_random_tree(tmp_path / "tree", 1, count=20, size=1000))
    first = faulty.start("update", DATABASE)
    assert faults.reached.wait(60)
    assert faulty.status(DATABASE)["updating"] is True
    result = faulty.run("update", DATABASE, "--no-wait")
    assert result.status == 75, str(result)
    assert len(result.stderr.splitlines()) == 1
    faults.gate.set()
    assert first.wait().status == 0
    assert faulty.status(DATABASE)["updating"] is False


def test_a_reader_delays_the_replacement_and_nothing_else(
    connected: Device, publisher: Publisher, tmp_path: Path
) -> None:
    first = trees.write_random_tree(tmp_path / "first", 1, count=20, size=1000)
    publisher.publish(first, DATABASE)
    connected.run_ok("update", DATABASE)
    second = trees.write_random_tree(tmp_path / "second", 2, count=30, size=1000)
    publisher.publish(second, DATABASE)
    connected.forget_document()
    prepared = tmp_path / "prepared"
    connected.add_hook("10-tell", f'#!/bin/sh\n[ "$1" = pre ] && : > {prepared}\nexit 0\n')
    with reading(DATABASE):
        update = connected.start("update", DATABASE)
        waiting.until(prepared.exists, "the new version is downloaded, checked and unpacked")
        time.sleep(1)
        assert not update.has_ended()
        trees.assert_same(first, connected.installed(DATABASE))
        connected.run_ok("check", DATABASE)
        released = time.monotonic()
    assert update.wait().status == 0
    assert time.monotonic() - released < 5
    trees.assert_same(second, connected.installed(DATABASE))


def test_an_update_killed_at_any_moment_is_made_good_by_the_next(
    connected: Device, publisher: Publisher, tmp_path: Path
) -> None:
    seed = int(os.environ.get("TARN_SEED", random.SystemRandom().randrange(1 << 32)))
    print(f"TARN_SEED={seed}")
    source = random.Random(seed)
    tree = tmp_path / "tree"
    publisher.publish(trees.write_random_tree(tree, 0, count=150, size=20000), DATABASE)
    connected.run_ok("update", DATABASE)
    publisher.publish(trees.write_random_tree(tree, KILLS + 1, count=150, size=20000), DATABASE)
    connected.forget_document()
    # The first one was slower, having nothing in memory yet.
    duration = connected.run_ok("update", DATABASE).seconds
    unfinished = 0
    for number in range(1, KILLS + 1):
        publisher.publish(trees.write_random_tree(tree, number, count=150, size=20000), DATABASE)
        connected.forget_document()
        moment = source.uniform(0, duration)
        update = connected.start("update", DATABASE)
        time.sleep(moment)
        update.kill()
        if update.wait().status == 0:
            duration *= 0.8  # What else the machine does has become less.
        else:
            unfinished += 1
        result = connected.run("update", DATABASE)
        assert result.status == 0, f"round {number}, killed after {moment:.3f} s: {result}"
        trees.assert_same(tree, connected.installed(DATABASE))
        connected.run_ok("check", DATABASE)
        assert connected.left_behind() == []
    assert unfinished >= KILLS // 2


def test_a_run_killed_while_it_asks_for_the_document_does_not_shape_the_next(
    faulty: Device, publisher: Publisher, faults: FaultServer, tmp_path: Path
) -> None:
    tree = trees.write_random_tree(tmp_path / "tree", 1, count=5, size=1000)
    publisher.publish(tree, DATABASE)
    faulty.netloc = f"{faults.netloc}/hang"
    faulty.configure()
    kill_at_the_fault(faulty, faults)
    assert DOCUMENT.read_bytes() == b"", "the downloader has begun the file, or this test shows nothing"
    faulty.netloc = faults.netloc
    faulty.configure()
    faulty.run_ok("update", DATABASE)
    trees.assert_same(tree, faulty.installed(DATABASE))


def test_a_killed_update_holds_no_lock(
    faulty: Device, publisher: Publisher, faults: FaultServer, tmp_path: Path
) -> None:
    publish_gated(publisher, faults, trees.write_random_tree(tmp_path / "tree", 1, count=20, size=1000))
    kill_at_the_fault(faulty, faults)
    # The downloader that was started may still be running.
    for name in ("update_any.lock", f"update_{DATABASE}.lock", "fresh_info.lock"):
        assert not faulty.is_locked(name), name


def test_a_version_passed_over_after_a_kill_leaves_nothing_behind(
    faulty: Device, publisher: Publisher, faults: FaultServer, tmp_path: Path
) -> None:
    publish_gated(publisher, faults, trees.write_random_tree(tmp_path / "tree", 1, count=20, size=1000))
    kill_at_the_fault(faulty, faults)
    second = trees.write_random_tree(tmp_path / "second", 2, count=20, size=1000)
    publisher.publish(second, DATABASE)
    faulty.forget_document()
    faulty.run_ok("update", DATABASE)
    trees.assert_same(second, faulty.installed(DATABASE))
    assert faulty.left_behind() == []


def test_a_killed_publication_leaves_the_old_state_to_be_served(
    connected: Device, publisher: Publisher, tmp_path: Path
) -> None:
    first = trees.write_tree(tmp_path / "first", {"file": b"first"})
    publisher.publish(first, DATABASE)
    before = publisher.document.read_bytes()
    large = trees.write_random_tree(tmp_path / "large", 1, count=200, size=200000)
    running = programs.Running(
        [programs.PUB, "publish", str(large), "--repo", str(publisher.repository), "--id", DATABASE,
         "--key", str(publisher.private_key), "--url", publisher.base]
    )  # fmt: skip
    files = {path for path in publisher.repository.rglob("*")}
    waiting.until(lambda: set(publisher.repository.rglob("*")) != files, "the package is being written")
    running.kill()
    assert running.wait().status == -9
    assert publisher.document.read_bytes() == before
    connected.run_ok("update", DATABASE)
    trees.assert_same(first, connected.installed(DATABASE))
    publisher.publish(large, DATABASE)
    connected.forget_document()
    connected.run_ok("update", DATABASE)
    trees.assert_same(large, connected.installed(DATABASE))
