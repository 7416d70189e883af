"""The administrator's program as a person meets it: on a terminal, in scripts, without the right to use it."""

from __future__ import annotations

import json
import os
import time
from pathlib import Path

import pytest
from harness import programs, trees
from harness.device import CONFIGURATION, DATABASE, DEFAULTS, DOCUMENT, Device
from harness.faultserver import FaultServer
from harness.publisher import Publisher
from harness.terminal import OnTerminal
from harness.webserver import Nginx

CLEAR = "\r\x1b[K"
GATE = 200_000


def publish_gated(publisher: Publisher, faults: FaultServer, tmp_path: Path) -> None:
    """Publishes a package whose download stops in the middle, until the gate is opened."""
    tree = trees.write_random_tree(tmp_path / "tree", 1, count=40, size=10_000)
    publisher.publish(tree, DATABASE, base=f"{faults.url}/gate/{GATE}")


def test_a_terminal_shows_the_progress_of_a_download_and_keeps_only_the_result(
    faulty: Device, publisher: Publisher, faults: FaultServer, tmp_path: Path
) -> None:
    publish_gated(publisher, faults, tmp_path)
    update = OnTerminal(programs.CTL, "update", DATABASE)
    update.read_until("B/s")
    assert f"{CLEAR}Downloading  " in update.shown
    assert " kB" in update.shown
    faults.gate.set()
    assert update.wait() == 0, update.shown
    assert update.shown.split(CLEAR)[-1].strip() in ("", f"{DATABASE}: installed version 1")
    assert f"{DATABASE}: installed version 1\r\n" in update.shown


def test_verbose_shows_the_log_in_the_place_of_progress(
    faulty: Device, publisher: Publisher, faults: FaultServer, tmp_path: Path
) -> None:
    publish_gated(publisher, faults, tmp_path)
    update = OnTerminal(programs.CTL, "update", DATABASE, "--verbose")
    update.read_until("Prepare full update")
    assert faults.reached.wait(60)
    faults.gate.set()
    assert update.wait() == 0, update.shown
    assert f"Update {DATABASE} completed and succeed" in update.shown
    assert CLEAR not in update.shown


def test_nothing_is_redrawn_where_there_is_no_terminal(
    faulty: Device, publisher: Publisher, faults: FaultServer, tmp_path: Path
) -> None:
    publish_gated(publisher, faults, tmp_path)
    update = faulty.start("update", DATABASE)
    assert faults.reached.wait(60)
    watcher = OnTerminal(programs.CTL, "status", DATABASE)
    assert watcher.wait() == 0
    faults.gate.set()
    result = update.wait()
    assert result.status == 0, str(result)
    assert result.stdout == f"{DATABASE}: installed version 1\n"
    assert result.stderr == ""


@pytest.mark.parametrize("date", [time.time() - 10 * 86400, time.time() + 10 * 86400], ids=["past", "future"])
def test_the_date_that_a_server_gives_its_document_does_not_matter(
    connected: Device, publisher: Publisher, nginx: Nginx, tmp_path: Path, date: float
) -> None:
    publisher.publish(trees.write_tree(tmp_path / "tree", {"a": b"a"}), DATABASE)
    os.utime(publisher.document, (date, date))
    before = time.time()
    connected.run_ok("update", DATABASE)
    assert before - 1 <= DOCUMENT.stat().st_mtime <= time.time() + 1
    requests = nginx.requests()
    connected.run_ok("status", DATABASE)
    assert nginx.requests() == requests


def test_status_of_many_databases_asks_an_unwell_server_once(faulty: Device, faults: FaultServer) -> None:
    for name in ("one", "two", "three"):
        faulty.add_database(name)
    faulty.netloc = f"{faults.netloc}/status/404"
    faulty.configure()
    entries = json.loads(faulty.run_ok("status", "--json").stdout)
    assert len(entries) == 4
    assert all(entry["offered_version"] is None and "404" in entry["offer_error"] for entry in entries)
    assert len(faults.requests()) == 1


def test_a_schedule_changes_one_database_and_keeps_the_list(connected: Device) -> None:
    connected.add_database("other")
    (DEFAULTS / "databases.conf").write_text((CONFIGURATION / "databases.conf").read_text())
    (CONFIGURATION / "databases.conf").unlink()
    connected.run_ok("schedule", DATABASE, "off")
    scheduled = {entry["id"]: entry["scheduled"] for entry in json.loads(connected.run("status", "--json").stdout)}
    assert scheduled == {DATABASE: False, "other": True}
    connected.run_ok("schedule", DATABASE, "on")
    assert connected.status(DATABASE)["scheduled"] is True


def test_somebody_who_is_not_root_is_told_so(connected: Device) -> None:
    nobody = programs.run("/usr/bin/setpriv", "--reuid=65534", programs.CTL, "update", DATABASE)
    if "setpriv" in nobody.stderr:
        pytest.skip("needs another user, and this namespace has one only")
    assert nobody.status == 1, str(nobody)
    assert "must be run as root" in nobody.stderr
    assert len(nobody.stderr.splitlines()) == 1


@pytest.mark.parametrize("arguments", [[], ["bogus"], ["update", "--bogus"], ["schedule"], ["update", "--all"]])
def test_a_wrong_command_line_ends_with_2_and_the_usage(connected: Device, arguments: list[str]) -> None:
    result = connected.run(*arguments)
    assert result.status == 2, str(result)
    error, usage, more = result.stderr.splitlines()
    assert error.startswith("tarndbudctl: ")
    assert usage.startswith("Usage: tarndbudctl")
    assert more.startswith('Run "tarndbudctl')
    assert result.stdout == ""


def test_volume_show_tells_what_is_free(connected: Device) -> None:
    volume = json.loads(connected.run_ok("volume", "show", "--json").stdout)
    assert volume["volume"] == str(connected.volume)
    assert volume["available"] is True
    assert 0 < volume["free_bytes"] <= volume["total_bytes"]
