"""What an update installs, and how little it asks for when there is nothing to do."""

from __future__ import annotations

import json
import os
import time
from pathlib import Path

import pytest
from harness import trees
from harness.device import DATABASE, DOCUMENT, ROOT_DATABASE, STATUS, Device
from harness.publisher import Publisher
from harness.webserver import Nginx

FIRST = {"zones/europe.bin": b"first" * 5000, "zones/asia.bin": b"asia" * 4000, "gone/later.txt": b"removed by 2"}
SECOND = {"zones/europe.bin": b"second" * 6000, "zones/asia.bin": b"asia" * 4000, "new/added.txt": b"added by 2"}


def documents(requests: list[str]) -> list[str]:
    return [line for line in requests if "/database_info/" in line]


def packages(requests: list[str]) -> list[str]:
    return [line for line in requests if "/packages/" in line]


@pytest.fixture
def updated(connected: Device, publisher: Publisher, tmp_path: Path) -> Device:
    """A device that has the first version."""
    publisher.publish(trees.write_tree(tmp_path / "tree", FIRST), DATABASE)
    connected.run_ok("update", DATABASE)
    return connected


def test_first_install_brings_exactly_the_published_tree(
    connected: Device, publisher: Publisher, nginx: Nginx, tmp_path: Path
) -> None:
    tree = trees.write_tree(tmp_path / "tree", FIRST)
    publisher.publish(tree, DATABASE)
    connected.run_ok("update", DATABASE)
    trees.assert_same(tree, connected.installed(DATABASE))
    assert connected.version(DATABASE) == 1
    assert len(documents(nginx.requests())) == 1
    assert len(packages(nginx.requests())) == 1


def test_an_update_replaces_adds_and_removes_files(updated: Device, publisher: Publisher, tmp_path: Path) -> None:
    second = trees.write_tree(tmp_path / "tree", SECOND)
    publisher.publish(second, DATABASE)
    updated.forget_document()
    updated.run_ok("update", DATABASE)
    trees.assert_same(second, updated.installed(DATABASE))
    assert updated.version(DATABASE) == 2
    assert not (updated.installed(DATABASE) / "gone").exists()


def test_the_digest_of_every_installed_file_is_recorded(
    connected: Device, publisher: Publisher, tmp_path: Path
) -> None:
    publisher.publish(trees.write_tree(tmp_path / "tree", {**FIRST, "empty": b""}), DATABASE)
    connected.run_ok("update", DATABASE)
    root = connected.installed(DATABASE)
    expected = {str(root / name): trees.digest(root / name, "sha384") for name in [*FIRST, "empty"]}
    assert connected.recorded(DATABASE) == expected


def test_an_update_leaves_no_temporary_data(updated: Device) -> None:
    assert updated.left_behind() == []


def test_a_database_on_the_root_file_system_is_installed_below_var_db(
    connected: Device, publisher: Publisher, tmp_path: Path
) -> None:
    connected.add_database(ROOT_DATABASE, on_root=True)
    tree = trees.write_tree(tmp_path / "tree", FIRST)
    publisher.publish(tree, ROOT_DATABASE)
    connected.run_ok("update", ROOT_DATABASE)
    trees.assert_same(tree, Path("/var/db") / ROOT_DATABASE)


def test_update_without_names_takes_the_scheduled_databases(
    connected: Device, publisher: Publisher, tmp_path: Path
) -> None:
    connected.add_database("geo")
    connected.add_database("unscheduled", scheduled=False)
    tree = trees.write_tree(tmp_path / "tree", FIRST)
    for name in (DATABASE, "geo", "unscheduled"):
        publisher.publish(tree, name)
    connected.run_ok("update")
    assert [connected.version(name) for name in (DATABASE, "geo", "unscheduled")] == [1, 1, None]


def test_scheduled_databases_are_updated_in_the_order_of_their_ids(
    connected: Device, publisher: Publisher, tmp_path: Path
) -> None:
    """Whatever their order in the settings is."""
    tree = trees.write_tree(tmp_path / "tree", FIRST)
    for name in (DATABASE, "zoo", "geo"):
        connected.add_database(name)
        publisher.publish(tree, name)
    results = json.loads(connected.run_ok("update", "--json").stdout)
    assert [result["id"] for result in results] == ["geo", DATABASE, "zoo"]


def test_links_inside_the_tree_arrive_as_files_and_empty_directories_do_not(
    connected: Device, publisher: Publisher, tmp_path: Path
) -> None:
    tree = trees.write_tree(tmp_path / "tree", FIRST)
    (tree / "zones/link.bin").symlink_to("europe.bin")
    (tree / "empty/below").mkdir(parents=True)
    publisher.publish(tree, DATABASE)
    connected.run_ok("update", DATABASE)
    installed = connected.installed(DATABASE)
    trees.assert_same(tree, installed)
    assert not (installed / "zones/link.bin").is_symlink()
    assert not (installed / "empty").exists()


def test_the_tables_of_a_database_file_arrive_as_published(
    connected: Device, publisher: Publisher, tmp_path: Path
) -> None:
    tree = trees.write_tree(tmp_path / "tree", FIRST)
    trees.write_database(tree / "names.sqlite", rows=20000)
    publisher.publish(tree, DATABASE)
    connected.run_ok("update", DATABASE)
    trees.assert_same(tree, connected.installed(DATABASE))


def test_up_to_date_costs_one_request_for_the_document_at_most(updated: Device, nginx: Nginx) -> None:
    before = nginx.requests()
    updated.forget_document()
    updated.run_ok("update", DATABASE)
    added = nginx.requests()[len(before) :]
    assert len(added) == 1
    assert documents(added) == added


def test_up_to_date_with_a_cached_document_asks_nothing(updated: Device, nginx: Nginx) -> None:
    before = nginx.requests()
    updated.run_ok("update", DATABASE)
    updated.run_ok("status", DATABASE)
    assert nginx.requests() == before


@pytest.mark.parametrize("command", ["update", "status"])
def test_a_document_of_3600_seconds_is_used_as_it_is(updated: Device, nginx: Nginx, command: str) -> None:
    before = nginx.requests()
    while True:
        second = int(time.time())
        os.utime(DOCUMENT, (second - 3600, second - 3600))
        updated.run_ok(command, DATABASE)
        # The age means what it says only if the clock did not move on during the run.
        if int(time.time()) == second:
            break
        before = nginx.requests()
    assert nginx.requests() == before


@pytest.mark.parametrize("command", ["update", "status"])
def test_a_document_of_one_second_more_is_asked_for_again(updated: Device, nginx: Nginx, command: str) -> None:
    before = nginx.requests()
    second = int(time.time())
    os.utime(DOCUMENT, (second - 3601, second - 3601))
    updated.run_ok(command, DATABASE)
    assert len(documents(nginx.requests()[len(before) :])) == 1


def test_a_document_that_was_fetched_while_the_clock_was_ahead_is_asked_for_again(updated: Device, nginx: Nginx) -> None:
    before = nginx.requests()
    tomorrow = int(time.time()) + 86400
    os.utime(DOCUMENT, (tomorrow, tomorrow))
    updated.run_ok("update", DATABASE)
    assert len(documents(nginx.requests()[len(before) :])) == 1
    assert DOCUMENT.stat().st_mtime < tomorrow


def test_metrics_ask_for_no_document_however_old_it_is(updated: Device, nginx: Nginx) -> None:
    before = nginx.requests()
    second = int(time.time())
    os.utime(DOCUMENT, (second - 3601, second - 3601))
    assert f'tarndbud_offered_version{{database="{DATABASE}"}} 1\n' in updated.run_ok("metrics").stdout
    assert nginx.requests() == before


def test_status_waits_five_seconds_for_another_command_that_asks(updated: Device, nginx: Nginx) -> None:
    before = nginx.requests()
    updated.forget_document()
    with updated.locked("fresh_info.lock"):
        result = updated.run_ok("status", DATABASE, "--json")
    assert 5 <= result.seconds < 8
    (entry,) = json.loads(result.stdout)
    assert (entry["installed_version"], entry["offered_version"]) == (1, None)
    assert "is being fetched by another command" in entry["offer_error"]
    assert nginx.requests() == before


def test_a_cut_off_record_is_nothing_installed_and_the_full_package_comes(
    updated: Device, publisher: Publisher, nginx: Nginx, tmp_path: Path
) -> None:
    second = trees.write_tree(tmp_path / "tree", SECOND)
    publisher.publish(second, DATABASE, keep_diffs=9)
    record = STATUS / DATABASE / "version.json"
    record.write_bytes(record.read_bytes()[:-20])
    assert updated.status(DATABASE)["installed_version"] is None
    updated.update(DATABASE)
    assert nginx.packages() == ["v1", "v2"]
    assert updated.version(DATABASE) == 2
    trees.assert_same(second, updated.installed(DATABASE))


def test_the_request_names_the_databases_and_their_formats(
    connected: Device, publisher: Publisher, nginx: Nginx, tmp_path: Path
) -> None:
    connected.add_database("B")
    publisher.publish(trees.write_tree(tmp_path / "tree", FIRST), DATABASE)
    connected.run_ok("update", DATABASE)
    [request] = documents(nginx.requests())
    assert "/database_info/1?os=orv&dlid=" in request
    assert request.endswith(f"&db_list[B]=1&db_list[{DATABASE}]=1")


def test_a_file_in_a_package_directory_left_behind_is_not_installed(
    connected: Device, publisher: Publisher, tmp_path: Path
) -> None:
    tree = trees.write_tree(tmp_path / "tree", FIRST)
    publisher.publish(tree, DATABASE)
    trees.write_tree(connected.temporary() / f"{DATABASE}_full", {"stale.bin": b"of a killed run", "zones/x": b"too"})
    connected.run_ok("update", DATABASE)
    trees.assert_same(tree, connected.installed(DATABASE))


def test_a_package_left_half_downloaded_is_downloaded_whole(
    connected: Device, publisher: Publisher, tmp_path: Path
) -> None:
    tree = trees.write_tree(tmp_path / "tree", FIRST)
    publisher.publish(tree, DATABASE)
    left = connected.temporary() / f"{DATABASE}_v1"
    left.parent.mkdir(parents=True)
    left.write_bytes(publisher.package(DATABASE, 1).read_bytes()[:100])
    connected.run_ok("update", DATABASE)
    trees.assert_same(tree, connected.installed(DATABASE))


def test_check_finds_a_damaged_and_a_missing_file(updated: Device) -> None:
    updated.run_ok("check", DATABASE)
    installed = updated.installed(DATABASE)
    (installed / "zones/europe.bin").write_bytes(b"damaged")
    (installed / "gone/later.txt").unlink()
    result = updated.run("check", DATABASE)
    assert result.status == 4, str(result)
    assert "zones/europe.bin" in result.stdout
    assert "gone/later.txt" in result.stdout
    assert "zones/asia.bin" not in result.stdout


def test_status_tells_installed_and_offered_versions(connected: Device, publisher: Publisher, tmp_path: Path) -> None:
    publisher.publish(trees.write_tree(tmp_path / "tree", FIRST), DATABASE)
    before = connected.status(DATABASE)
    assert (before["installed_version"], before["offered_version"], before["up_to_date"]) == (None, 1, False)
    connected.run_ok("update", DATABASE)
    after = connected.status(DATABASE)
    assert (after["installed_version"], after["offered_version"], after["up_to_date"]) == (1, 1, True)
    assert after["scheduled"] is True
    assert after["updating"] is False
    assert after["install_dir"] == str(connected.installed(DATABASE))
    assert after["volume"] == str(connected.volume)


def test_an_unknown_database_is_told_from_a_failure(connected: Device) -> None:
    result = connected.run("update", "unknown")
    assert result.status == 3, str(result)
    assert "unknown" in result.stderr
    assert len(result.stderr.splitlines()) == 1
