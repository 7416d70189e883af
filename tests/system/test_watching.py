"""What people see of updates: packages and percent, what is saved, what another process does, what comes next."""

from __future__ import annotations

import json
import os
import random
import re
import signal
import subprocess
import time
from pathlib import Path

import pytest
from harness import programs, trees, waiting
from harness.device import DATABASE, RUN, STATUS, WGETRC, Device
from harness.faultserver import FaultServer
from harness.publisher import Publisher
from harness.terminal import OnTerminal

CLEAR = "\r\x1b[K"
GATE = 60_000
PROGRESS = RUN / "progress.json"
CRON = Path("/etc/cron.d/tarndbud")
BYTES = random.Random(1).randbytes(600_000)


def publish(publisher: Publisher, tmp_path: Path, appended: bytes) -> None:
    tree = trees.write_tree(tmp_path / "tree", {"big": BYTES + appended, "other": b"other"})
    publisher.publish(tree, DATABASE, "--level", "1", keep_diffs=9)


def gate(publisher: Publisher, faults: FaultServer, version: int) -> None:
    """Stops the download of a diff package in its middle until the gate is opened."""
    document = json.loads(publisher.document.read_text())
    place = document["db_list"][DATABASE]["diff_files"][str(version)]
    place["download_link"] = place["download_link"].replace(faults.url, f"{faults.url}/gate/{GATE}")
    publisher.document.write_text(json.dumps(document))


@pytest.fixture
def offered(faulty: Device, publisher: Publisher, faults: FaultServer, tmp_path: Path) -> Device:
    """Version 1 is installed, and two diff packages are offered, of which the second stops in its middle."""
    publish(publisher, tmp_path, b"")
    faulty.run_ok("update", DATABASE)
    publish(publisher, tmp_path, random.Random(2).randbytes(100_000))
    publish(publisher, tmp_path, random.Random(2).randbytes(100_000) + random.Random(3).randbytes(100_000))
    gate(publisher, faults, 3)
    faulty.forget_document()
    return faulty


def slow_down(rate: str) -> None:
    with WGETRC.open("a") as settings:
        settings.write(f"limit_rate = {rate}\n")


AMOUNT = r"([\d.]+) kB of 10\d\.\d kB  (\d+) %  [\d.]+ k?B/s  (\d+) s left"


def test_a_terminal_tells_the_package_percent_and_time_left_and_what_was_saved(
    offered: Device, faults: FaultServer, publisher: Publisher
) -> None:
    faults.gate.set()
    slow_down("40k")
    update = OnTerminal(programs.CTL, "update", DATABASE)
    assert update.wait() == 0, update.shown[-2000:]
    for package in (1, 2):
        shown = re.findall(rf"Downloading package {package} of 2  {AMOUNT}", update.shown)
        assert shown, update.shown[-2000:]
        size = int(publisher.entry(DATABASE)["diff_files"][str(package + 1)]["file_size"])
        for kilobytes, percent, left in shown:
            assert abs(float(kilobytes) * 1000 / size * 100 - int(percent)) <= 1.5
            assert int(left) <= 10
        assert int(shown[-1][1]) > int(shown[0][1])
    assert re.search(
        rf"{DATABASE}: updated from version 1 to version 3 \(downloaded 20\d\.\d kB, saved (59|60)\d\.\d kB of the full package\)\r\n",
        update.shown,
    ), update.shown


def test_the_beginning_of_a_full_package_tells_its_size(
    faulty: Device, publisher: Publisher, tmp_path: Path
) -> None:
    publish(publisher, tmp_path, b"")
    slow_down("300k")
    update = OnTerminal(programs.CTL, "update", DATABASE)
    assert update.wait() == 0, update.shown[-2000:]
    shown = re.findall(r"Downloading  ([\d.]+) kB of (60\d)\.\d kB  (\d+) %  [\d.]+ k?B/s  \d+ s left", update.shown)
    assert shown, update.shown[-2000:]
    for kilobytes, size, percent in shown:
        assert abs(float(kilobytes) / float(size) * 100 - int(percent)) <= 1.5
    assert f"{DATABASE}: installed version 1\r\n" in update.shown


def test_a_watcher_on_a_terminal_follows_an_update_to_its_end(offered: Device, faults: FaultServer) -> None:
    update = offered.start("update")
    assert faults.reached.wait(60)
    watcher = OnTerminal(programs.CTL, "status", "--watch")
    watcher.read_until(f"{CLEAR}{DATABASE}: Downloading package 2 of 2")
    faults.gate.set()
    assert watcher.wait() == 0, watcher.shown
    assert update.wait().status == 0
    last = watcher.shown.split(CLEAR)[-1]
    assert "Downloading" not in last
    assert re.search(rf"^{DATABASE} +3 +3 +up to date ", last, re.MULTILINE), watcher.shown
    assert not PROGRESS.exists()


def test_a_watcher_in_a_script_gets_lines_and_then_the_status(offered: Device, faults: FaultServer) -> None:
    update = offered.start("update")
    assert faults.reached.wait(60)
    waiting.until(PROGRESS.exists, "the update tells its progress")
    watcher = offered.start("status", "--watch", "--json")
    waiting.until(lambda: PROGRESS.exists() and json.loads(PROGRESS.read_text())["package"] == 2, "the second package")
    time.sleep(1.5)  # So that a watcher that printed each look would have printed several.
    faults.gate.set()
    result = watcher.wait()
    assert result.status == 0, str(result)
    assert update.wait().status == 0
    lines = result.stdout.splitlines()
    steps = [json.loads(line) for line in lines[:-1]]
    second = [step for step in steps if step["package"] == 2]
    assert len(second) == 1
    assert (second[0]["id"], second[0]["packages"], second[0]["phase"]) == (DATABASE, 2, "Downloading")
    assert second[0]["bytes"] <= second[0]["whole_bytes"]
    assert json.loads(lines[-1])[0]["installed_version"] == 3
    assert CLEAR not in result.stderr


def test_a_watcher_ends_by_an_interruption_and_leaves_a_clean_line(offered: Device, faults: FaultServer) -> None:
    update = offered.start("update")
    assert faults.reached.wait(60)
    watcher = OnTerminal(programs.CTL, "status", "--watch")
    watcher.read_until("Downloading package 2 of 2")
    os.kill(watcher.pid, signal.SIGINT)
    assert watcher.wait() == -signal.SIGINT
    assert watcher.shown.endswith(CLEAR)
    assert not update.has_ended()
    faults.gate.set()
    assert update.wait().status == 0


def test_a_watcher_without_an_update_shows_the_status_at_once(connected: Device) -> None:
    begin = time.monotonic()
    plain = connected.run_ok("status")
    between = time.monotonic()
    watched = connected.run_ok("status", "--watch")
    assert watched.stdout == plain.stdout
    assert time.monotonic() - between < between - begin + 5


def test_the_record_of_a_killed_update_is_not_believed(offered: Device, faults: FaultServer) -> None:
    update = offered.start("update")
    assert faults.reached.wait(60)
    waiting.until(PROGRESS.exists, "the update tells its progress")
    update.kill()
    update.wait()
    assert PROGRESS.exists()
    result = offered.run_ok("status", "--watch")
    assert "Downloading" not in result.stdout + result.stderr
    faults.gate.set()
    offered.run_ok("update")
    assert not PROGRESS.exists()


@pytest.fixture
def no_cron() -> None:
    CRON.unlink(missing_ok=True)


def test_status_tells_the_next_run_of_the_line_in_the_documents(connected: Device, no_cron: None) -> None:
    assert "No run is scheduled: neither by tarndbud-update.timer nor by /etc/cron.d/tarndbud.\n" in connected.run_ok("status").stdout
    assert "next_run" not in connected.status(DATABASE)
    document = (Path(__file__).resolve().parents[2] / "docs/operations.md").read_text()
    line = re.search(r"```crontab\n(.*)\n```", document)
    assert line
    CRON.parent.mkdir(parents=True, exist_ok=True)
    try:
        CRON.write_text("# Updates\nMAILTO=root\n" + line[1] + "\n")
        next_run = connected.status(DATABASE)["next_run"]
        assert isinstance(next_run, int)
        assert 0 < next_run - time.time() <= 6 * 3600
        assert time.localtime(next_run).tm_min == 17
        moment = time.strftime("%Y-%m-%d %H:17", time.localtime(next_run))
        assert f"Next scheduled run: {moment}, in " in connected.run_ok("status").stdout
        connected.run_ok("schedule", DATABASE, "off")
        assert "next_run" not in connected.status(DATABASE)
    finally:
        CRON.unlink(missing_ok=True)


def test_status_tells_what_failed_last_and_whether_it_is_over(
    connected: Device, publisher: Publisher, tmp_path: Path
) -> None:
    publish(publisher, tmp_path, b"")
    package = publisher.package(DATABASE, 1)
    kept = package.rename(tmp_path / "kept")
    begin = int(time.time())
    assert connected.run("update", DATABASE).status == 1
    shown = connected.run_ok("status").stdout
    assert re.search(rf"^{DATABASE}: last failure 0 min ago \(\d{{4}}-\d\d-\d\d \d\d:\d\d, update\): Fail to wget url: ", shown, re.MULTILINE)
    failure = connected.status(DATABASE)["last_failure"]
    assert isinstance(failure, dict)
    assert failure["exit_status"] == 1
    assert begin <= failure["time"] <= time.time()
    kept.rename(package)
    connected.run_ok("update", DATABASE)
    status = connected.status(DATABASE)
    assert status["last_failure"] == failure
    assert isinstance(status["last_success"], int)
    assert "last failure" not in connected.run_ok("status").stdout
    assert (STATUS / DATABASE / "last_failure.json").exists()


@pytest.mark.parametrize(
    ("program", "typed", "meant"),
    [
        (programs.CTL, ["updte"], "update"),
        (programs.CTL, ["--verbose", "stauts", "x"], "status"),
        (programs.CTL, ["volume", "unmouting", "/volume1"], "volume unmounting"),
        (programs.PUB, ["publihs", "tree"], "publish"),
    ],
)
def test_an_unknown_command_suggests_the_nearest_one(program: str, typed: list[str], meant: str) -> None:
    result = subprocess.run([program, *typed], capture_output=True, text=True, check=False)
    assert result.returncode == 2
    assert f'"; did you mean "{meant}"?\n' in result.stderr
    assert result.stdout == ""


@pytest.mark.parametrize("program", [programs.CTL, programs.PUB])
def test_a_command_that_is_near_none_suggests_none(program: str) -> None:
    result = subprocess.run([program, "frobnicate"], capture_output=True, text=True, check=False)
    assert result.returncode == 2
    assert 'There is no command "frobnicate".\n' in result.stderr
