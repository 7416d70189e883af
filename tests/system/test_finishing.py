"""A replacement that was killed is finished by the next run from what had been prepared, without the server."""

from __future__ import annotations

import json
import os
import random
import shutil
import signal
import time
from pathlib import Path

import pytest
from harness import kits, programs, readers, tracing, trees
from harness.chains import Snapshot
from harness.device import DATABASE, Device
from harness.packages import Diff, HandPublisher
from harness.syslog import Syslog
from harness.webserver import Nginx

Files = dict[str, bytes]

UPDATE = [programs.CTL, "update", DATABASE]
KILLS = 6
OTHER = "almanac"
"""Comes first in the order of the configuration."""

pytestmark = pytest.mark.skipif(not tracing.is_possible(), reason="other programs cannot be traced here")


def files(version: int, count: int) -> Files:
    changing = {f"part{number % 7}/{number % 3}/file{number:03}": b"%d %d" % (version, number) for number in range(count)}
    return changing | {f"only in {version}/file": b"%d" % version, "top": b"%d" % version, "kept": b"always"}


class Offer:
    """Version 1 is installed and version 2 is offered: in a few files, in many, or as a whole only."""

    def __init__(self, device: Device, hand: HandPublisher, nginx: Nginx, place: Path, kind: str) -> None:
        count = 300 if kind == "many files" else 20
        self.old, self.new = files(1, count), files(2, count)
        self._device, self._nginx, self._place = device, nginx, place
        hand.full(DATABASE, 1, self.old)
        device.update(DATABASE)
        hand.full(DATABASE, 2, self.new)
        if kind != "full":
            hand.diff(DATABASE, 2, Diff.between(self.old, self.new))
        device.forget_document()
        self._snapshot = Snapshot(device, place / "snapshot")
        self.renames = tracing.points(place / "report", UPDATE, tracing.REPLACING)
        self._snapshot.restore()

    def kill_at(self, point: tracing.Point) -> None:
        shutil.rmtree(self._device.temporary(), ignore_errors=True)
        self._snapshot.restore()
        self.kill_next_at(point)
        assert self._device.mark(DATABASE).exists(), str(point)

    def kill_next_at(self, point: tracing.Point) -> None:
        tracing.run_with_fault(self._place / "report", "signal=SIGKILL", point, UPDATE)
        assert tracing.faults(self._place / "report"), str(point)

    def assert_finished(self, what: str) -> None:
        device = self._device
        trees.assert_holds(device.installed(DATABASE), self.new)
        assert device.version(DATABASE) == 2, what
        assert not device.mark(DATABASE).exists(), what
        assert not device.plan(DATABASE).exists(), what
        assert device.left_behind() == [], what
        device.run_ok("check", DATABASE)
        device.run_ok("read", DATABASE, "--", "true")

    def packages_of(self, *arguments: str) -> list[str]:
        before = len(self._nginx.packages())
        self._device.run_ok(*arguments)
        return self._nginx.packages()[before:]


class Neighbour:
    """Version 11 of another database is installed, and 12 is offered by a diff package."""

    OLD: Files = {"a": b"eleven", "b": b"always"}
    NEW: Files = {"a": b"twelve", "b": b"always"}

    def __init__(self, device: Device, hand: HandPublisher, place: Path) -> None:
        self._device = device
        device.add_database(OTHER)
        hand.full(OTHER, 11, self.OLD)
        device.update(OTHER)
        hand.full(OTHER, 12, self.NEW)
        hand.diff(OTHER, 12, Diff.between(self.OLD, self.NEW))
        device.forget_document()
        package = hand.package(OTHER, "d12")
        link = {"12": {"download_link": hand.link(OTHER, "d12"), "file_size": package.stat().st_size}}
        self.kit = kits.write(
            place / "other.kit",
            {"deprecated": False, "db_list": {OTHER: {**hand.entry(OTHER), "diff_files": link}}},
            [("diff", OTHER, 12, package.read_bytes())],
        )

    def assert_updated(self) -> None:
        assert self._device.version(OTHER) == 12
        trees.assert_holds(self._device.installed(OTHER), self.NEW)


@pytest.fixture(params=["few files", "many files", "full"])
def offer(connected: Device, hand: HandPublisher, nginx: Nginx, tmp_path: Path, request: pytest.FixtureRequest) -> Offer:
    return Offer(connected, hand, nginx, tmp_path, request.param)


def test_without_a_server_the_data_is_whole_again_and_the_run_tells_of_the_server(
    connected: Device, offer: Offer, nginx: Nginx, syslog: Syslog
) -> None:
    offer.kill_at(offer.renames[len(offer.renames) // 2])
    assert connected.run("read", DATABASE, "--", "true").status == 75
    nginx.close()
    connected.forget_document()
    result = connected.run("update", DATABASE)
    assert result.status != 0, "the server cannot have answered"
    offer.assert_finished("without a server")
    texts = [text for _, text in syslog.lines()]
    assert any(f"Finish the replacement of {DATABASE} by version 2" in text for text in texts)


def test_every_moment_of_the_replacement_can_be_finished(offer: Offer) -> None:
    drawn = random.Random(len(offer.renames))
    for point in [offer.renames[0], *drawn.choices(offer.renames, k=KILLS), offer.renames[-1]]:
        offer.kill_at(point)
        assert offer.packages_of("update", DATABASE) == [], str(point)
        offer.assert_finished(str(point))


def test_the_result_tells_that_a_run_was_finished(connected: Device, offer: Offer, tmp_path: Path) -> None:
    offer.kill_at(offer.renames[-1])
    ran = tmp_path / "ran"
    connected.add_hook("10-tell", f"#!/bin/sh\necho $1 >> {ran}\n")
    assert "finished the update to version 2 that was killed" in connected.run_ok("update", DATABASE).stdout
    assert ran.read_text().split() == ["pre", "post"]


def test_a_fix_finishes_it_as_well(offer: Offer) -> None:
    offer.kill_at(offer.renames[-1])
    assert offer.packages_of("fix", DATABASE) == []
    offer.assert_finished("fix")


@pytest.mark.parametrize("operation", ["update", "scheduled", "import", "force-install", "fix"])
def test_it_is_finished_before_any_operation_on_another_database(
    connected: Device, offer: Offer, hand: HandPublisher, tmp_path: Path, operation: str
) -> None:
    other = Neighbour(connected, hand, tmp_path)
    offer.kill_at(offer.renames[len(offer.renames) // 2])
    arguments = {
        "update": ["update", OTHER], "scheduled": ["update"], "import": ["import", str(other.kit)],
        "force-install": ["force-install", OTHER, "0"], "fix": ["fix", OTHER],
    }  # fmt: skip
    if operation == "fix":
        (connected.installed(OTHER) / "a").write_bytes(b"damaged")
    packages = offer.packages_of(*arguments[operation])
    offer.assert_finished(operation)
    other.assert_updated()
    assert [part for part in packages if part not in ("v12", "d12")] == [], "what was ready is installed"


def test_another_databases_update_that_fails_loses_nothing(
    connected: Device, offer: Offer, hand: HandPublisher, nginx: Nginx, tmp_path: Path
) -> None:
    Neighbour(connected, hand, tmp_path)
    connected.run_ok("status")  # The document stays when the server goes.
    offer.kill_at(offer.renames[len(offer.renames) // 2])
    nginx.close()
    result = connected.run("update", OTHER, "--json")
    assert result.status == 1, str(result)
    told = [(entry["id"], entry["result"]) for entry in json.loads(result.stdout)]
    assert told == [(DATABASE, "finished"), (OTHER, "failed")]
    offer.assert_finished("though the other failed")
    assert connected.version(OTHER) == 11


def test_what_a_hold_keeps_from_being_finished_holds_no_other_database_up(
    connected: Device, offer: Offer, hand: HandPublisher, tmp_path: Path
) -> None:
    other = Neighbour(connected, hand, tmp_path)
    offer.kill_at(offer.renames[len(offer.renames) // 2])
    connected.run_ok("hold", DATABASE, "1")
    connected.run_ok("update", OTHER)
    other.assert_updated()
    assert connected.mark(DATABASE).exists()
    connected.run_ok("unhold", DATABASE)
    assert offer.packages_of("update", DATABASE) == ["v2"], "the other update has cleared the temporary area"
    offer.assert_finished("after the hold")


def test_the_finishing_may_be_killed_too(offer: Offer) -> None:
    offer.kill_at(offer.renames[len(offer.renames) // 2])
    offer.kill_next_at(tracing.Point(tracing.REPLACING, 2))
    assert offer.packages_of("update", DATABASE) == []
    offer.assert_finished("killed twice")


@pytest.mark.parametrize("call", ["syncfs", "fsync"])
def test_what_was_replaced_and_not_recorded_yet_is_recorded(offer: Offer, connected: Device, call: str) -> None:
    offer.kill_at(tracing.Point(call, 1 if call == "syncfs" else 3))
    assert offer.packages_of("update", DATABASE) == []
    offer.assert_finished(call)


def test_a_finish_that_is_ended_early_leaves_all_that_was_prepared(connected: Device, offer: Offer) -> None:
    offer.kill_at(offer.renames[len(offer.renames) // 2])
    with readers.reading(DATABASE):
        update = connected.start("update", DATABASE)
        time.sleep(1)
        assert not update.has_ended(), "readers hold it up"
        os.kill(update.pid, signal.SIGTERM)
        assert update.wait().status != 0
    assert connected.mark(DATABASE).exists()
    assert offer.packages_of("update", DATABASE) == []
    offer.assert_finished("ended early")


def test_a_hold_keeps_a_finish_from_going_beyond_it(connected: Device, offer: Offer) -> None:
    offer.kill_at(offer.renames[0])
    connected.run_ok("hold", DATABASE, "1")
    assert connected.run("update").status == 8, "a mixture is no quiet end"
    assert connected.mark(DATABASE).exists()
    connected.run_ok("unhold", DATABASE)
    assert offer.packages_of("update", DATABASE) == []
    offer.assert_finished("after the hold")


def test_after_a_restart_of_the_system_the_package_comes_again(connected: Device, offer: Offer) -> None:
    offer.kill_at(offer.renames[-1])
    plan = connected.plan(DATABASE)
    boot, rest = plan.read_bytes().split(b"\0", 1)
    plan.write_bytes(bytes(reversed(boot)) + b"\0" + rest)
    assert offer.packages_of("update", DATABASE) == ["v2"]
    offer.assert_finished("after a restart")


def test_a_prepared_file_that_is_another_now_is_not_installed(connected: Device, offer: Offer) -> None:
    offer.kill_at(offer.renames[0])
    prepared = [path for path in connected.temporary().rglob("*") if path.is_file() and path.read_bytes() == b"2"]
    assert prepared
    for path in prepared:
        path.unlink()
        path.write_bytes(b"3")
    assert offer.packages_of("update", DATABASE) == ["v2"]
    offer.assert_finished("another file")


def test_what_is_cut_off_is_no_plan(connected: Device, offer: Offer) -> None:
    offer.kill_at(offer.renames[-1])
    plan = connected.plan(DATABASE)
    plan.write_bytes(plan.read_bytes()[:-3])
    assert offer.packages_of("update", DATABASE) == ["v2"]
    offer.assert_finished("cut off")


@pytest.mark.parametrize("command", ["update", "fix"])
def test_an_older_version_in_the_place_of_a_mixture_is_told(
    connected: Device, offer: Offer, hand: HandPublisher, syslog: Syslog, command: str
) -> None:
    offer.kill_at(offer.renames[-1])
    shutil.rmtree(connected.temporary())
    hand.full(DATABASE, 1, offer.old)
    connected.forget_document()
    begin = {"update": "reinstalled version 1", "fix": "repaired, now version 1"}[command]
    assert connected.run_ok(command, DATABASE).stdout == (
        f"{DATABASE}: {begin}, which is older than version 2, which was installed or half installed\n"
    )
    texts = [text for _, text in syslog.lines()]
    assert any(f"{DATABASE} went back to version 1, though version 2 was installed or half" in text for text in texts)
    trees.assert_holds(connected.installed(DATABASE), offer.old)
    connected.run_ok("check", DATABASE)
    assert not connected.mark(DATABASE).exists()
    assert not connected.plan(DATABASE).exists()
