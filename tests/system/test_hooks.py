"""Hooks: what reaches them, and what they cannot break."""

from __future__ import annotations

import os
import signal
from pathlib import Path

import pytest
from harness import programs, trees
from harness.device import DATABASE, Device
from harness.publisher import Publisher

SERVICE = Path(__file__).resolve().parents[2] / "packaging/systemd/tarndbud-update.service"
LIMITS = "^(NoNewPrivs|CapBnd):"
LOCKS = ("update_any.lock", f"update_{DATABASE}.lock", f"using_{DATABASE}.lock", "fresh_info.lock", "config.lock")


def read_arguments(path: Path) -> dict[str, str]:
    pairs = path.read_bytes().rstrip(b"\0").split(b"\0")
    return dict(pair.decode().split("=", 1) for pair in pairs)


def test_hooks_run_around_the_replacement_and_are_told_what_changes(
    connected: Device, publisher: Publisher, tmp_path: Path
) -> None:
    publisher.publish(trees.write_tree(tmp_path / "tree", {"a": b"first"}), DATABASE)
    connected.run_ok("update", DATABASE)
    publisher.publish(trees.write_tree(tmp_path / "tree", {"a": b"second", "b": b"new"}), DATABASE)
    connected.forget_document()
    seen = tmp_path / "seen"
    seen.mkdir()
    installed = connected.installed(DATABASE)
    connected.add_hook("10-look", f"#!/bin/sh\ncat {installed}/a > {seen}/$1\ncat > {seen}/arguments\n")
    connected.run_ok("update", DATABASE)
    assert (seen / "pre").read_bytes() == b"first"
    assert (seen / "post").read_bytes() == b"second"
    arguments = read_arguments(seen / "arguments")
    assert arguments["DATABASE"] == DATABASE
    assert set(arguments["CHANGED_FILES"].split(arguments["DELIMITER"])) == {f"{installed}/a", f"{installed}/b"}


def test_a_change_of_50000_files_reaches_a_hook_whole(connected: Device, publisher: Publisher, tmp_path: Path) -> None:
    names = {f"directory-number-{n % 250:03}/a-file-with-a-rather-long-name-{n:05}.dat" for n in range(50000)}
    publisher.publish(trees.write_tree(tmp_path / "tree", dict.fromkeys(names, b"x")), DATABASE)
    told = tmp_path / "told"
    connected.add_hook("10-keep", f'#!/bin/sh\n[ "$1" = post ] && cat > {told}\nexit 0\n')
    connected.run_ok("update", DATABASE)
    assert told.stat().st_size > 3_000_000
    installed = connected.installed(DATABASE)
    assert set(read_arguments(told)["CHANGED_FILES"].split(":")) == {f"{installed}/{name}" for name in names}


def test_a_daemon_left_behind_by_a_hook_keeps_nothing_locked(
    connected: Device, publisher: Publisher, tmp_path: Path
) -> None:
    publisher.publish(trees.write_tree(tmp_path / "tree", {"a": b"first"}), DATABASE)
    pid_file = tmp_path / "pid"
    connected.add_hook("10-daemon", f'#!/bin/sh\n[ "$1" = post ] || exit 0\nsetsid sleep 600 &\necho $! > {pid_file}\n')
    connected.run_ok("update", DATABASE)
    daemon = int(pid_file.read_text())
    try:
        assert Path(f"/proc/{daemon}").exists()
        assert [name for name in LOCKS if connected.is_locked(name)] == []
        descriptors = {str(entry.readlink()) for entry in Path(f"/proc/{daemon}/fd").iterdir()}
        assert descriptors <= {"/dev/null", f"/proc/{daemon}/fd"}, descriptors
    finally:
        os.kill(daemon, signal.SIGKILL)


@pytest.mark.parametrize("ending", ["exit 1", "kill -KILL $$"])
def test_a_hook_that_fails_does_not_stop_the_update(
    connected: Device, publisher: Publisher, tmp_path: Path, ending: str
) -> None:
    tree = trees.write_tree(tmp_path / "tree", {"a": b"first"})
    publisher.publish(tree, DATABASE)
    ran = tmp_path / "ran"
    connected.add_hook("10-fails", f"#!/bin/sh\n{ending}\n")
    connected.add_hook("20-runs", f"#!/bin/sh\necho $1 >> {ran}\n")
    connected.run_ok("update", DATABASE)
    trees.assert_same(tree, connected.installed(DATABASE))
    assert ran.read_text().split() == ["pre", "post"]


def test_a_hook_that_others_may_write_is_not_run(connected: Device, publisher: Publisher, tmp_path: Path) -> None:
    tree = trees.write_tree(tmp_path / "tree", {"a": b"first"})
    publisher.publish(tree, DATABASE)
    ran = tmp_path / "ran"
    hook = connected.add_hook("10-writable", f"#!/bin/sh\necho $1 >> {ran}\n")
    hook.chmod(0o777)
    connected.run_ok("update", DATABASE)
    assert not ran.exists()
    hook.chmod(0o755)
    publisher.publish(tree, DATABASE)
    connected.forget_document()
    connected.run_ok("update", DATABASE)
    assert ran.read_text().split() == ["pre", "post"]


def test_a_hook_has_the_limits_of_the_service(connected: Device, publisher: Publisher, tmp_path: Path) -> None:
    publisher.publish(trees.write_tree(tmp_path / "tree", {"a": b"first"}), DATABASE)
    lines = SERVICE.read_text().splitlines()
    assert {"NoNewPrivileges=yes", "PrivateTmp=yes", "PrivateDevices=yes"} <= set(lines)
    (kept,) = (line.split("=")[1].split() for line in lines if line.startswith("CapabilityBoundingSet="))
    bounds = ",".join(["-all", *("+" + name.removeprefix("CAP_").lower() for name in kept)])
    limited = ("setpriv", "--no-new-privs", "--bounding-set", bounds)
    known = programs.run(*limited, "grep", "-E", LIMITS, "/proc/self/status")
    if known.status != 0:
        pytest.skip(f"needs to give rights up: {known.stderr}")
    expected = dict(line.split(":\t") for line in known.stdout.splitlines())
    assert expected["NoNewPrivs"] == "1"
    assert 0 < int(expected["CapBnd"], 16).bit_count() <= len(kept)
    connected.add_hook("10-tell", f"#!/bin/sh\ngrep -E '{LIMITS}' /proc/self/status > {tmp_path}/$1\n")
    programs.run_ok(*limited, programs.CTL, "update", DATABASE)
    assert [(tmp_path / argument).read_text() for argument in ("pre", "post")] == [known.stdout] * 2
