"""Hooks that check a version before it is installed, and hooks about a move between volumes."""

from __future__ import annotations

import json
import os
import random
import signal
import time
from pathlib import Path

import pytest
from harness import trees, waiting
from harness.device import DATABASE, STATUS, Device
from harness.publisher import Publisher
from harness.volumes import Volumes

BELOW = "database_autoupdate/database_autoupdate/"
VALIDATE = BELOW + "validate"
VOLUME_CHANGE = BELOW + "volume_change"
REFUSED = 6
OTHER = "zones"

# Large enough for a diff package to pay.
TREE = {"a": b"first", "big": random.Random(1).randbytes(100000), "gone": b"gone", "sub/b": b"b"}


def read_arguments(path: Path) -> dict[str, str]:
    pairs = path.read_bytes().rstrip(b"\0").split(b"\0")
    return dict(pair.decode().split("=", 1) for pair in pairs)


def read_changes(path: Path) -> list[str]:
    content = path.read_bytes()
    assert content.endswith(b"\0")
    return content[:-1].decode().split("\0")


class Checked:
    """A database of which a hook refuses every version whose file "a" says so."""

    def __init__(self, device: Device, publisher: Publisher, tmp_path: Path) -> None:
        self.device = device
        self._publisher = publisher
        self._root = tmp_path / "tree"
        self.log = tmp_path / "checks"
        self.hook = device.add_hook(
            "10-check",
            "#!/bin/sh\n"
            f'echo "$1 $DATABASE $VERSION $KIND" >> {self.log}\n'
            'if grep -q refuse "$DIRECTORY/a"; then echo "to stdout"; echo "rule \033[31m3 of 5 is bad" >&2; exit 9; fi\n',
            VALIDATE,
        )

    def publish(self, files: dict[str, bytes], *options: str) -> Path:
        root = trees.write_tree(self._root, files)
        self._publisher.publish(root, DATABASE, "--level", "1", *options, keep_diffs=9)
        self.device.forget_document()
        return root

    def checks(self) -> list[str]:
        return self.log.read_text().splitlines() if self.log.exists() else []

    def tree(self) -> dict[str, str]:
        installed = self.device.installed(DATABASE)
        return {str(path.relative_to(installed)): trees.digest(path) for path in installed.rglob("*") if path.is_file()}

    def leftovers(self) -> list[Path]:
        return self.device.left_behind()


@pytest.fixture
def checked(connected: Device, publisher: Publisher, tmp_path: Path) -> Checked:
    return Checked(connected, publisher, tmp_path)


def test_a_hook_sees_the_whole_tree_of_a_full_package(checked: Checked, tmp_path: Path) -> None:
    seen = tmp_path / "seen"
    checked.device.add_hook(
        "20-keep", f'#!/bin/sh\nmkdir {seen}\ncp -a "$DIRECTORY" {seen}/tree\ncp "$CHANGES" {seen}/changes\ncat > {seen}/arguments\n', VALIDATE
    )
    root = checked.publish(TREE)
    checked.device.run_ok("update", DATABASE)
    trees.assert_same(root, checked.device.installed(DATABASE))
    trees.assert_same(root, seen / "tree")
    assert read_changes(seen / "changes") == ["put=a", "put=big", "put=gone", "put=sub/b"]
    arguments = read_arguments(seen / "arguments")
    assert arguments["DATABASE"] == DATABASE
    assert (arguments["VERSION"], arguments["INSTALLED_VERSION"], arguments["KIND"]) == ("1", "-1", "full")
    assert arguments["INSTALL_DIRECTORY"] == str(checked.device.installed(DATABASE))
    assert checked.leftovers() == []


def test_a_hook_sees_the_changed_files_of_a_diff_under_their_names(checked: Checked, tmp_path: Path) -> None:
    checked.publish(TREE)
    checked.device.run_ok("update", DATABASE)
    seen = tmp_path / "seen"
    checked.device.add_hook(
        "20-keep",
        f'#!/bin/sh\nmkdir {seen}\ncp -a "$DIRECTORY" {seen}/tree\ncp "$CHANGES" {seen}/changes\ncat > {seen}/arguments\n'
        f"cat {checked.device.installed(DATABASE)}/a > {seen}/installed\n",
        VALIDATE,
    )
    new = {"a": TREE["a"] + b"second", "big": TREE["big"], "sub/b": b"b", "sub/new/file name": b"new"}
    root = checked.publish(new)
    checked.device.run_ok("update", DATABASE)
    trees.assert_same(root, checked.device.installed(DATABASE))
    assert (seen / "installed").read_bytes() == TREE["a"]
    assert (seen / "tree/a").read_bytes() == new["a"]
    assert sorted(str(p.relative_to(seen / "tree")) for p in (seen / "tree").rglob("*") if p.is_file()) == ["a", "sub/new/file name"]
    assert read_changes(seen / "changes") == ["put=a", "delete=gone", "put=sub/new/file name"]
    arguments = read_arguments(seen / "arguments")
    assert (arguments["VERSION"], arguments["INSTALLED_VERSION"], arguments["KIND"]) == ("2", "1", "diff")
    assert checked.checks() == [f"check {DATABASE} 1 full", f"check {DATABASE} 2 diff"]
    assert checked.leftovers() == []
    assert (checked.device.installed(DATABASE) / "a").stat().st_nlink == 1


@pytest.mark.parametrize("kind", ["full", "diff"])
def test_a_refused_version_replaces_nothing_and_is_not_tried_again_by_itself(checked: Checked, kind: str) -> None:
    device = checked.device
    checked.publish(TREE)
    device.run_ok("update", DATABASE)
    if kind == "full":
        device.mark(DATABASE).touch()
    before = checked.tree()
    refused = {**TREE, "a": TREE["a"] + b"refuse"}
    checked.publish(refused)
    ran = device.add_hook("10-run", "#!/bin/sh\nexit 0\n").parent / "ran"
    device.add_hook("10-run", f"#!/bin/sh\ntouch {ran}\n")
    result = device.run("update", DATABASE)
    assert result.status == REFUSED
    assert "rule ?[31m3 of 5 is bad" in result.stderr
    assert f"{VALIDATE}/10-check" in result.stderr
    assert "--retry-refused" in result.stderr
    assert checked.tree() == before
    assert device.version(DATABASE) == 1
    assert not ran.exists()
    assert checked.leftovers() == []
    assert checked.checks()[1:] == [f"check {DATABASE} 2 {kind}"]
    # By the timer: the hook is not asked, the package not downloaded.
    again = device.run("update")
    assert again.status == REFUSED
    assert "rule ?[31m3 of 5 is bad" in again.stderr
    assert len(checked.checks()) == 2
    assert json.loads((STATUS / DATABASE / "last_run.json").read_text())["downloaded_bytes"] == 0
    planned = json.loads(device.run_ok("plan", "--json", DATABASE).stdout)[0]
    assert planned["not_when_scheduled"] == "a check of this machine refused version 2"
    # When asked for.
    assert device.run("update", DATABASE, "--retry-refused").status == REFUSED
    assert len(checked.checks()) == 3
    assert checked.tree() == before
    checked.hook.unlink()
    device.run_ok("update", DATABASE, "--retry-refused")
    assert device.version(DATABASE) == 2
    assert not (STATUS / DATABASE / "refused.json").exists()


@pytest.mark.parametrize("command", ["update", "fix"])
def test_the_way_out_that_is_named_for_a_mixture_leads_out(checked: Checked, command: str) -> None:
    device = checked.device
    first = "7000001"  # A number that no port holds.
    checked.publish(TREE, "--data-version", first)
    device.run_ok("update", DATABASE)
    old = checked.tree()
    device.mark(DATABASE).touch()
    (device.installed(DATABASE) / "a").write_bytes(TREE["a"] + b"refuse")  # As a killed run leaves it.
    checked.publish({**TREE, "a": TREE["a"] + b"refuse"})
    way_out = f'"tarndbudctl hold {DATABASE}" and then "tarndbudctl fix {DATABASE}" bring version {first} back'
    for attempt in (command, "update", "fix"):
        result = device.run(attempt, DATABASE)
        assert result.status == REFUSED, str(result)
        assert way_out in result.stderr, attempt
    assert way_out in device.run("status").stderr
    assert device.mark(DATABASE).exists()
    device.run_ok("hold", DATABASE)
    device.run_ok("fix", DATABASE)
    assert device.version(DATABASE) == int(first)
    assert checked.tree() == old
    assert not device.mark(DATABASE).exists()
    device.run_ok("check", DATABASE)
    device.run_ok("unhold", DATABASE)
    result = device.run("update", DATABASE)
    assert result.status == REFUSED, "the refusal is remembered"
    assert "two versions" not in result.stderr
    newest = checked.publish({**TREE, "a": b"good again"})
    device.run_ok("update", DATABASE)
    trees.assert_same(newest, device.installed(DATABASE))


def test_a_mixture_gets_the_refused_version_when_the_check_accepts_it(checked: Checked) -> None:
    device = checked.device
    checked.publish(TREE)
    device.run_ok("update", DATABASE)
    device.mark(DATABASE).touch()
    root = checked.publish({**TREE, "a": b"refuse"})
    assert device.run("update", DATABASE).status == REFUSED
    checked.hook.unlink()
    device.run_ok("fix", DATABASE)
    trees.assert_same(root, device.installed(DATABASE))
    assert not device.mark(DATABASE).exists()
    assert not (STATUS / DATABASE / "refused.json").exists()


def test_a_newer_version_than_the_refused_one_is_tried(checked: Checked) -> None:
    checked.publish(TREE)
    checked.device.run_ok("update", DATABASE)
    checked.publish({**TREE, "a": b"refuse"})
    assert checked.device.run("update").status == REFUSED
    root = checked.publish({**TREE, "a": b"good again"})
    checked.device.run_ok("update")
    assert checked.device.version(DATABASE) == 3
    trees.assert_same(root, checked.device.installed(DATABASE))


def test_a_refusal_keeps_no_other_database_from_its_update(checked: Checked, publisher: Publisher, tmp_path: Path) -> None:
    device = checked.device
    checked.publish({"a": b"refuse"})
    publisher.publish(trees.write_tree(tmp_path / "other", {"a": b"good"}), OTHER, "--level", "1")
    device.add_database(OTHER)
    device.forget_document()
    result = device.run("update", "--json")
    assert result.status == REFUSED
    entries = {entry["id"]: entry for entry in json.loads(result.stdout)}
    assert entries[DATABASE]["result"] == "refused"
    assert entries[DATABASE]["exit_status"] == REFUSED
    assert "3 of 5 is bad" in entries[DATABASE]["error"]
    assert entries[OTHER]["result"] == "installed"


def test_a_fix_asks_the_check_as_well_and_a_forced_install_does_not(checked: Checked) -> None:
    device = checked.device
    checked.publish(TREE)
    device.run_ok("update", DATABASE)
    checked.publish({**TREE, "a": b"refuse"})
    (device.installed(DATABASE) / "sub/b").write_bytes(b"damaged")
    before = checked.tree()
    result = device.run("fix", DATABASE)
    assert result.status == REFUSED
    assert "3 of 5 is bad" in result.stderr
    assert checked.tree() == before
    asked = len(checked.checks())
    assert device.run("fix", DATABASE).status == REFUSED
    assert len(checked.checks()) == asked + 1
    assert device.run("update", DATABASE).status == REFUSED
    assert len(checked.checks()) == asked + 1
    device.run_ok("force-install", DATABASE, "0")
    assert (device.installed(DATABASE) / "a").read_bytes() == b"refuse"
    assert len(checked.checks()) == asked + 1


@pytest.mark.parametrize(("ending", "reason"), [("kill -SEGV $$", "signal 11"), ("exec /nonexistent", "status 127")])
def test_only_a_verdict_is_remembered(checked: Checked, ending: str, reason: str) -> None:
    checked.hook.unlink()
    hook = checked.device.add_hook("10-broken", f"#!/bin/sh\n{ending} 2>/dev/null\n", VALIDATE)
    checked.publish(TREE)
    result = checked.device.run("update", DATABASE)
    assert reason in result.stderr
    assert checked.device.version(DATABASE) is None
    assert result.status == (1 if "signal" in reason else REFUSED)
    hook.unlink()
    assert checked.device.run("update", DATABASE).status == (0 if "signal" in reason else REFUSED)


def test_a_hook_that_others_may_write_lets_nothing_pass(checked: Checked) -> None:
    checked.publish(TREE)
    checked.hook.chmod(0o777)
    result = checked.device.run("update", DATABASE)
    assert result.status == 1
    assert "not trusted" in result.stderr
    assert checked.checks() == []
    assert checked.device.version(DATABASE) is None


def test_a_check_holds_no_reader_off_and_ends_with_the_update(checked: Checked, tmp_path: Path) -> None:
    checked.publish(TREE)
    checked.device.run_ok("update", DATABASE)
    pid = tmp_path / "pid"
    checked.device.add_hook("20-slow", f"#!/bin/sh\necho $$ > {pid}.new; mv {pid}.new {pid}\nexec sleep 600\n", VALIDATE)
    checked.publish({**TREE, "a": b"second"})
    running = checked.device.start("update", DATABASE)
    waiting.until(pid.exists, "the check did not begin")
    checked.device.run_ok("read", "--timeout", "0", DATABASE, "--", "true")
    hook = int(pid.read_text())
    begin = time.monotonic()
    os.kill(running.pid, signal.SIGTERM)
    running.wait()
    assert time.monotonic() - begin < 60
    with pytest.raises(ProcessLookupError):
        os.kill(hook, 0)
    assert checked.leftovers() == []
    assert checked.device.version(DATABASE) == 1
    assert not (STATUS / DATABASE / "refused.json").exists()


def test_what_a_check_leaves_and_writes_does_no_harm(checked: Checked) -> None:
    checked.device.add_hook("20-loud", "#!/bin/sh\nhead -c 3000000 /dev/zero\nhead -c 3000000 /dev/zero >&2\nexit 0\n", VALIDATE)
    checked.publish(TREE)
    checked.device.run_ok("update", DATABASE)


def test_without_such_hooks_nothing_is_said_of_them(connected: Device, publisher: Publisher, tmp_path: Path) -> None:
    publisher.publish(trees.write_tree(tmp_path / "tree", TREE), DATABASE, "--level", "1")
    result = connected.run_ok("update", DATABASE, "--verbose")
    assert "check" not in result.stderr.replace("database_autoupdate", "")


def test_hooks_about_the_volume_run_around_a_move_with_both_paths(
    device: Device, volumes: Volumes, tmp_path: Path
) -> None:
    old = device.volume
    assert old is not None
    new = volumes.make("directory")
    device.list_volumes(old, new)
    file = old / "@database/autoupdate" / DATABASE / "a"
    file.parent.mkdir(parents=True)
    file.write_bytes(b"content")
    seen = tmp_path / "seen"
    device.add_hook("10-look", f'#!/bin/sh\necho "$1 $FROM $TO $FROM_VOLUME $TO_VOLUME" >> {seen}\nls -d "$FROM/{DATABASE}" "$TO/{DATABASE}" >> {seen}\n', VOLUME_CHANGE)
    device.run_ok("volume", "unmounting", str(old))
    below = "@database/autoupdate"
    paths = f"{old}/{below} {new}/{below} {old} {new}"
    assert seen.read_text().splitlines() == [f"pre {paths}", f"{old}/{below}/{DATABASE}", f"post {paths}", f"{new}/{below}/{DATABASE}"]


def test_a_hook_about_the_volume_stops_no_move_and_hears_of_none_that_does_not_happen(
    device: Device, volumes: Volumes, tmp_path: Path
) -> None:
    old = device.volume
    assert old is not None
    ran = tmp_path / "ran"
    device.add_hook("10-fails", f"#!/bin/sh\necho $1 >> {ran}\nexit 1\n", VOLUME_CHANGE)
    device.run_ok("volume", "unmounting", str(old))
    assert not ran.exists()
    device.run_ok("volume", "mounted", str(old))
    new = volumes.make("directory")
    device.list_volumes(old, new)
    (old / "@database/autoupdate").mkdir(parents=True, exist_ok=True)
    moved = json.loads(device.run_ok("volume", "unmounting", str(old), "--json").stdout)
    assert (moved["result"], moved["volume"]) == ("moved", str(new))
    assert ran.read_text().split() == ["pre", "post"]
