"""A bad version is withdrawn: what devices download then, and what they have in the end."""

from __future__ import annotations

import json
import re
import sqlite3
from pathlib import Path

import pytest
from harness import programs, trees
from harness.device import STATUS, Device
from harness.publisher import Publisher
from harness.webserver import Nginx

HEALTHY, INFECTED = "healthy", "infected"
KEPT = 30
ROWS = "rows.sqlite"


class History:
    """The same versions of two databases: two good ones, then bad ones."""

    def __init__(self, root: Path, publisher: Publisher, device: Device) -> None:
        self.root = root
        self._publisher = publisher
        self._device = device
        (root / "kept").mkdir(parents=True)
        (root / "kept/bulk").write_bytes(b"".join(n.to_bytes(3, "big") * 3 for n in range(0, 9_000_000, 997)))
        (root / "list.txt").write_text("".join(f"entry {n}\n" for n in range(2000)))
        self.sql("CREATE TABLE t(i INTEGER PRIMARY KEY, a); INSERT INTO t VALUES(1, 'good');")
        for name in (HEALTHY, INFECTED):
            device.add_database(name)
        self.publish(HEALTHY, INFECTED)
        (root / "list.txt").write_text("".join(f"entry {n}\n" for n in range(2001)))
        self.sql("INSERT INTO t VALUES(2, 'better');")
        self.publish(HEALTHY, INFECTED)
        for name in (HEALTHY, INFECTED):
            device.update(name)
        self.good = trees.contents(device.installed(HEALTHY))

    def sql(self, script: str) -> None:
        with sqlite3.connect(self.root / ROWS) as database:
            database.executescript(script)
        database.close()

    def publish(self, *names: str) -> None:
        for name in names:
            self._publisher.publish(self.root, name, "--level", "1", keep_diffs=KEPT)

    def publish_bad(self, word: str) -> None:
        """Patches, a script, a new directory, and a deleted directory."""
        (self.root / "list.txt").write_text("".join(f"{word} {n}\n" for n in range(2000)))
        (self.root / f"{word}/deep").mkdir(parents=True)
        (self.root / f"{word}/deep/file").write_text(word)
        self.sql(f"UPDATE t SET a = '{word}';")
        self.publish(HEALTHY, INFECTED)

    def withdraw(self, *options: str) -> None:
        for name in (HEALTHY, INFECTED):
            self._publisher.withdraw(name, "--level", "1", *options)

    def assert_good(self) -> None:
        """Both databases have the good content and the same record of it."""
        for name in (HEALTHY, INFECTED):
            assert trees.contents(self._device.installed(name)) == self.good
            assert self._device.run("check", name).status == 0
        assert self._device.version(HEALTHY) == self._device.version(INFECTED)
        assert self._device.recorded(HEALTHY) == self._device.recorded(INFECTED)
        assert installed_files(HEALTHY) == installed_files(INFECTED)


def installed_files(name: str) -> dict[str, object]:
    """The whole record of a database's files, without the moment of its publication."""
    record = json.loads((STATUS / name / "installed_files.json").read_text().replace(name, "DATABASE"))
    return {key: value for key, value in record.items() if key != "last_fetch_time"}


def fetched_by(device: Device, nginx: Nginx, name: str) -> list[str]:
    before = len(nginx.packages())
    device.update(name)
    return nginx.packages()[before:]


@pytest.fixture
def history(connected: Device, publisher: Publisher, tmp_path: Path) -> History:
    return History(tmp_path / "tree", publisher, connected)


def test_a_healthy_device_never_downloads_the_bad_version(history: History, connected: Device, nginx: Nginx) -> None:
    history.publish_bad("garbage")
    assert fetched_by(connected, nginx, INFECTED) == ["d3"]
    history.withdraw()
    assert fetched_by(connected, nginx, HEALTHY) == ["d3w4", "d4"]
    assert fetched_by(connected, nginx, INFECTED) == ["d4"]
    history.assert_good()
    assert not any(f"{HEALTHY}_d3.tarn" in line or f"{HEALTHY}_v3.tarn" in line for line in nginx.requests())


def test_a_withdrawn_package_is_kept_and_not_served(
    history: History, connected: Device, publisher: Publisher, nginx: Nginx
) -> None:
    history.publish_bad("garbage")
    history.withdraw()
    kept = f"packages/{HEALTHY}/.withdrawn/{HEALTHY}_v3.tarn"
    assert (publisher.repository / kept).stat().st_size > 0
    assert (publisher.repository / f"packages/{HEALTHY}/{HEALTHY}_d3w4.tarn").stat().st_size < 450, "it is empty"
    for path in (kept, f"packages/{HEALTHY}/{HEALTHY}_v3.tarn", f"packages/{HEALTHY}/{HEALTHY}_d3.tarn"):
        assert programs.run("/usr/bin/wget", "-qO/dev/null", f"{nginx.url}/{path}").status == 8, path


def test_several_bad_versions_are_passed_at_once(history: History, connected: Device, nginx: Nginx) -> None:
    history.publish_bad("garbage")
    connected.update(INFECTED)
    history.publish_bad("rubbish")
    history.withdraw("--to", "2")
    assert fetched_by(connected, nginx, HEALTHY) == ["d3w5", "d4w5", "d5"]
    assert fetched_by(connected, nginx, INFECTED) == ["d4w5", "d5"]
    history.assert_good()


def test_a_withdrawn_version_comes_back(history: History, connected: Device, nginx: Nginx) -> None:
    history.publish_bad("right")
    connected.update(INFECTED)
    right = trees.contents(connected.installed(INFECTED))
    history.withdraw()
    connected.update(INFECTED)
    history.withdraw("--to", "3")
    assert fetched_by(connected, nginx, HEALTHY) == ["d3w4", "d4w5", "d5"]
    assert fetched_by(connected, nginx, INFECTED) == ["d5"]
    del right[ROWS]  # which a script had made, and which now is the published file
    for name in (HEALTHY, INFECTED):
        found = trees.contents(connected.installed(name))
        assert found.pop(ROWS) == trees.contents(history.root)[ROWS]
        assert found == right
    assert connected.recorded(HEALTHY) == connected.recorded(INFECTED)


def test_a_device_with_an_old_document_finds_no_garbage(history: History, connected: Device, nginx: Nginx) -> None:
    history.publish_bad("garbage")
    connected.forget_document()
    assert connected.status(HEALTHY)["offered_version"] == 3
    history.withdraw()
    before = len(nginx.requests())
    failed = connected.run("update", HEALTHY)
    assert failed.status == 1
    assert "404" in failed.stderr
    asked = nginx.requests()[before:]
    assert [re.sub(r" \d+ .*_", " ", line) for line in asked] == ["404 d3.tarn", "404 v3.tarn"], asked
    assert connected.version(HEALTHY) == 2
    assert trees.contents(connected.installed(HEALTHY)) == history.good
    connected.run_ok("refresh")
    before = len(nginx.packages())
    connected.run_ok("update", HEALTHY)
    assert nginx.packages()[before:] == ["d3w4", "d4"]
    assert connected.version(HEALTHY) == 4
    connected.update(INFECTED)
    history.assert_good()


def test_what_a_withdrawal_leaves_is_in_order_for_every_other_command(
    history: History, connected: Device, publisher: Publisher, nginx: Nginx, tmp_path: Path
) -> None:
    history.publish_bad("garbage")
    connected.update(INFECTED)
    history.withdraw()
    repository = ["--repo", publisher.repository, "--key", publisher.public_key]
    assert json.loads(programs.run_ok(programs.PUB, "check-repo", "--json", *repository).stdout)["problems"] == []
    programs.run_ok(programs.PUB, "promote", HEALTHY, "--from", "1", "--to", "second", *repository)
    told = programs.run_ok(programs.PUB, "changes", HEALTHY, "2", "3", *repository).stdout
    assert "garbage/deep/file" in told
    programs.run_ok(programs.PUB, "prune", "--repo", publisher.repository)
    assert not list((publisher.repository / f"packages/{HEALTHY}").glob(".withdrawn/*"))
    assert json.loads(programs.run_ok(programs.PUB, "check-repo", "--json", *repository).stdout)["problems"] == []
    for name, version in ((HEALTHY, 2), (INFECTED, 3)):
        kit = tmp_path / f"{name}.kit"
        programs.run_ok(programs.PUB, "export", name, kit, *repository, "--from", str(version))
        before = len(nginx.requests())
        connected.run_ok("import", kit)
        assert len(nginx.requests()) == before
    history.assert_good()


def test_where_channels_share_a_database_the_version_has_to_be_named(
    history: History, connected: Device, publisher: Publisher
) -> None:
    history.publish_bad("garbage")
    repository = ["--repo", publisher.repository, "--key", publisher.public_key]
    programs.run_ok(programs.PUB, "promote", HEALTHY, "--from", "1", "--to", "second", *repository)
    withdraw = [
        programs.PUB, "withdraw", HEALTHY, "--repo", publisher.repository, "--key", publisher.private_key, "--level", "1",
    ]  # fmt: skip
    assert programs.run(*withdraw).status == 1
    assert publisher.entry(HEALTHY)["data_version"] == "3"
    told = programs.run_ok(*withdraw, "--to", "2").stderr
    assert "database_info/second still names version 3, which is withdrawn" in told
    connected.update(HEALTHY)
    assert trees.contents(connected.installed(HEALTHY)) == history.good


def test_a_kit_does_not_go_past_a_hold(
    history: History, connected: Device, publisher: Publisher, tmp_path: Path
) -> None:
    history.publish_bad("garbage")
    kit = tmp_path / "kit"
    programs.run_ok(
        programs.PUB, "export", HEALTHY, kit, "--repo", publisher.repository, "--key", publisher.public_key,
        "--from", "2",
    )  # fmt: skip
    connected.run_ok("hold", HEALTHY, "2")
    assert connected.run("import", kit).status == 8
    assert connected.version(HEALTHY) == 2
    connected.run_ok("unhold", HEALTHY)
    connected.run_ok("import", kit)
    assert connected.version(HEALTHY) == 3
