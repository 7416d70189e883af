"""Diff updates that are killed, run out of room or meet what a killed one left: the next one makes it good."""

from __future__ import annotations

import os
import random
import shutil
import time
from pathlib import Path

import pytest
from harness import databases, programs, readers, tracing, trees, waiting
from harness.chains import COUNT, Chain, Snapshot, counters
from harness.device import DATABASE, Device
from harness.packages import Diff, HandPublisher
from harness.syslog import Syslog
from harness.volumes import MIB, Volumes
from harness.webserver import Nginx

Files = dict[str, bytes]

KILLS = 25


@pytest.fixture
def chain(connected: Device, hand: HandPublisher) -> Chain:
    """Version 1 is installed, and a chain to version 4 is offered."""
    made = Chain(hand)
    made.publish_first()
    connected.update(DATABASE)
    made.publish_rest()
    connected.forget_document()
    return made


def killed(update: programs.Running, moment: float) -> bool:
    """Kills a program after so long; whether that came before its end."""
    time.sleep(moment)
    update.kill()
    return update.wait().status != 0


def mended(device: Device, chain: Chain, nginx: Nginx, what: str, *, is_ready: bool = False) -> list[str]:
    """
    Updates after a kill, which must give exactly the newest tree; returns the packages that it took.

    is_ready: whether a replacement that is unfinished has everything prepared, so that it takes no package.
    """
    unfinished = device.mark(DATABASE).exists()
    before = len(nginx.packages())
    result = device.run("update", DATABASE)
    assert result.status == 0, f"{what}: {result}"
    try:
        chain.assert_installed(device.installed(DATABASE), Chain.LAST)
    except AssertionError as error:
        raise AssertionError(what) from error
    device.run_ok("check", DATABASE)
    assert device.version(DATABASE) == Chain.LAST
    assert not device.mark(DATABASE).exists(), what
    assert device.left_behind() == [], what
    took = nginx.packages()[before:]
    assert not device.plan(DATABASE).exists(), what
    if unfinished and is_ready:
        assert took == [], what
    else:
        assert ("v4" in took) == unfinished, f"{what}: {took}"
    return took


@pytest.fixture
def drawn() -> random.Random:
    """The same in every run that names the same TARN_SEED."""
    seed = int(os.environ.get("TARN_SEED", random.SystemRandom().randrange(1 << 32)))
    print(f"TARN_SEED={seed}")
    return random.Random(seed)


def test_an_update_killed_at_any_moment_is_made_good_by_the_next(
    connected: Device, chain: Chain, nginx: Nginx, tmp_path: Path, drawn: random.Random
) -> None:
    snapshot = Snapshot(connected, tmp_path / "snapshot")
    duration = connected.run_ok("update", DATABASE).seconds
    unfinished = 0
    for number in range(KILLS):
        snapshot.restore()
        moment = drawn.uniform(0, duration)
        unfinished += killed(connected.start("update", DATABASE), moment)
        mended(connected, chain, nginx, f"kill {number} after {moment:.4f} s", is_ready=True)
    assert unfinished


@pytest.mark.skipif(not tracing.is_possible(), reason="other programs cannot be traced here")
def test_a_replacement_killed_at_any_file_is_made_good_by_the_next(
    connected: Device, chain: Chain, nginx: Nginx, tmp_path: Path, drawn: random.Random
) -> None:
    # The replacement passes too quickly for a moment of it to be met by the clock.
    snapshot = Snapshot(connected, tmp_path / "snapshot")
    update = [programs.CTL, "update", DATABASE]
    renames = tracing.points(tmp_path / "report", update, tracing.REPLACING)
    for point in drawn.choices(renames, k=KILLS):
        snapshot.restore()
        tracing.run_with_fault(tmp_path / "report", "signal=SIGKILL", point, update)
        assert tracing.faults(tmp_path / "report"), str(point)
        assert connected.mark(DATABASE).exists(), str(point)
        assert mended(connected, chain, nginx, f"killed at {point}", is_ready=True) == []


def test_a_replacement_that_stopped_halfway_is_finished_by_the_full_package(
    connected: Device, chain: Chain, nginx: Nginx, syslog: Syslog
) -> None:
    installed = connected.installed(DATABASE)
    for name, content in list(chain.files(Chain.LAST).items())[::2]:
        (installed / name).parent.mkdir(exist_ok=True)
        (installed / name).write_bytes(content)
    databases.changed_at(installed / "counters.sqlite", [COUNT] * 3)
    connected.mark(DATABASE).touch()
    assert mended(connected, chain, nginx, "a mixture") == ["v4"]
    warnings = [text for priority, text in syslog.lines() if priority == 4]
    assert any(f"The last replacement of '{DATABASE}' was not finished" in text for text in warnings), warnings


def test_a_replacement_that_stopped_halfway_is_finished_although_the_newest_is_recorded(
    connected: Device, chain: Chain, nginx: Nginx
) -> None:
    connected.run_ok("update", DATABASE)
    (connected.installed(DATABASE) / "counters.sqlite").unlink()
    connected.mark(DATABASE).touch()
    assert mended(connected, chain, nginx, "a mixture") == ["v4"]


def test_patches_applied_a_second_time_never_make_a_third_state(
    connected: Device, chain: Chain, nginx: Nginx
) -> None:
    installed = connected.installed(DATABASE)
    newest = chain.files(Chain.LAST)
    for name, content in newest.items():
        (installed / name).parent.mkdir(exist_ok=True)
        (installed / name).write_bytes(content)
    connected.run_ok("update", DATABASE)
    assert nginx.packages() == ["v1", "d2", "v4"]
    chain.assert_installed(installed, Chain.LAST)


def plant(directory: Path, files: Files) -> None:
    for name, content in files.items():
        (directory / name).parent.mkdir(parents=True, exist_ok=True)
        (directory / name).write_bytes(content)


def test_what_a_killed_update_left_is_neither_patched_nor_installed(
    connected: Device, chain: Chain, nginx: Nginx
) -> None:
    poison = b"of a killed run"
    temporary = connected.temporary()
    working_copies = {name.replace("/", "_").replace(".", "_"): poison for name in chain.files(1)}
    plant(temporary / f"{DATABASE}_sum", {
        **working_copies, "counters_sqlite": counters(99), "counters_sqlite-wal": poison,
        "counters_sqlite-journal": poison, "part0_file000.patchout": poison, "foreign": poison,
    })  # fmt: skip
    for version in (2, 3, 9):
        plant(temporary / f"{DATABASE}_delta_{version}", {"patch_infos.json": b"{}", "files/000001.vcdiff": poison})
    plant(temporary / f"{DATABASE}_staged", {"0/foreign": poison, "only in 4/foreign": poison, "1": poison})
    plant(temporary, {f"{DATABASE}_d2": poison, f"{DATABASE}_d3": b"", f"{DATABASE}_v4": poison})
    assert mended(connected, chain, nginx, "leftovers") == ["d2", "d3", "d4"]


def test_leftovers_that_are_links_lead_nowhere(
    connected: Device, chain: Chain, nginx: Nginx, tmp_path: Path
) -> None:
    outside = tmp_path / "outside"
    plant(outside, {"part0_file000": b"kept", "package": b"kept"})
    temporary = connected.temporary()
    temporary.mkdir(parents=True, exist_ok=True)
    (temporary / f"{DATABASE}_sum").symlink_to(outside)
    (temporary / f"{DATABASE}_delta_2").symlink_to(outside)
    (temporary / f"{DATABASE}_staged").symlink_to(outside)
    (temporary / f"{DATABASE}_d2").symlink_to(outside / "package")
    assert mended(connected, chain, nginx, "links") == ["d2", "d3", "d4"]
    trees.assert_holds(outside, {"part0_file000": b"kept", "package": b"kept"})


@pytest.mark.parametrize(
    ("command", "package"),
    [(("update", DATABASE), "_v4"), (("force-install", DATABASE, "0"), "_debug")],
    ids=["full package", "forced package"],
)
def test_a_link_in_the_place_of_a_package_leads_nowhere(
    connected: Device,
    chain: Chain,
    nginx: Nginx,
    hand: HandPublisher,
    tmp_path: Path,
    command: tuple[str, ...],
    package: str,
) -> None:
    hand.package(DATABASE, "d2").unlink()
    outside = tmp_path / "outside"
    outside.write_bytes(b"kept")
    temporary = connected.temporary()
    temporary.mkdir(parents=True, exist_ok=True)
    (temporary / (DATABASE + package)).symlink_to(outside)
    connected.run_ok(*command)
    assert nginx.packages()[-1] == "v4"
    assert outside.read_bytes() == b"kept"


def test_a_package_that_stays_away_halfway_leaves_the_rest_to_the_full_one(
    connected: Device, chain: Chain, hand: HandPublisher, nginx: Nginx
) -> None:
    hand.package(DATABASE, "d3").unlink()
    connected.run_ok("update", DATABASE)
    assert nginx.packages() == ["v1", "d2", "v4"]
    chain.assert_installed(connected.installed(DATABASE), Chain.LAST)


@pytest.mark.parametrize("kind", ["tmpfs", "ext4"])
def test_a_volume_that_fills_up_midway_keeps_the_old_tree_until_there_is_room(
    connected: Device, hand: HandPublisher, nginx: Nginx, volumes: Volumes, kind: str
) -> None:
    volume = volumes.make(kind, 96 * MIB)
    connected.use(volume)
    source = random.Random(1)
    old: Files = {f"file{number}": source.randbytes(4 * MIB) for number in range(5)}
    new: Files = {name: content + b"appended" for name, content in old.items()}
    hand.full(DATABASE, 1, old)
    connected.update(DATABASE)
    hand.full(DATABASE, 2, new)
    hand.diff(DATABASE, 2, Diff.between(old, new))
    connected.forget_document()
    filler = volume / "filler"
    # Leaves room for some of the working copies, and for less than the full package.
    filler_size = shutil.disk_usage(volume).free - 14 * MIB
    with filler.open("wb") as stream:
        os.posix_fallocate(stream.fileno(), 0, filler_size)
    result = connected.run("update", DATABASE)
    assert result.status == 1, str(result)
    assert len(result.stderr.splitlines()) == 1
    trees.assert_holds(connected.installed(DATABASE), old)
    assert connected.version(DATABASE) == 1
    assert not connected.mark(DATABASE).exists()
    connected.run_ok("check", DATABASE)
    assert connected.left_behind() == []
    filler.unlink()
    before = len(nginx.packages())
    connected.run_ok("update", DATABASE)
    assert nginx.packages()[before:] == ["d2"]
    trees.assert_holds(connected.installed(DATABASE), new)


def test_a_reader_delays_the_replacement_and_nothing_else(
    connected: Device, chain: Chain, nginx: Nginx, tmp_path: Path
) -> None:
    prepared = tmp_path / "prepared"
    connected.add_hook("10-tell", f'#!/bin/sh\n[ "$1" = pre ] && : > {prepared}\nexit 0\n')
    with readers.reading(DATABASE):
        update = connected.start("update", DATABASE)
        waiting.until(prepared.exists, "all patches are applied")
        assert nginx.packages() == ["v1", "d2", "d3", "d4"]
        assert readers.may_read(DATABASE), "many may read at once"
        assert not update.has_ended()
        chain.assert_installed(connected.installed(DATABASE), 1)
    assert update.wait().status == 0
    chain.assert_installed(connected.installed(DATABASE), Chain.LAST)
    assert readers.may_read(DATABASE)


@pytest.mark.skipif(not tracing.is_possible(), reason="other programs cannot be traced here")
def test_readers_are_locked_out_while_files_are_replaced(connected: Device, chain: Chain, tmp_path: Path) -> None:
    update = tracing.Stopped(tmp_path / "report", tracing.REPLACING, [programs.CTL, "update", DATABASE])
    assert connected.mark(DATABASE).exists()
    assert not readers.may_read(DATABASE)
    update.go_on()
    assert update.wait().status == 0
    assert readers.may_read(DATABASE)
    chain.assert_installed(connected.installed(DATABASE), Chain.LAST)
