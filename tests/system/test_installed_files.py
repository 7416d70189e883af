"""The record of all installed files: what "check" compares and "fix" repairs, whatever installed it."""

from __future__ import annotations

import contextlib
import hashlib
import json
import sqlite3
from pathlib import Path

import pytest
from harness import databases, programs, tracing, trees
from harness.device import DATABASE, STATUS, Device
from harness.publisher import Publisher
from harness.volumes import Volumes
from harness.webserver import Nginx

RECORD = STATUS / DATABASE / "installed_files.json"
STEADY = "steady/file"


def files(version: int) -> dict[str, bytes]:
    """Patched, steady, new and vanishing files, and a database that scripts change."""
    patched = b"".join(b"line %d\n" % number for number in range(2000)) + b"version %d\n" % version
    table = databases.made(
        ["CREATE TABLE counters (id INTEGER PRIMARY KEY, value INTEGER)"]
        + [f"INSERT INTO counters VALUES ({row}, {row * version if row < 3 else 0})" for row in range(2000)]
    )
    return {
        "patched": patched, "table.sqlite": table, STEADY: b"steady", "zones/steady": b"",
        f"only in {version}/a": b"%d" % version, f"only in {version}/b": b"",
    }  # fmt: skip


def publish(publisher: Publisher, place: Path, version: int) -> Path:
    tree = trees.write_tree(place, files(version))
    publisher.publish(tree, DATABASE, keep_diffs=20)
    return tree


def offer(device: Device, publisher: Publisher, place: Path, version: int) -> None:
    """Publishes a version, which the device's next run finds."""
    publish(publisher, place, version)
    device.forget_document()


def check(device: Device, status: int = 0) -> dict[str, object]:
    result = device.run("check", DATABASE, "--json")
    assert result.status == status, str(result)
    answer: dict[str, object] = json.loads(result.stdout)[0]
    return answer


def named(answer: dict[str, object], member: str, root: Path) -> list[str]:
    entries = answer[member]
    assert isinstance(entries, list)
    return sorted(f"{Path(entry['path']).relative_to(root)} {entry['reason']}" for entry in entries)


def assert_exact(device: Device) -> None:
    """The record holds what is installed, no more and no less, as of this version and not made up afterwards."""
    root = device.installed(DATABASE)
    record = json.loads(RECORD.read_text())
    contents = {str(path.relative_to(root)): path.read_bytes() for path in root.rglob("*") if path.is_file()}
    assert {name: (file["sha384_digest"], file.get("size")) for name, file in record["files"].items()} == {
        name: (hashlib.sha384(content).hexdigest(), len(content)) for name, content in contents.items()
    }
    assert int(record["data_version"]) == device.version(DATABASE)
    assert check(device)["record_of_all_files"] == "complete"


@pytest.fixture
def by_diff(connected: Device, publisher: Publisher, nginx: Nginx, tmp_path: Path) -> Device:
    """Version 1 by its full package, version 2 by the diff package."""
    for version in (1, 2):
        publish(publisher, tmp_path / "tree", version)
        connected.update(DATABASE)
        assert_exact(connected)
    assert nginx.packages() == ["v1", "d2"]
    return connected


def test_damage_to_a_file_that_the_last_diff_left_alone_is_found_and_fixed(
    by_diff: Device, publisher: Publisher, tmp_path: Path
) -> None:
    root = by_diff.installed(DATABASE)
    assert STEADY not in by_diff.recorded(DATABASE)
    (root / STEADY).write_bytes(b"stEady")
    (root / "zones/steady").unlink()
    answer = check(by_diff, 4)
    assert named(answer, "bad_files", root) == [f"{STEADY} has changed", "zones/steady is missing"]
    # An update does not forget it, either.
    publish(publisher, tmp_path / "tree", 3)
    by_diff.update(DATABASE)
    assert named(check(by_diff, 4), "bad_files", root) == [f"{STEADY} has changed", "zones/steady is missing"]
    assert by_diff.run_ok("fix", DATABASE).stdout == f"{DATABASE}: repaired, now version 3\n"
    trees.assert_same(tmp_path / "tree", root)
    assert_exact(by_diff)
    assert by_diff.run_ok("fix", DATABASE).stdout == f"{DATABASE}: intact, version 3\n"


def test_an_unknown_file_is_told_and_removed_by_fix(by_diff: Device, tmp_path: Path) -> None:
    root = by_diff.installed(DATABASE)
    (root / "zones/planted").write_bytes(b"")
    (root / "link").symlink_to("/etc/passwd")
    answer = check(by_diff, 4)
    assert (answer["result"], answer["bad_files"]) == ("needs a fix", [])
    assert named(answer, "unknown_files", root) == ["link is unknown", "zones/planted is unknown"]
    by_diff.run_ok("fix", DATABASE)
    trees.assert_same(tmp_path / "tree", root)
    assert_exact(by_diff)
    assert Path("/etc/passwd").exists()


@pytest.mark.parametrize("loss", ["lost", "truncated", "of another version"])
def test_a_record_that_is_gone_is_made_again_from_what_is_known(
    by_diff: Device, publisher: Publisher, tmp_path: Path, loss: str
) -> None:
    whole = RECORD.read_text()
    if loss == "lost":
        RECORD.unlink()
    elif loss == "truncated":
        RECORD.write_text(whole[: len(whole) // 2])
    else:
        RECORD.write_text(whole.replace('"data_version":"2"', '"data_version":"1"'))
    root = by_diff.installed(DATABASE)
    (root / "zones/planted").write_bytes(b"")
    assert check(by_diff)["record_of_all_files"] == "missing"
    assert "only what the last update changed was compared" in by_diff.run_ok("check", DATABASE).stdout
    # Though there is nothing to update. What lay there cannot be told from what belongs there any more.
    by_diff.update(DATABASE)
    assert check(by_diff)["record_of_all_files"] == "rebuilt"
    (root / STEADY).write_bytes(b"stEady")
    assert named(check(by_diff, 4), "bad_files", root) == [f"{STEADY} has changed"]
    by_diff.run_ok("fix", DATABASE)
    trees.assert_same(tmp_path / "tree", root)
    assert_exact(by_diff)


def test_a_full_packages_record_is_made_again_exactly(
    connected: Device, publisher: Publisher, tmp_path: Path
) -> None:
    publish(publisher, tmp_path / "tree", 1)
    connected.update(DATABASE)
    RECORD.unlink()
    root = connected.installed(DATABASE)
    (root / STEADY).write_bytes(b"stEady")
    (root / "planted").write_bytes(b"")
    # From the library's record, which lists all files now.
    publish(publisher, tmp_path / "tree", 2)
    connected.update(DATABASE)
    answer = check(connected, 4)
    assert named(answer, "bad_files", root) == [f"{STEADY} has changed"]
    assert named(answer, "unknown_files", root) == ["planted is unknown"]
    assert answer["record_of_all_files"] == "complete"


def test_a_chain_with_files_that_come_and_go_is_recorded_exactly(
    connected: Device, publisher: Publisher, nginx: Nginx, tmp_path: Path
) -> None:
    publish(publisher, tmp_path / "tree", 1)
    connected.update(DATABASE)
    for version in range(2, 6):
        publish(publisher, tmp_path / "tree", version)
    connected.update(DATABASE)
    assert nginx.packages() == ["v1", "d2", "d3", "d4", "d5"]
    trees.assert_holds(
        connected.installed(DATABASE),
        files(5) | {"table.sqlite": (connected.installed(DATABASE) / "table.sqlite").read_bytes()},
    )
    assert_exact(connected)


def test_a_forced_version_is_recorded_with_what_it_keeps(
    by_diff: Device, publisher: Publisher, tmp_path: Path
) -> None:
    root = by_diff.installed(DATABASE)
    by_diff.run_ok("force-install", DATABASE, "0")
    assert_exact(by_diff)
    (root / "patched").write_bytes(b"damaged")
    assert named(check(by_diff, 4), "bad_files", root) == ["patched has changed"]
    by_diff.run_ok("fix", DATABASE)
    trees.assert_same(tmp_path / "tree", root)
    assert_exact(by_diff)


def test_a_record_follows_its_database_to_another_volume(by_diff: Device, volumes: Volumes) -> None:
    first, second = by_diff.volume, volumes.make("directory")
    assert first is not None
    by_diff.list_volumes(first, second)
    by_diff.run_ok("volume", "unmounting", str(first))
    by_diff.volume = second
    assert (second / "@database/autoupdate" / DATABASE / STEADY).exists()
    assert_exact(by_diff)
    (by_diff.installed(DATABASE) / STEADY).write_bytes(b"stEady")
    check(by_diff, 4)


def test_a_volume_that_comes_back_with_other_files_is_not_taken_for_whole(by_diff: Device) -> None:
    assert by_diff.volume is not None
    # With no other one to go to, the databases stay on it.
    by_diff.run_ok("volume", "unmounting", str(by_diff.volume))
    (by_diff.installed(DATABASE) / STEADY).write_bytes(b"stEady")
    answer = json.loads(by_diff.run_ok("volume", "mounted", str(by_diff.volume), "--json").stdout)
    assert answer["incomplete"] == [DATABASE]
    by_diff.run_ok("update", DATABASE)
    assert_exact(by_diff)


@pytest.mark.skipif(not tracing.is_possible(), reason="other programs cannot be traced here")
def test_an_update_killed_between_the_records_has_the_second_made_again(
    by_diff: Device, publisher: Publisher, tmp_path: Path
) -> None:
    root = by_diff.installed(DATABASE)
    offer(by_diff, publisher, tmp_path / "tree", 3)
    nth = order_of_renaming(tmp_path)
    offer(by_diff, publisher, tmp_path / "tree", 4)
    killed_at("rename", tmp_path, nth=nth)
    assert by_diff.version(DATABASE) == 4
    assert not RECORD.exists()
    # The mark goes last of all, so nothing is believed yet.
    told = check(by_diff, 4)
    assert (told["record_of_all_files"], told["unfinished"]) == ("missing", True)
    by_diff.update(DATABASE)
    assert_holds_the_same(tmp_path / "tree", root)
    assert check(by_diff)["record_of_all_files"] == "rebuilt"


@pytest.mark.skipif(not tracing.is_possible(), reason="other programs cannot be traced here")
def test_an_update_killed_before_the_records_carries_the_old_one_on(
    by_diff: Device, publisher: Publisher, tmp_path: Path
) -> None:
    root = by_diff.installed(DATABASE)
    offer(by_diff, publisher, tmp_path / "tree", 3)
    before = by_diff.version(DATABASE)
    killed_at("unlink", tmp_path)
    assert by_diff.version(DATABASE) == before < 3
    assert check(by_diff, 4)["unfinished"] is True
    by_diff.update(DATABASE)
    assert_holds_the_same(tmp_path / "tree", root)
    assert_exact(by_diff)


def assert_holds_the_same(published: Path, root: Path) -> None:
    """A script makes the same content of a database, not the same pages."""
    table = "table.sqlite"
    names = {str(path.relative_to(published)) for path in published.rglob("*") if path.is_file()}
    trees.assert_holds(root, {
        name: ((root if name == table else published) / name).read_bytes() for name in names
    })  # fmt: skip
    assert dump(root / table) == dump(published / table)


def dump(database: Path) -> list[str]:
    with contextlib.closing(sqlite3.connect(f"file:{database}?immutable=1", uri=True)) as connection:
        return list(connection.iterdump())


def killed_at(call: str, place: Path, *, nth: int = 0) -> None:
    """Runs an update that is killed as it asks the system to rename the new record, or to remove the old one."""
    which = f":when={nth}" if nth else ""
    result = programs.run(
        "strace", "-f", "-qq", "-o", place / "report", *(() if nth else ("-P", RECORD)), "-e", f"trace={call}",
        "-e", f"inject={call}:signal=SIGKILL{which}", programs.CTL, "update", DATABASE,
    )  # fmt: skip
    assert result.status in (-9, 137), str(result)
    report = (place / "report").read_text()
    assert "killed by SIGKILL" in report
    assert str(RECORD) in [line for line in report.splitlines() if f" {call}(" in line][-1], report


def order_of_renaming(place: Path) -> int:
    """Runs an update; which of the files that it renames is the record of all files, for a tracer knows no targets."""
    programs.run_ok("strace", "-f", "-qq", "-o", place / "order", "-e", "trace=rename", programs.CTL, "update", DATABASE)
    calls = [line.split(maxsplit=1) for line in (place / "order").read_text().splitlines() if " rename(" in line]
    (process,) = [process for process, call in calls if f'"{RECORD}"' in call]
    own = [call for other, call in calls if other == process]
    return 1 + next(number for number, call in enumerate(own) if f'"{RECORD}"' in call)
