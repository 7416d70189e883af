"""Updates that an administrator looks at beforehand, bounds in bytes, or holds back."""

from __future__ import annotations

import json
from pathlib import Path

import pytest
from harness import trees, waiting
from harness.device import DATABASE, STATUS, Device
from harness.publisher import Publisher
from harness.volumes import MIB, Volumes
from harness.webserver import Nginx

FIRST = 7000001
"""A number that no port holds: links of other versions are made by replacing it."""


def publish(publisher: Publisher, tree: Path, version: int) -> Path:
    """Each version changes one file of many, so that its diff package is small beside the full one."""
    if not tree.exists():
        trees.write_random_tree(tree, 1, count=40, size=4000)
    (tree / "news").write_text(f"version {version}\n" * 50)
    publisher.publish(tree, DATABASE, "--data-version", str(version), "--level", "1", keep_diffs=9)
    return tree


@pytest.fixture
def tree(connected: Device, publisher: Publisher, tmp_path: Path) -> Path:
    """The first version, installed, and the tree that it was published from."""
    published = publish(publisher, tmp_path / "tree", FIRST)
    connected.run_ok("update", DATABASE)
    return published


def offer(device: Device, publisher: Publisher, tree: Path) -> int:
    """Publishes the second version; returns the bytes of its diff package."""
    publish(publisher, tree, FIRST + 1)
    device.forget_document()
    return int(publisher.entry(DATABASE)["diff_files"][str(FIRST + 1)]["file_size"])


def plan(device: Device) -> dict[str, object]:
    (entry,) = json.loads(device.run_ok("plan", DATABASE, "--json").stdout)
    assert entry["id"] == DATABASE
    return entry


def result(device: Device, status: int, *arguments: str) -> dict[str, object]:
    run = device.run("update", "--json", *arguments)
    assert run.status == status, run.stderr
    (entry,) = json.loads(run.stdout)
    return entry


def fetched(nginx: Nginx, name: str) -> list[str]:
    """Answers that had a body: a question for the size has none."""
    return [line for line in nginx.requests() if name in line and line.split(" ")[1] != "0"]


def test_a_plan_tells_the_first_installation_and_does_not_begin_it(
    connected: Device, publisher: Publisher, nginx: Nginx, tmp_path: Path
) -> None:
    publish(publisher, tmp_path / "tree", FIRST)
    planned = plan(connected)
    assert (planned["installed_version"], planned["offered_version"], planned["way"]) == (None, FIRST, "full package")
    assert planned["reason"] == "nothing is installed"
    assert planned["bytes"] == publisher.package(DATABASE, FIRST).stat().st_size
    assert planned["update"] is True
    assert not fetched(nginx, "/packages/")
    assert not (STATUS / DATABASE).exists()
    assert not connected.installed(DATABASE).exists()


def test_a_plan_tells_what_the_update_then_does(
    connected: Device, publisher: Publisher, nginx: Nginx, tree: Path
) -> None:
    size = offer(connected, publisher, tree)
    with connected.locked(f"using_{DATABASE}.lock", shared=True):
        planned = plan(connected)
        assert planned["readers"] == 1
    assert (planned["installed_version"], planned["offered_version"], planned["way"]) == (FIRST, FIRST + 1, "diff packages")
    assert planned["bytes"] == size
    assert planned["needed_bytes"] >= size
    assert planned["room"] == "enough"
    assert plan(connected)["readers"] == 0
    assert connected.version(DATABASE) == FIRST
    assert not fetched(nginx, f"{DATABASE}_d")
    text = connected.run_ok("plan").stdout
    assert f"{DATABASE}: diff packages lead from version {FIRST} to {FIRST + 1}\n" in text
    connected.run_ok("update", DATABASE)
    assert len(fetched(nginx, f"{DATABASE}_d")) == 1
    planned = plan(connected)
    assert (planned["update"], planned["way"], planned["reason"]) == (False, "nothing", "it is up to date")


def test_a_version_that_has_grown_needs_more_than_planned_and_changes_nothing_without_room(
    connected: Device, publisher: Publisher, volumes: Volumes, tmp_path: Path
) -> None:
    connected.use(volumes.make("tmpfs", 16 * MIB))
    tree = publish(publisher, tmp_path / "tree", FIRST)
    connected.run_ok("update", DATABASE)
    before = trees.contents(connected.installed(DATABASE))
    (tree / "grown").write_bytes(bytes(32 * MIB))
    publish(publisher, tree, FIRST + 1)
    connected.forget_document()
    assert plan(connected)["needed_bytes"] < MIB, "nobody tells how large the content is"
    assert connected.run("update", DATABASE).status == 1
    assert trees.contents(connected.installed(DATABASE)) == before
    connected.run_ok("check", DATABASE)


def test_a_chain_beyond_the_budget_is_not_begun(
    connected: Device, publisher: Publisher, nginx: Nginx, tree: Path
) -> None:
    size = offer(connected, publisher, tree)
    refused = result(connected, 7, "--max-bytes", str(size - 1), DATABASE)
    assert refused["result"] == "beyond budget"
    assert (refused["version"], refused["offered_version"], refused["exit_status"]) == (FIRST, FIRST + 1, 7)
    assert not fetched(nginx, f"{DATABASE}_d")
    assert connected.version(DATABASE) == FIRST
    metrics = connected.run_ok("metrics").stdout
    assert f'tarndbud_last_run_beyond_budget{{database="{DATABASE}",operation="update"}} 1\n' in metrics
    assert result(connected, 0, "--max-bytes", str(size), DATABASE)["result"] == "updated"
    trees.assert_same(tree, connected.installed(DATABASE))


def test_no_full_package_replaces_a_broken_chain_beyond_the_budget(
    connected: Device, publisher: Publisher, nginx: Nginx, tree: Path
) -> None:
    before = trees.contents(connected.installed(DATABASE))
    size = offer(connected, publisher, tree)
    (diff,) = publisher.repository.glob(f"packages/{DATABASE}/{DATABASE}_d*")
    damaged = bytearray(diff.read_bytes())
    damaged[len(damaged) // 2] ^= 0xFF
    diff.write_bytes(damaged)
    full = publisher.package(DATABASE, FIRST + 1).stat().st_size
    # The chain alone is allowed; both together are not, by one byte.
    refused = result(connected, 7, "--max-bytes", str(size + full - 1), DATABASE)
    assert "full package" in refused["reason"]
    assert len(fetched(nginx, f"{DATABASE}_d")) == 1
    assert not fetched(nginx, f"{DATABASE}_v{FIRST + 1}")
    assert connected.version(DATABASE) == FIRST
    assert trees.contents(connected.installed(DATABASE)) == before
    connected.run_ok("check", DATABASE)
    connected.run_ok("update", "--max-bytes", str(size + full), DATABASE)
    trees.assert_same(tree, connected.installed(DATABASE))


def test_the_setting_bounds_scheduled_updates_and_no_others(
    connected: Device, publisher: Publisher, nginx: Nginx, tmp_path: Path
) -> None:
    tree = publish(publisher, tmp_path / "tree", FIRST)
    size = publisher.package(DATABASE, FIRST).stat().st_size
    for rule in ("diffs only", str(size - 1)):
        connected.set("scheduled_full_packages", rule)
        assert result(connected, 7)["result"] == "beyond budget"
        assert "not_when_scheduled" in plan(connected)
    assert not fetched(nginx, "/packages/")
    connected.set("scheduled_full_packages", str(size))
    assert "not_when_scheduled" not in plan(connected)
    assert result(connected, 0)["result"] == "installed"
    connected.set("scheduled_full_packages", "diffs only")
    offer(connected, publisher, tree)
    assert result(connected, 0)["result"] == "updated", "diff packages are always allowed"
    (connected.installed(DATABASE) / "news").unlink()
    connected.run_ok("fix", DATABASE)
    connected.set("scheduled_full_packages", "sometimes")
    refused = connected.run("update")
    assert refused.status == 1
    assert "'scheduled_full_packages' of 'config' must be" in refused.stderr


def test_a_held_database_stays_and_is_repaired_as_it_is(
    connected: Device, publisher: Publisher, tree: Path
) -> None:
    connected.run_ok("hold", DATABASE)
    before = trees.contents(connected.installed(DATABASE))
    offer(connected, publisher, tree)
    held = result(connected, 8, DATABASE)
    assert (held["result"], held["version"], held["held_up_to"], held["exit_status"]) == ("held", FIRST, None, 8)
    scheduled = connected.run_ok("update")
    assert scheduled.stderr == ""
    assert plan(connected)["reason"] == "it is held"
    status = connected.status(DATABASE)
    assert (status["held"], status["held_up_to"], status["up_to_date"]) == (True, None, False)
    assert f'tarndbud_held{{database="{DATABASE}"}} 1\n' in connected.run_ok("metrics").stdout
    (connected.installed(DATABASE) / "news").write_text("damaged")
    connected.run_ok("fix", DATABASE)
    assert connected.version(DATABASE) == FIRST
    assert trees.contents(connected.installed(DATABASE)) == before
    refused = connected.run("force-install", DATABASE, "0")
    assert refused.status == 8
    assert "--even-held" in refused.stderr
    assert connected.version(DATABASE) == FIRST
    connected.run_ok("force-install", "--even-held", DATABASE, "0")
    assert connected.version(DATABASE) == FIRST + 1
    connected.run_ok("unhold", DATABASE)
    assert result(connected, 0, DATABASE)["result"] == "up to date"


def test_a_hold_stops_an_update_that_waits_for_its_turn_already(
    connected: Device, publisher: Publisher, nginx: Nginx, tree: Path
) -> None:
    offer(connected, publisher, tree)
    with connected.locked("update_any.lock"):
        update = connected.start("update", DATABASE)
        waiting.until(lambda: waiting.has_open(update.pid, connected.lock_path("update_any.lock")), "the update waits")
        connected.run_ok("hold", DATABASE)
        assert not update.has_ended()
    result = update.wait()
    assert result.status == 8, str(result)
    assert connected.version(DATABASE) == FIRST
    assert not fetched(nginx, f"{DATABASE}_d")


def test_a_held_version_whose_package_is_gone_is_told(
    connected: Device, publisher: Publisher, tree: Path
) -> None:
    connected.run_ok("hold", DATABASE)
    offer(connected, publisher, tree)
    publisher.package(DATABASE, FIRST).unlink()
    (connected.installed(DATABASE) / "news").write_text("damaged")
    failed = connected.run("fix", DATABASE)
    assert failed.status == 1
    assert "check that the server still has that version" in failed.stderr
    assert connected.version(DATABASE) == FIRST


def test_a_hold_at_a_version_lets_updates_come_up_to_it(
    connected: Device, publisher: Publisher, tree: Path
) -> None:
    connected.run_ok("hold", DATABASE, str(FIRST + 1))
    offer(connected, publisher, tree)
    assert result(connected, 0, DATABASE)["version"] == FIRST + 1
    publish(publisher, tree, FIRST + 2)
    connected.forget_document()
    held = result(connected, 8, DATABASE)
    assert (held["version"], held["offered_version"], held["held_up_to"]) == (FIRST + 1, FIRST + 2, FIRST + 1)
    connected.run_ok("unhold", DATABASE)
    assert result(connected, 0, DATABASE)["version"] == FIRST + 2


def test_a_fix_goes_as_far_as_the_hold_lets_it(connected: Device, publisher: Publisher, tree: Path) -> None:
    connected.run_ok("hold", DATABASE, str(FIRST + 1))
    for offered in (FIRST + 1, FIRST + 2):
        publish(publisher, tree, offered)
        connected.forget_document()
        (connected.installed(DATABASE) / "news").write_text("damaged")
        connected.run_ok("fix", DATABASE)
        assert connected.version(DATABASE) == FIRST + 1
        connected.run_ok("check", DATABASE)


def test_a_damaged_hold_is_told_and_holds(connected: Device, publisher: Publisher, tree: Path) -> None:
    connected.run_ok("hold", DATABASE)
    path = STATUS / DATABASE / "hold.json"
    path.write_text(path.read_text()[:-4])
    offer(connected, publisher, tree)
    for arguments in (("update", DATABASE), ("update",)):
        refused = connected.run(*arguments)
        assert refused.status == 8
        assert str(path) in refused.stderr
    assert connected.version(DATABASE) == FIRST
    assert str(path) in connected.run("status").stderr
    assert json.loads(connected.run_ok("unhold", "--json", DATABASE).stdout)["was_held"] is True
    connected.run_ok("update", DATABASE)
    assert connected.version(DATABASE) == FIRST + 1
