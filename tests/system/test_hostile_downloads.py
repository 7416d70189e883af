"""Servers that send without end, drop by drop, or nothing at all: every download ends, and leaves room on the disk."""

from __future__ import annotations

import json
import os
import random
import threading
import time
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

import pytest
from harness import trees, waiting
from harness.device import CACHE, DATABASE, DOCUMENT, DOWNLOADS, WGETRC, Device
from harness.faultserver import FaultServer
from harness.publisher import Publisher
from harness.syslog import Syslog
from harness.volumes import Volumes

MIB = 1 << 20
SMALL_DISK = 48 * MIB
FETCH_MARK = CACHE / "database_info.fetching"
SYSTEM_SETTINGS = Path("/etc/wgetrc")
# Random, so that a diff package is smaller than a full one.
CONTENT = random.Random(1).randbytes(20000)
IMPATIENT = "lowest_rate 100\npatience 2\n"
"""A drip of 10 bytes a second is far below this rate, and a package over the loopback far above."""


def limit(settings: str) -> None:
    DOWNLOADS.write_text(settings)


@pytest.fixture
def offered(faulty: Device, publisher: Publisher, tmp_path: Path) -> Device:
    """Version 2 is installed, version 3 is offered with its diff package, and the device will ask again."""
    for number in (1, 2, 3):
        tree = trees.write_tree(tmp_path / f"tree{number}", {"a": CONTENT, "b": f"version {number}".encode()})
        publisher.publish(tree, DATABASE, keep_diffs=1)
        if number == 2:
            faulty.run_ok("update", DATABASE)
    faulty.forget_document()
    return faulty


def link_diff_to(publisher: Publisher, link: str) -> int:
    """Changes the link of the newest diff package, and gives the size that is announced for it."""
    document = json.loads(publisher.document.read_text())
    diff = document["db_list"][DATABASE]["diff_files"]["3"]
    diff["download_link"] = link
    publisher.document.write_text(json.dumps(document))
    return int(diff["file_size"])


def use_full_packages(publisher: Publisher) -> None:
    document = json.loads(publisher.document.read_text())
    document["db_list"][DATABASE]["diff_files"] = {}
    publisher.document.write_text(json.dumps(document))


def assert_failed(device: Device, link: str, reason: str, patience: float = 60) -> None:
    result = device.run("update", DATABASE)
    assert result.status == 1, str(result)
    assert len(result.stderr.splitlines()) == 1, str(result)
    assert f"Fail to wget url: {link}" in result.stderr
    assert reason in result.stderr
    assert result.seconds < patience
    assert device.version(DATABASE) == 2
    assert device.left_behind() == []
    device.run_ok("check", DATABASE)


def assert_recovers(device: Device, publisher: Publisher, faults: FaultServer, tmp_path: Path) -> None:
    device.netloc = faults.netloc
    device.configure()
    publisher.link_to(DATABASE, f"{faults.url}/packages/{DATABASE}/{DATABASE}_v3.tarn")
    device.update(DATABASE)
    trees.assert_same(tmp_path / "tree3", device.installed(DATABASE))


@pytest.mark.parametrize(
    ("fault", "settings", "reason"),
    [
        ("endless", "", "it is larger than a document may be (2097152 bytes)"),
        ("drip", IMPATIENT, "it was slower than 100 bytes/s for 2 s"),
        ("hang", IMPATIENT, "it was slower than 100 bytes/s for 2 s"),
        ("drip", "lowest_rate 1\ndeadline 3\n", "it did not end within its deadline of 3 s"),
    ],
)
def test_a_document_without_end_is_given_up_with_the_reason(
    offered: Device, publisher: Publisher, faults: FaultServer, tmp_path: Path, fault: str, settings: str, reason: str
) -> None:
    limit(settings)
    offered.netloc = f"{faults.netloc}/{fault}"
    offered.configure()
    assert_failed(offered, f"http://{offered.netloc}/database_info/1", reason)
    assert not DOCUMENT.exists()
    assert not FETCH_MARK.exists()
    assert_recovers(offered, publisher, faults, tmp_path)


@pytest.mark.parametrize(
    ("fault", "settings", "reason"),
    [
        ("drip", IMPATIENT, "it was slower than 100 bytes/s for 2 s"),
        ("hang", IMPATIENT, "it was slower than 100 bytes/s for 2 s"),
        ("drip", "lowest_rate 1\ndeadline 3\n", "it did not end within its deadline of 3 s"),
    ],
)
def test_a_package_without_end_is_given_up_with_the_reason(
    offered: Device, publisher: Publisher, faults: FaultServer, tmp_path: Path, fault: str, settings: str, reason: str
) -> None:
    limit(settings)
    use_full_packages(publisher)
    link = f"{faults.url}/{fault}/package"
    publisher.link_to(DATABASE, link)
    assert_failed(offered, link, reason)
    assert_recovers(offered, publisher, faults, tmp_path)


def test_a_full_package_becomes_no_larger_than_its_allowance(
    offered: Device, publisher: Publisher, faults: FaultServer, tmp_path: Path
) -> None:
    use_full_packages(publisher)
    package = publisher.package(DATABASE, 3)
    size = package.stat().st_size
    publisher.link_to(DATABASE, f"{faults.url}/more/packages/{DATABASE}/{package.name}")
    result = offered.run("update", "--max-bytes", str(size), DATABASE)
    assert result.status == 1, str(result)
    assert f"it is larger than allowed ({size} bytes)" in result.stderr
    assert offered.version(DATABASE) == 2
    assert_recovers(offered, publisher, faults, tmp_path)


def test_what_arrived_of_a_diff_package_that_breaks_off_counts(
    offered: Device, publisher: Publisher, faults: FaultServer, tmp_path: Path
) -> None:
    (diff,) = publisher.repository.glob(f"packages/{DATABASE}/{DATABASE}_d3*")
    arrived = diff.stat().st_size - 1
    link_diff_to(publisher, f"{faults.url}/cut/{arrived}/packages/{DATABASE}/{diff.name}")
    full = publisher.package(DATABASE, 3).stat().st_size
    refused = offered.run("update", "--max-bytes", str(arrived + full - 1), DATABASE)
    assert refused.status == 7, str(refused)
    assert offered.version(DATABASE) == 2
    offered.run_ok("update", "--max-bytes", str(arrived + full), DATABASE)
    trees.assert_same(tmp_path / "tree3", offered.installed(DATABASE))


class LeastFree(threading.Thread):
    """Watches how much of a disk is free."""

    def __init__(self, place: Path) -> None:
        super().__init__()
        self._place = place
        self._end = threading.Event()
        self.bytes = self._look()

    def _look(self) -> int:
        space = os.statvfs(self._place)
        return space.f_bavail * space.f_frsize

    def run(self) -> None:
        while not self._end.is_set():
            self.bytes = min(self.bytes, self._look())
            time.sleep(0.001)

    def stop(self) -> int:
        self._end.set()
        self.join()
        return self.bytes


@pytest.mark.parametrize("kind", ["tmpfs", "ext4"])
def test_a_package_without_end_leaves_a_twentieth_of_the_disk(
    offered: Device, publisher: Publisher, faults: FaultServer, volumes: Volumes, tmp_path: Path, kind: str
) -> None:
    volume = volumes.make(kind, SMALL_DISK)
    offered.use(volume)
    (volume / "ballast").write_bytes(bytes(MIB))
    use_full_packages(publisher)
    link = f"{faults.url}/endless/package"
    publisher.link_to(DATABASE, link)
    offered.forget_document()
    watch = LeastFree(volume)
    watch.start()
    result = offered.run("update", DATABASE)
    least = watch.stop()
    space = os.statvfs(volume)
    capacity = space.f_blocks * space.f_frsize
    assert result.status == 1, str(result)
    assert "it would leave less than a twentieth of its file system free (" in result.stderr
    assert f" were free for {offered.temporary()}/" in result.stderr
    # A file system's own records take some of it.
    assert least > capacity / 20 - MIB / 4
    assert least < capacity / 4, "the package came close to the limit, or this test shows nothing"
    assert offered.left_behind() == []
    assert_recovers(offered, publisher, faults, tmp_path)


@pytest.mark.parametrize("fault", ["endless", "hang", "drip"])
def test_a_bad_diff_package_is_given_up_for_the_full_one(
    offered: Device, publisher: Publisher, faults: FaultServer, syslog: Syslog, tmp_path: Path, fault: str
) -> None:
    limit(IMPATIENT)
    link = f"{faults.url}/{fault}/diff"
    announced = link_diff_to(publisher, link)
    offered.run_ok("update", DATABASE)
    trees.assert_same(tmp_path / "tree3", offered.installed(DATABASE))
    assert syslog.refusals() == [f"Fail to wget url: {link}"]
    reason = "it was slower than 100 bytes/s for 2 s"
    if fault == "endless":
        reason = f"it is larger than announced ({announced + 65536} bytes)"
    told = [text for priority, text in syslog.lines() if priority == 4 and "the download of" in text]
    assert [text.partition("tarncore: ")[2] for text in told] == [f"the download of '{link}' was ended: {reason}"]
    assert offered.left_behind() == []


@pytest.fixture
def fetching(offered: Device, faults: FaultServer) -> Iterator[Device]:
    """An update of another process hangs at the document of a server that does not answer."""
    offered.netloc = f"{faults.netloc}/hang"
    offered.configure()
    update = offered.start("update", DATABASE)
    assert faults.reached.wait(60)
    yield offered
    faults.gate.set()
    update.wait()


def test_status_tells_what_is_installed_while_another_download_hangs(fetching: Device) -> None:
    result = fetching.run("status", DATABASE, "--json")
    assert result.status == 0, str(result)
    assert result.seconds < 30
    (entry,) = json.loads(result.stdout)
    assert entry["installed_version"] == 2
    assert entry["offered_version"] is None
    assert "is being fetched by another command" in entry["offer_error"]


def test_metrics_are_told_while_a_download_hangs(fetching: Device) -> None:
    result = fetching.run("metrics")
    assert result.status == 0, str(result)
    assert result.seconds < 30
    assert f'tarndbud_installed_version{{database="{DATABASE}"}} 2' in result.stdout


def test_refresh_does_not_wait_for_a_download_that_hangs(fetching: Device) -> None:
    result = fetching.run("refresh")
    assert result.status == 75, str(result)
    assert result.seconds < 30
    assert "is being fetched at this moment" in result.stderr


@pytest.mark.parametrize("command", [("check", DATABASE), ("read", DATABASE, "--", "true")], ids=lambda command: command[0])
def test_check_and_read_do_not_wait_for_a_download_that_hangs(fetching: Device, command: tuple[str, ...]) -> None:
    result = fetching.run(*command)
    assert result.status == 0, str(result)
    assert result.seconds < 30


def test_unmounting_keeps_its_own_deadline_while_a_download_hangs(fetching: Device) -> None:
    result = fetching.run("volume", "unmounting", str(fetching.volume), "--timeout", "1")
    assert result.status == 75, str(result)
    assert result.seconds < 30


def test_status_gives_a_server_that_does_not_answer_up_by_itself(offered: Device, faults: FaultServer) -> None:
    offered.netloc = f"{faults.netloc}/hang"
    offered.configure()
    result = offered.run("status", DATABASE, "--json")
    assert result.status == 0, str(result)
    assert result.seconds < 30
    (entry,) = json.loads(result.stdout)
    assert entry["installed_version"] == 2
    assert "deadline of 10 s" in entry["offer_error"]


def test_an_update_can_be_ended_while_a_download_hangs(offered: Device, faults: FaultServer) -> None:
    offered.netloc = f"{faults.netloc}/hang"
    offered.configure()
    update = offered.start("update", DATABASE)
    assert faults.reached.wait(60)
    os.kill(update.pid, 15)
    waiting.until(update.has_ended, "the update has ended", 20)
    assert update.wait().status == -15
    assert not FETCH_MARK.exists()


def test_a_fresh_document_is_used_after_a_failure_to_fetch_one(
    offered: Device, publisher: Publisher, faults: FaultServer, tmp_path: Path
) -> None:
    offered.netloc = f"{faults.netloc}/status/500"
    offered.configure()
    assert offered.run("update", DATABASE).status == 1
    assert not FETCH_MARK.exists()
    DOCUMENT.write_bytes(publisher.document.read_bytes())
    before = len(faults.requests())
    offered.run_ok("update", DATABASE)
    trees.assert_same(tmp_path / "tree3", offered.installed(DATABASE))
    assert [line for line in faults.requests()[before:] if "database_info" in line] == []


@pytest.mark.parametrize("version", ["-5", "99abc", "0x63", " 3", "+3", "3 ", "", "2147483648"])
def test_a_version_that_is_not_digits_alone_is_refused(offered: Device, publisher: Publisher, version: str) -> None:
    document = json.loads(publisher.document.read_text())
    entry = document["db_list"][DATABASE]
    entry["data_version"] = version
    publisher.document.write_text(json.dumps(document))
    result = offered.run("update", DATABASE)
    assert result.status == 1, str(result)
    assert f'"data_version" of {DATABASE} is "{version}", which is no version number' in result.stderr
    entry["data_version"] = "3"
    entry["diff_files"] = {version: entry["diff_files"]["3"]}
    publisher.document.write_text(json.dumps(document))
    offered.forget_document()
    result = offered.run("update", DATABASE)
    assert result.status == 1, str(result)
    assert f'the diff package "{version}" of {DATABASE} is not named by a version number' in result.stderr
    assert offered.version(DATABASE) == 2


@contextmanager
def system_settings(text: str) -> Iterator[None]:
    before = SYSTEM_SETTINGS.read_bytes()
    SYSTEM_SETTINGS.write_text(text)
    try:
        yield
    finally:
        SYSTEM_SETTINGS.write_bytes(before)


@pytest.mark.parametrize("ours", ["trusted", "refused", "absent"])
def test_settings_of_the_system_reach_no_download(
    offered: Device, faults: FaultServer, tmp_path: Path, ours: str
) -> None:
    """Neither a proxy nor anything else, whatever becomes of the file for updates."""
    if ours == "refused":
        WGETRC.chmod(0o666)
    elif ours == "absent":
        WGETRC.unlink()
    try:
        with system_settings("http_proxy = http://127.0.0.1:9/\nuse_proxy = on\nheader = X-System: yes\n"):
            offered.run_ok("update", DATABASE)
    finally:
        if WGETRC.exists():
            WGETRC.chmod(0o644)
    trees.assert_same(tmp_path / "tree3", offered.installed(DATABASE))
    assert [headers.get("X-System") for headers in faults.headers()] == [None] * len(faults.headers())
