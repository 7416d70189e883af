"""Other users of the machine, a caller's umask and a caller's working directory: none decides what is installed."""

from __future__ import annotations

import json
import shlex
import shutil
import stat
from collections.abc import Callable
from pathlib import Path

import pytest
from harness import programs, trees, users
from harness.device import CACHE, DATABASE, ROOT_DATABASE, RUN, STATUS, Device
from harness.publisher import Publisher
from harness.volumes import MIB, Volumes
from harness.webserver import Nginx

SIZE = 64 * MIB
WRITABLE = "can be written by its group or by others"
OPERATIONS = [("update", DATABASE), ("fix", DATABASE), ("force-install", DATABASE, "0")]


def as_other(script: str) -> programs.Result:
    """Runs a shell's script as an ordinary user."""
    return users.run_as_other("/bin/sh", "-c", script)


def plant(script: str) -> None:
    result = as_other(script)
    assert result.status == 0, str(result)


def below(directory: Path) -> dict[str, str]:
    """What lies below a directory, with the owners."""
    return {str(path.relative_to(directory)): str(path.lstat().st_uid) for path in sorted(directory.rglob("*"))}


def assert_refused(device: Device, place: Path, reason: str) -> None:
    """Nothing that changes a database does so, and each says why."""
    for operation in OPERATIONS:
        result = device.run(*operation)
        assert result.status == 1, str(result)
        assert f"{place} {reason}, so nothing was changed" in result.stderr
        assert len(result.stderr.splitlines()) == 1
    assert device.status(DATABASE)["volume_problem"] == f"{place} {reason}"
    assert f"not safe: {place} {reason}" in device.run_ok("volume", "show").stdout


@pytest.fixture(params=["directory", "ext4"])
def offered(
    request: pytest.FixtureRequest, connected: Device, publisher: Publisher, volumes: Volumes, tmp_path: Path
) -> Device:
    """A device on a volume of either kind, and a version to install on it."""
    publisher.publish(trees.write_random_tree(tmp_path / "tree", 1, count=30, size=1000), DATABASE)
    if request.param != "directory":
        connected.volume = volumes.make(request.param, SIZE)
        connected.list_volumes()
        connected.configure()
    return connected


def test_nothing_is_installed_through_a_temporary_area_that_others_made(offered: Device) -> None:
    assert offered.volume is not None
    offered.volume.chmod(0o1777)
    plant(f"mkdir -p {offered.temporary()}/{DATABASE}_full && echo unsigned > {offered.temporary()}/{DATABASE}_full/x")
    assert_refused(offered, offered.volume, WRITABLE)
    offered.volume.chmod(0o755)
    before = below(offered.temporary())
    assert_refused(offered, offered.volume / "@tmp", "belongs to another user")
    assert below(offered.temporary()) == before
    assert not offered.installed(DATABASE).exists()
    shutil.rmtree(offered.volume / "@tmp")
    offered.run_ok("update", DATABASE)
    offered.run_ok("check", DATABASE)


@pytest.mark.parametrize("name", ["@tmp", "@tmp/data_update", "@database", "@database/autoupdate"])
def test_a_planted_link_leads_to_nothing_being_emptied_or_made_elsewhere(
    offered: Device, tmp_path: Path, name: str
) -> None:
    assert offered.volume is not None
    offered.volume.chmod(0o1777)
    victim = tmp_path / "victim"
    for directory in (DATABASE, f"autoupdate/{DATABASE}", f"data_update/{DATABASE}_full", f"{DATABASE}_full"):
        trees.write_tree(victim / directory, {"precious": b"precious"})
    before = below(victim)
    if "/" in name:
        (offered.volume / name).parent.mkdir()
        (offered.volume / name).parent.chmod(0o1777)
    plant(f"ln -s {victim} {offered.volume / name}")
    offered.volume.chmod(0o755)
    if "/" in name:
        (offered.volume / name).parent.chmod(0o755)
    assert_refused(offered, offered.volume / name, "is a link")
    assert below(victim) == before


def test_a_volume_that_is_opened_later_is_not_written_to_until_it_is_shut(offered: Device) -> None:
    assert offered.volume is not None
    offered.run_ok("update", DATABASE)
    before = below(offered.volume)
    assert "volume_problem" not in offered.status(DATABASE)
    for mode in (0o777, 0o1777, 0o775):
        offered.volume.chmod(mode)
        assert_refused(offered, offered.volume, WRITABLE)
    assert below(offered.volume) == before
    offered.volume.chmod(0o755)
    offered.run_ok("update", DATABASE)
    offered.run_ok("fix", DATABASE)


def test_a_database_on_the_root_file_system_is_not_unpacked_on_an_open_volume(
    connected: Device, publisher: Publisher, tmp_path: Path
) -> None:
    assert connected.volume is not None
    tree = trees.write_tree(tmp_path / "tree", {"a": b"a"})
    publisher.publish(tree, ROOT_DATABASE)
    connected.add_database(ROOT_DATABASE, on_root=True)
    connected.volume.chmod(0o777)
    result = connected.run("update", ROOT_DATABASE)
    assert (result.status, WRITABLE in result.stderr) == (1, True), str(result)
    assert not connected.installed(ROOT_DATABASE).exists()
    connected.volume.chmod(0o755)
    connected.run_ok("update", ROOT_DATABASE)
    trees.assert_same(tree, connected.installed(ROOT_DATABASE))


def test_an_open_volume_is_not_chosen_adopted_or_moved_to(
    connected: Device, publisher: Publisher, volumes: Volumes, tmp_path: Path
) -> None:
    shut = connected.volume
    assert shut is not None
    opened = volumes.make("directory")
    opened.chmod(0o1777)
    connected.list_volumes(opened, patterns=("/nothing*",))
    connected.volume = None
    connected.configure()
    init = connected.run("init")
    assert init.status == 1, str(init)
    assert f"{opened} {WRITABLE}" in init.stderr
    adopted = json.loads(connected.run_ok("volume", "mounted", str(opened), "--json").stdout)
    assert adopted == {"result": "unsuitable", "volume": None, "problem": f"{opened} {WRITABLE}"}
    connected.list_volumes(opened, shut, patterns=("/nothing*",))
    assert json.loads(connected.run_ok("init", "--json").stdout)["volume"] == str(shut)
    publisher.publish(trees.write_tree(tmp_path / "tree", {"a": b"a"}), DATABASE)
    connected.volume = shut
    connected.run_ok("update", DATABASE)
    moved = connected.run_ok("volume", "unmounting", str(shut))
    assert f"What is not safe is not used: {opened} {WRITABLE}" in moved.stdout
    assert list(opened.iterdir()) == []
    trees.assert_same(tmp_path / "tree", connected.installed(DATABASE))


def test_databases_leave_no_volume_on_which_others_write(connected: Device, volumes: Volumes) -> None:
    assert connected.volume is not None
    other = volumes.make("directory")
    connected.list_volumes(connected.volume, other)
    trees.write_tree(connected.volume / "@database/autoupdate" / DATABASE, {"planted": b""})
    (connected.volume / "@database").chmod(0o777)
    result = connected.run("volume", "unmounting", str(connected.volume))
    assert result.status == 1, str(result)
    assert f"{connected.volume}/@database {WRITABLE}" in result.stderr
    assert list(other.iterdir()) == []
    assert connected.status(DATABASE)["volume"] == str(connected.volume)


def test_an_ordinary_user_can_hold_the_readers_locks_and_no_other(
    connected: Device, publisher: Publisher, tmp_path: Path
) -> None:
    publisher.publish(trees.write_tree(tmp_path / "tree", {"a": b"a"}), DATABASE)
    RUN.mkdir(parents=True, exist_ok=True)
    RUN.chmod(0o755)
    earlier = RUN / f"update_{DATABASE}.lock"
    earlier.touch()
    earlier.chmod(0o644)
    connected.run_ok("update", DATABASE)
    readers = {f"using_{DATABASE}.lock"}
    assert {path.name for path in RUN.iterdir()} - readers >= {
        "update_any.lock", "fresh_info.lock", "config.lock", f"update_{DATABASE}.lock",
    }  # fmt: skip
    for path in RUN.iterdir():
        held = as_other(f"flock --nonblock {path} true")
        assert (held.status == 0) == (path.name in readers), str(held)
    assert as_other(f"{programs.CTL} read {DATABASE} -- cat {connected.installed(DATABASE)}/a").stdout == "a"
    assert as_other(f"{programs.CTL} volume show").status == 0
    for command in ("status", "metrics", "check"):
        refused = as_other(f"{programs.CTL} {command}")
        assert (refused.status, "must be run as root" in refused.stderr) == (1, True), str(refused)


def test_lock_files_that_others_could_have_made_are_refused(connected: Device) -> None:
    connected.run_ok("status", DATABASE)
    RUN.chmod(0o1777)
    result = connected.run("status", DATABASE)
    assert (result.status, f"{RUN} {WRITABLE}" in result.stderr) == (1, True), str(result)
    (RUN / "config.lock").unlink()
    plant(f": > {RUN}/config.lock")
    RUN.chmod(0o755)
    result = connected.run("status", DATABASE)
    assert (result.status, f"{RUN}/config.lock is no file of root's" in result.stderr) == (1, True), str(result)


def modes_below(*roots: Path) -> dict[Path, int]:
    """The permission bits of all that lies below directories, and of these."""
    found = {root: root for root in roots} | {path: path for root in roots for path in root.rglob("*")}
    return {path: stat.S_IMODE(path.lstat().st_mode) for path in found if not path.is_symlink()}


@pytest.mark.parametrize("mask", ["000", "077"])
def test_the_callers_umask_decides_nothing(
    connected: Device, publisher: Publisher, tmp_path: Path, mask: str
) -> None:
    assert connected.volume is not None
    seen = tmp_path / "hook"
    connected.add_hook("10-umask", f"#!/bin/sh\numask >> {seen}\n")
    tree = trees.write_random_tree(tmp_path / "tree", 1, count=30, size=1000)
    publisher.publish(tree, DATABASE, keep_diffs=3)
    for directory in (RUN, STATUS, CACHE):
        shutil.rmtree(directory, ignore_errors=True)

    def run(*arguments: str) -> None:
        programs.run_ok("/bin/sh", "-c", f"umask {mask}; exec {shlex.join((programs.CTL, *arguments))}")

    run("init")
    run("update")
    (tree / "new").mkdir()
    (tree / "new/file").write_bytes(b"new")
    publisher.publish(tree, DATABASE, keep_diffs=3)
    connected.forget_document()
    run("update")
    run("schedule", DATABASE, "on")
    run("metrics", "--output", str(tmp_path / "metrics"))
    for path, mode in modes_below(RUN, STATUS, CACHE, connected.volume).items():
        assert mode & 0o022 == 0, f"{path} {mode:o}"
        expected = 0o755 if path.is_dir() else 0o600 if path.suffix == ".lock" and "using" not in path.name else 0o644
        assert mode == expected, f"{path} {mode:o}"
    assert set(seen.read_text().split()) == {"0022"}
    read = programs.run_ok("/bin/sh", "-c", f"umask {mask}; {programs.CTL} read {DATABASE} -- sh -c umask")
    assert read.stdout == f"0{mask}\n"
    installed = connected.installed(DATABASE)
    assert as_other(f"{programs.CTL} read {DATABASE} -- cat {installed}/new/file").stdout == "new"


@pytest.mark.parametrize("mask", ["000", "077"])
def test_the_publishers_umask_keeps_no_web_server_out(publisher: Publisher, tmp_path: Path, mask: str) -> None:
    tree = trees.write_tree(tmp_path / "tree", {"a": b"a" * 5000})
    repository = tmp_path / "new"
    for content in (b"a", b"b"):
        (tree / "a").write_bytes(content * 5000)
        arguments = [
            programs.PUB, "publish", str(tree), "--repo", str(repository), "--id", DATABASE,
            "--key", str(publisher.private_key), "--url", "http://127.0.0.1",
        ]  # fmt: skip
        programs.run_ok("/bin/sh", "-c", f"umask {mask}; exec {shlex.join(arguments)}")
    published = modes_below(repository / "database_info", repository / "packages") | {repository: repository.stat().st_mode}
    assert len(published) >= 5
    for path, mode in published.items():
        assert mode & 0o022 == 0, f"{path} {mode:o}"
        assert mode & 0o005 == (0o005 if path.is_dir() else 0o004), f"{path} {mode:o}"


@pytest.fixture
def nowhere(tmp_path: Path) -> Callable[..., None]:
    """Runs the administrator's program in a working directory that has been removed."""

    def run(*arguments: str) -> None:
        lost = tmp_path / "lost"
        programs.run_ok(
            "/bin/sh", "-c", f"mkdir {lost} && cd {lost} && rmdir {lost} && exec {shlex.join((programs.CTL, *arguments))}"
        )

    return run


def test_a_working_directory_that_was_removed_is_not_needed(
    connected: Device, publisher: Publisher, nginx: Nginx, tmp_path: Path, nowhere: Callable[..., None]
) -> None:
    assert connected.volume is not None
    tree = trees.write_random_tree(tmp_path / "tree", 1, count=30, size=1000)
    nowhere("init")
    publisher.publish(tree, DATABASE, keep_diffs=3)
    nowhere("update", DATABASE)
    trees.assert_same(tree, connected.installed(DATABASE))
    (tree / "part000/file00000.bin").write_bytes(b"changed")
    publisher.publish(tree, DATABASE, keep_diffs=3)
    connected.forget_document()
    nowhere("update", DATABASE)
    trees.assert_same(tree, connected.installed(DATABASE))
    assert nginx.packages() == ["v1", "d2"]
    (connected.installed(DATABASE) / "part000/file00000.bin").write_bytes(b"damaged")
    nowhere("fix", DATABASE)
    nowhere("check", DATABASE)
    nowhere("force-install", DATABASE, "0")
    for command in ("status", "metrics", "refresh"):
        nowhere(command)
    trees.assert_same(tree, connected.installed(DATABASE))
