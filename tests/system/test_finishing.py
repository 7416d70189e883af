"""A replacement that was killed is finished by the next run from what had been prepared, without the server."""

from __future__ import annotations

import os
import random
import shutil
import signal
import time
from pathlib import Path

import pytest
from harness import programs, readers, tracing, trees
from harness.chains import Snapshot
from harness.device import DATABASE, Device
from harness.packages import Diff, HandPublisher
from harness.syslog import Syslog
from harness.webserver import Nginx

Files = dict[str, bytes]

UPDATE = [programs.CTL, "update", DATABASE]
KILLS = 6

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
        assert not device.temporary().exists() or list(device.temporary().iterdir()) == [], what
        device.run_ok("check", DATABASE)
        device.run_ok("read", DATABASE, "--", "true")

    def packages_of(self, *arguments: str) -> list[str]:
        before = len(self._nginx.packages())
        self._device.run_ok(*arguments)
        return self._nginx.packages()[before:]


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


def test_the_result_tells_that_a_run_was_finished(connected: Device, offer: Offer) -> None:
    offer.kill_at(offer.renames[-1])
    assert "finished the update to version 2 that was killed" in connected.run_ok("update", DATABASE).stdout


def test_a_fix_finishes_it_as_well(offer: Offer) -> None:
    offer.kill_at(offer.renames[-1])
    assert offer.packages_of("fix", DATABASE) == []
    offer.assert_finished("fix")


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
