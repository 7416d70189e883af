"""Volumes that come and go: the databases move on real file systems, and whatever stops them, they are not lost."""

from __future__ import annotations

import json
import os
import random
import re
import shlex
import shutil
import subprocess
import time
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest
from harness import programs, readers, trees, waiting
from harness.device import DATABASE, RUN, STATUS, Device
from harness.documents import Document
from harness.publisher import Publisher
from harness.syslog import Syslog
from harness.volumes import MIB, Volumes, may_mount
from harness.webserver import Nginx

SIZES = {"ext4": 64 * MIB, "btrfs": 256 * MIB, "xfs": 320 * MIB}
MAIN = "@database/autoupdate"
MOVER = Path("/usr/bin/mv")
SOURCE = Path(__file__).resolve().parents[2]
DOCUMENT = Document(SOURCE / "docs/operations.md")
UNIT = SOURCE / "packaging/systemd/tarndbud-volume@.service"
HOOKS_OF_MOVES = "database_autoupdate/database_autoupdate/volume_change"
KILLS = 6

State = dict[str, tuple[int, int, int, str]]


def state(directory: Path) -> State:
    """Everything below a directory: its mode, time, size, and content or target."""
    found: State = {}
    for path in sorted(directory.rglob("*")):
        status = path.lstat()
        content = os.readlink(path) if path.is_symlink() else trees.digest(path) if path.is_file() else ""
        size = 0 if path.is_dir() else status.st_size
        found[str(path.relative_to(directory))] = (status.st_mode, status.st_mtime_ns, size, content)
    return found


class Databases:
    """A tree of several hundred files and an SQLite file, which is published and followed."""

    def __init__(self, root: Path, device: Device, publisher: Publisher) -> None:
        self.root = trees.write_random_tree(root, 1, count=300, size=2000)
        self._device = device
        self._publisher = publisher
        trees.write_database(root / "rows.sqlite", 2000)
        (root / "part000/file00000.bin").chmod(0o755)

    def publish(self) -> None:
        self._publisher.publish(self.root, DATABASE, keep_diffs=4)
        self._device.forget_document()

    def publish_next(self) -> None:
        path = self.root / "part001/file00020.bin"
        path.write_bytes(path.read_bytes() + b"appended")
        self.publish()

    def enlarge(self, size: int) -> None:
        source = random.Random(2)
        for number in range(size // MIB):
            (self.root / f"large{number:02}").write_bytes(source.randbytes(MIB))

    def assert_installed(self) -> None:
        """All of it on the volume in use, as the programs and their records see it, too."""
        volume = shown(self._device)
        assert volume is not None
        trees.assert_same(self.root, Path(volume, MAIN, DATABASE))
        self._device.run_ok("check", DATABASE)


def shown(device: Device) -> str | None:
    return json.loads(device.run_ok("volume", "show", "--json").stdout)["volume"]


def answer(device: Device, *arguments: str | Path) -> dict[str, object]:
    return json.loads(device.run_ok("volume", *map(str, arguments), "--json").stdout)


def install_on(device: Device, databases: Databases, volume: Path) -> None:
    """Takes a volume into use, lists all that there are, and installs."""
    device.use(volume)
    device.list_volumes()
    databases.publish()
    device.run_ok("update", DATABASE)


def assert_refused(device: Device, *arguments: str | Path) -> str:
    result = device.run(*map(str, arguments))
    assert result.status == 1, str(result)
    *others, sentence = result.stderr.splitlines()
    of_move = [line for line in others if line.startswith(("/bin/mv", "/usr/bin/mv"))]
    assert len(of_move) <= 5
    rest = [line for line in others if line not in of_move]
    assert all(re.fullmatch(r"tarndbudctl: \d+ more lines of mv are not shown\.", line) for line in rest), rest
    return "\n".join((*rest, sentence))


@pytest.fixture
def databases(connected: Device, publisher: Publisher, tmp_path: Path) -> Databases:
    return Databases(tmp_path / "tree", connected, publisher)


@pytest.fixture
def installed(connected: Device, databases: Databases) -> Databases:
    """Installed in the device's directory, which counts as a volume."""
    databases.publish()
    connected.run_ok("update", DATABASE)
    return databases


@pytest.fixture
def mover(tmp_path: Path) -> Iterator[Callable[[str], None]]:
    """Mounts a script over mv; it finds the real one as $real, and $1 and $2 are the directories.

    In a user namespace root's own file can be neither renamed nor written to.
    """
    if not may_mount():
        pytest.skip("needs a root of its own, to put something in the place of mv")
    real = MOVER.with_name("mv.real")
    shutil.copy(MOVER, real)
    double = tmp_path / "mv"

    def replace(script: str) -> None:
        double.write_text(f"#!/bin/sh\nreal={real}\n{script}\n")
        double.chmod(0o755)

    replace('exec $real "$@"')
    subprocess.run(["mount", "--bind", str(double), str(MOVER)], check=True)
    yield replace
    subprocess.run(["umount", str(MOVER)], check=True)
    real.unlink()


@pytest.mark.parametrize(("kind", "other_kind"), [("ext4", "xfs"), ("xfs", "btrfs"), ("btrfs", "ext4")])
def test_a_volume_that_goes_hands_its_databases_over(
    connected: Device, databases: Databases, volumes: Volumes, nginx: Nginx, kind: str, other_kind: str
) -> None:
    first, second = volumes.make(kind, SIZES[kind]), volumes.make(other_kind, SIZES[other_kind])
    install_on(connected, databases, first)
    # By hand, since packages bring files only.
    (first / MAIN / DATABASE / "link").symlink_to("rows.sqlite")
    (first / MAIN / DATABASE / "empty").mkdir(mode=0o750)
    before = state(first / MAIN)
    assert len(before) > 300
    assert answer(connected, "unmounting", first) == {"result": "moved", "volume": str(second)}
    assert not (first / MAIN).exists()
    volumes.unmount(first)
    assert state(second / MAIN) == before
    (second / MAIN / DATABASE / "link").unlink()
    connected.run_ok("check", DATABASE)
    databases.publish_next()
    connected.run_ok("update", DATABASE)
    assert nginx.packages() == ["v1", "d2"]
    databases.assert_installed()
    volumes.mount_again(first)
    assert answer(connected, "mounted", first) == {"result": "ignored", "volume": str(second)}
    databases.assert_installed()


@pytest.mark.parametrize("other", ["none", "too small", "read-only"])
def test_databases_stay_on_a_volume_that_goes_without_another_and_come_back_with_it(
    connected: Device, databases: Databases, volumes: Volumes, nginx: Nginx, other: str
) -> None:
    volume = volumes.make("ext4", SIZES["ext4"])
    install_on(connected, databases, volume)
    if other == "read-only":
        volumes.remount_read_only(volumes.make("ext4", SIZES["ext4"]))
    elif other == "too small":
        volumes.make("ext4", 16 * MIB)
        connected.add_database(DATABASE, reserve=20 * MIB)
    before = state(volume)
    assert answer(connected, "unmounting", volume) == {"result": "stayed", "volume": None}
    assert state(volume) == before
    volumes.unmount(volume)
    databases.publish_next()
    assert "There is no storage volume" in assert_refused(connected, "update", DATABASE)
    assert list(volume.iterdir()) == []
    volumes.mount_again(volume)
    fetched = nginx.packages()
    assert answer(connected, "mounted", volume) == {"result": "adopted", "volume": str(volume), "incomplete": []}
    assert nginx.packages() == fetched
    assert state(volume) == before
    connected.run_ok("update", DATABASE)
    databases.assert_installed()
    assert nginx.packages() == ["v1", "d2"]


def test_a_target_that_is_too_small_on_the_way_leaves_the_databases_where_they_were(
    connected: Device, databases: Databases, volumes: Volumes, nginx: Nginx, syslog: Syslog, tmp_path: Path
) -> None:
    databases.enlarge(12 * MIB)
    for number in range(300):
        (databases.root / f"small{number:03}").write_bytes(bytes([number % 256]) * 20000)
    first, small = volumes.make("ext4", 128 * MIB), volumes.make("ext4", 10 * MIB)
    install_on(connected, databases, first)
    before = state(first / MAIN)
    free = os.statvfs(small).f_bavail
    ran = tmp_path / "ran"
    journal = first / MAIN / DATABASE / "open.sqlite-wal"  # As a service has it that keeps a database open.
    journal.write_bytes(b"journal")
    script = f"#!/bin/sh\necho $1 >> {ran}\nrm {journal}\nexit 1\n"
    hook = connected.add_hook("10-fails", script, path=HOOKS_OF_MOVES)
    told = assert_refused(connected, "volume", "unmounting", first)
    hook.unlink()
    assert ran.read_text().split() == ["pre"], "after a move that failed no hook runs"
    assert any("A hook before the change of the volume failed" in text for _, text in syslog.lines())
    assert f'they are whole on {first}, and no volume is in use until "tarndbudctl volume mounted {first}"; ' in told
    hidden = re.search(r"(\d+) more lines of mv are not shown", told)
    assert hidden is not None
    assert int(hidden.group(1)) > 100
    after = state(first / MAIN)
    del before[DATABASE], after[DATABASE]  # The directory's time tells that the journal came and went.
    assert after == before
    assert not (small / MAIN).exists()
    assert os.statvfs(small).f_bavail >= free - 2
    volumes.unmount(first)
    volumes.mount_again(first)
    answer(connected, "mounted", first)
    databases.assert_installed()
    connected.run_ok("update", DATABASE)
    assert nginx.packages() == ["v1"], "it had not to be fetched again"
    volumes.unmount(small)
    third = volumes.make("ext4", 128 * MIB)
    assert answer(connected, "unmounting", first) == {"result": "moved", "volume": str(third)}
    databases.assert_installed()


@pytest.mark.parametrize("copied", ["nothing", "half"])
def test_a_target_that_turns_read_only_on_the_way_leaves_the_databases_where_they_were(
    connected: Device, installed: Databases, volumes: Volumes, mover: Callable[[str], None], copied: str
) -> None:
    first, second = connected.volume, volumes.make("ext4", SIZES["ext4"])
    assert first is not None
    half = f'mkdir "$2"; cp -a "$1/{DATABASE}/part000" "$2"\n' if copied == "half" else ""
    mover(f'{half}mount -o remount,ro {second}\nexec $real "$@"')
    before = state(first / MAIN)
    assert f"they are whole on {first}" in assert_refused(connected, "volume", "unmounting", first)
    assert state(first / MAIN) == before
    answer(connected, "mounted", first)
    installed.assert_installed()


def test_databases_leave_a_volume_that_has_turned_read_only(
    connected: Device, databases: Databases, volumes: Volumes
) -> None:
    first, second = volumes.make("ext4", SIZES["ext4"]), volumes.make("ext4", SIZES["ext4"])
    install_on(connected, databases, first)
    volumes.remount_read_only(first)
    before = state(first / MAIN)
    result = connected.run_ok("volume", "unmounting", str(first))
    assert "could not be deleted" in result.stdout
    assert state(second / MAIN) == before
    volumes.unmount(first)
    databases.publish_next()
    connected.run_ok("update", DATABASE)
    databases.assert_installed()
    assert shown(connected) == str(second)


def test_what_lies_in_the_place_of_the_databases_is_not_overwritten(
    connected: Device, installed: Databases, volumes: Volumes
) -> None:
    first, second = connected.volume, volumes.make("directory")
    assert first is not None
    connected.use(first, second)
    foreign = trees.write_tree(second / MAIN, {"theirs/file": b"kept"})
    before = state(first / MAIN)
    assert f"they are whole on {first}" in assert_refused(connected, "volume", "unmounting", first)
    trees.assert_holds(foreign, {"theirs/file": b"kept"})
    assert state(first / MAIN) == before
    connected.run_ok("volume", "mounted", str(first))
    installed.assert_installed()
    # As the document says.
    programs.run_ok("/bin/rm", "-rf", second / MAIN)
    (second / "@database").mkdir(exist_ok=True)
    (second / MAIN).write_text("a file is replaced")
    assert answer(connected, "unmounting", first) == {"result": "moved", "volume": str(second)}
    installed.assert_installed()


def test_a_move_waits_for_readers_and_updates_no_longer_than_told(
    connected: Device, installed: Databases, volumes: Volumes
) -> None:
    first, second = connected.volume, volumes.make("directory")
    assert first is not None
    connected.use(first, second)
    for lock, shared in ((f"using_{DATABASE}.lock", True), ("update_any.lock", False)):
        with connected.locked(lock, shared=shared):
            result = connected.run("volume", "unmounting", str(first), "--timeout", "0")
            assert result.status == 75, str(result)
            assert shown(connected) == str(first)
            installed.assert_installed()
            move = connected.start("volume", "unmounting", str(first))
            waiting.until(lambda lock=lock: waiting.has_open(move.pid, RUN / lock), "it waits")
            move.kill()
            move.wait()
    connected.run_ok("volume", "unmounting", str(first))
    installed.assert_installed()


def test_the_unit_of_a_volume_names_the_lock_again_and_again(
    connected: Device, installed: Databases, volumes: Volumes, tmp_path: Path
) -> None:
    first, second, journal = connected.volume, volumes.make("directory"), tmp_path / "journal"
    assert first is not None
    connected.use(first, second)
    command = UNIT.read_text().split("\nExecStop=")[1].split("\n#")[0].replace("\\\n", "").replace("$$", "$")
    assert "--timeout 10 " in command, "seconds for each try"
    stop = shlex.split(command.replace("--timeout 10 ", "--timeout 1 ").replace("%f", str(first)))
    with readers.reading(DATABASE):
        running = programs.Running(["/bin/sh", "-c", 'exec "$@" 2> "$0"', str(journal), *stop])
        line = f"Fail to lock {RUN}/using_{DATABASE}.lock"
        waiting.until(lambda: journal.exists() and journal.read_text().count(line) == 2, "two tries have ended")
        assert not running.has_ended()
        assert shown(connected) == str(first)
    assert running.wait().status == 0
    assert shown(connected) == str(second)
    installed.assert_installed()


def test_a_volume_that_is_mounted_while_databases_move_is_adopted_by_nobody(
    connected: Device, installed: Databases, volumes: Volumes, mover: Callable[[str], None], tmp_path: Path
) -> None:
    first, second, third = connected.volume, volumes.make("directory"), volumes.make("directory")
    assert first is not None
    connected.use(first, second, third)
    fifo = tmp_path / "gate"
    os.mkfifo(fifo)
    mover(f'read -r word < {fifo}\nexec $real "$@"')
    move = connected.start("volume", "unmounting", str(first))
    with fifo.open("w") as gate:  # returns once mv reads
        late = [connected.start("volume", "mounted", str(third)), connected.start("init")]
        for program in late:
            waiting.until(lambda p=program: waiting.has_open(p.pid, RUN / "update_any.lock"), "it waits")
        gate.write("go\n")
    assert move.wait().status == 0
    assert [program.wait().status for program in late] == [0, 0]
    assert shown(connected) == str(second)
    assert not (third / MAIN).exists()
    installed.assert_installed()


STAGES = {
    "before copying": "",
    "while copying": 'mkdir "$2"; cp -a "$1/{0}" "$2"; rm -r "$2"/{0}/rows.sqlite "$2"/{0}/part010\n'
    'for cut in "$2"/{0}/part00?/*7.bin; do truncate -s 1000 "$cut"; done',
    "before deleting": 'cp -a "$1" "$2"',
    "while deleting": 'cp -a "$1" "$2"; rm -r "$1"/{0}/part000 "$1"/{0}/rows.sqlite',
    "after deleting": 'cp -a "$1" "$2"; rm -r "$1"',
}


def finish_by_the_document(device: Device, first: Path, second: Path) -> None:
    """Follows the steps for a move that was killed, word by word."""
    script = DOCUMENT.code("sh", "After a killed move")
    assert "/volume1" in script
    # In one go, for the volumes here have such names themselves.
    names = {"/volume1": str(first), "/volume2": str(second), "zones": DATABASE}
    script = re.sub("|".join(names), lambda name: names[name[0]], script)
    programs.run_ok("/bin/bash", "-eu", "-c", script)
    assert shown(device) == str(second)


@pytest.mark.parametrize("stage", STAGES)
def test_a_move_killed_at_any_stage_is_finished_by_the_documents_steps(
    connected: Device, installed: Databases, volumes: Volumes, mover: Callable[[str], None], nginx: Nginx, stage: str
) -> None:
    first, second = connected.volume, volumes.make("tmpfs", SIZES["ext4"])
    assert first is not None
    connected.use(first, second)
    mover(f"{STAGES[stage].format(DATABASE)}\nkill -KILL $PPID\nexec sleep 60")
    assert connected.run("volume", "unmounting", str(first)).status == -9
    assert shown(connected) is None
    mover('exec $real "$@"')
    finish_by_the_document(connected, first, second)
    assert not (first / MAIN).exists()
    installed.assert_installed()
    assert nginx.packages() == ["v1", "v1"], "once more, since nobody knows that it is whole"
    installed.publish_next()
    connected.run_ok("update", DATABASE)
    installed.assert_installed()


def test_an_update_after_a_killed_move_needs_no_steps_at_all(
    connected: Device, installed: Databases, volumes: Volumes, mover: Callable[[str], None]
) -> None:
    first, second = connected.volume, volumes.make("tmpfs", SIZES["ext4"])
    assert first is not None
    connected.use(first, second)
    mover(f'{STAGES["while copying"].format(DATABASE)}\nkill -KILL $PPID\nexec sleep 60')
    connected.run("volume", "unmounting", str(first))
    connected.list_volumes(second)  # The first is gone.
    assert f"installed again by the next update: {DATABASE}" in connected.run_ok("init").stdout
    assert shown(connected) == str(second)
    connected.run_ok("update", DATABASE)
    installed.assert_installed()
    assert not connected.mark(DATABASE).exists()


def test_a_move_killed_at_random_moments_loses_nothing(
    connected: Device, installed: Databases, volumes: Volumes
) -> None:
    seed = int(os.environ.get("TARN_SEED", random.SystemRandom().randrange(1 << 32)))
    print(f"TARN_SEED={seed}")
    source = random.Random(seed)
    first, second = connected.volume, volumes.make("tmpfs", SIZES["ext4"])
    assert first is not None
    for _ in range(KILLS):
        assert list(second.glob(f"{MAIN}/*")) == [], "nothing is left of the move before"
        connected.use(first, second)
        move = connected.start("volume", "unmounting", str(first))
        while not (connected.mark(DATABASE).exists() and (second / MAIN).exists()) and not move.has_ended():
            pass
        time.sleep(source.uniform(0, 0.03))
        move.kill()
        move.wait()
        if shown(connected) is None:
            finish_by_the_document(connected, first, second)
        assert shown(connected) == str(second)
        connected.run_ok("update", DATABASE)
        installed.assert_installed()
        first, second = second, first


def test_nothing_of_a_killed_move_goes_on_moving(
    connected: Device, installed: Databases, volumes: Volumes, mover: Callable[[str], None], tmp_path: Path
) -> None:
    first, second = connected.volume, volumes.make("directory")
    assert first is not None
    connected.use(first, second)
    told = tmp_path / "told"
    os.mkfifo(told)
    mover(f"echo $$ > {told}\nexec sleep 60")
    move = connected.start("volume", "unmounting", str(first))
    mover_id = int(told.read_text())
    move.kill()
    move.wait()
    waiting.until(lambda: not Path(f"/proc/{mover_id}").exists(), "mv has ended, too")


def test_a_volume_that_vanished_is_not_written_below_its_mount_point(
    connected: Device, databases: Databases, volumes: Volumes
) -> None:
    first = volumes.make("ext4", SIZES["ext4"])
    install_on(connected, databases, first)
    volumes.unmount(first, lazily=True)
    databases.publish_next()
    for command in ("update", "fix", "force-install"):
        told = assert_refused(connected, command, DATABASE, *["0"] * (command == "force-install"))
        assert f"The volume {first} is in use, but is not available" in told
    assert list(first.iterdir()) == []
    assert "not available" in connected.run_ok("volume", "show").stdout
    volumes.mount_again(first)
    connected.run_ok("update", DATABASE)
    databases.assert_installed()


def test_a_volume_that_vanished_can_be_given_up_for_another(
    connected: Device, databases: Databases, volumes: Volumes, nginx: Nginx
) -> None:
    first, second = volumes.make("ext4", SIZES["ext4"]), volumes.make("ext4", SIZES["ext4"])
    install_on(connected, databases, first)
    volumes.unmount(first, lazily=True)
    assert answer(connected, "unmounting", first) == {"result": "given up", "volume": None}
    assert list(first.iterdir()) == []
    result = json.loads(connected.run_ok("init", "--json").stdout)
    assert result == {"volume": str(second), "incomplete": [DATABASE]}
    assert connected.run("check", DATABASE).status == 4
    connected.run_ok("update", DATABASE)
    databases.assert_installed()
    assert nginx.packages() == ["v1", "v1"]
