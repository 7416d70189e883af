"""A repository is carried to a store on other machines: what devices find there, whenever that ends."""

from __future__ import annotations

import json
import os
import random
import shutil
import subprocess
import threading
import time
import urllib.request
from collections.abc import Iterator
from pathlib import Path

import pytest
from harness import programs, trees, waiting
from harness.davstore import Cut, DavStore, Way
from harness.device import DATABASE, STATUS, Device
from harness.publisher import Publisher
from harness.terminal import OnTerminal

SOURCE = Path(__file__).resolve().parents[2]
KEPT = 30
PATIENCE = 600


class Carrying:
    """A repository, a store, and everything that was ever published."""

    def __init__(self, publisher: Publisher, store: DavStore, tree: Path) -> None:
        self.publisher = publisher
        self.store = store
        self.tree = tree
        self.published: dict[str, str] = {}
        publisher.base = store.url

    def publish(self, text: str, *options: str, keep: int = KEPT) -> None:
        bulk = {f"file{number}": random.Random(number).randbytes(20_000) for number in range(5)}
        content = bulk | {"word": text.encode()}
        trees.write_tree(self.tree, content)
        self.publisher.publish(self.tree, DATABASE, "--level", "1", *options, keep_diffs=keep)
        self.remember()

    def remember(self) -> None:
        self.published |= trees.served(self.publisher.repository)

    def command(self, *options: str) -> list[str]:
        return [programs.MIRROR, "--repo", str(self.publisher.repository), "store:", *options]

    def mirror(self, *options: str) -> programs.Result:
        return programs.run(*self.command(*options), env=self.store.environment(), patience=PATIENCE)

    def mirror_ok(self, *options: str) -> dict[str, object]:
        result = self.mirror("--json", *options)
        assert result.status == 0, str(result)
        return json.loads(result.stdout)

    def assert_same(self) -> None:
        """The store serves what the repository serves, and holds nothing else."""
        assert trees.contents(self.store.directory) == trees.served(self.publisher.repository)

    def assert_whole(self, when: object) -> None:
        """Every document at the store is one that was published, and every package that it names is there."""
        for document in (self.store.directory / "database_info").glob("*"):
            for link in links(json.loads(document.read_text())):
                name = link.removeprefix(f"{self.store.url}/")
                package = self.store.directory / name
                assert package.exists(), f"{when}: {document.name} names {name}, which is not there"
                waiting.until(lambda name=name: name in self.published, f"{name} is known")
                assert trees.digest(package) == self.published[name], f"{when}: {name} is another package"


def links(document: dict[str, dict[str, dict[str, object]]]) -> list[str]:
    found = []
    for entry in document["db_list"].values():
        found.append(str(entry["download_link"]))
        found += [str(diff["download_link"]) for diff in entry.get("diff_files", {}).values()]
    return found


@pytest.fixture
def store(tmp_path: Path) -> Iterator[DavStore]:
    made = DavStore(SOURCE / "packaging/nginx/tarndbud.conf", tmp_path / "store", tmp_path / "dav")
    yield made
    made.close()


@pytest.fixture
def carrying(publisher: Publisher, store: DavStore, tmp_path: Path) -> Carrying:
    return Carrying(publisher, store, tmp_path / "tree")


@pytest.fixture
def reader(device: Device, store: DavStore) -> Device:
    """A device whose server is the store."""
    device.netloc = store.netloc
    device.configure()
    return device


@pytest.fixture
def way(store: DavStore) -> Iterator[Way]:
    made = Way(store.writing)
    yield made
    made.close()


def test_devices_update_from_the_store(carrying: Carrying, reader: Device, store: DavStore) -> None:
    carrying.publish("one")
    first = carrying.mirror_ok()
    assert first["carried"] == [f"packages/{DATABASE}/{DATABASE}_v1.tarn"]
    assert first["written"] == ["database_info/1"]
    assert first["bytes"] == carrying.publisher.package(DATABASE, 1).stat().st_size
    carrying.assert_same()
    reader.update(DATABASE)
    carrying.publish("two")
    carrying.mirror_ok()
    carrying.assert_same()
    reader.update(DATABASE)
    assert store.packages() == ["v1", "d2"]
    trees.assert_same(carrying.tree, reader.installed(DATABASE))


def test_what_is_there_is_not_carried_again(carrying: Carrying, way: Way) -> None:
    carrying.publish("one")
    carrying.mirror_ok()
    before = {path: path.stat().st_mtime_ns for path in carrying.store.directory.rglob("*")}
    again = carrying.mirror_ok()
    assert (again["carried"], again["written"], again["deleted"]) == ([], [], [])
    assert (again["unchanged_packages"], again["unchanged_documents"], again["rounds"]) == (1, 1, 1)
    assert before == {path: path.stat().st_mtime_ns for path in carrying.store.directory.rglob("*")}


def test_a_package_of_its_size_and_another_content_is_found_by_comparing(carrying: Carrying) -> None:
    carrying.publish("one")
    carrying.publish("two")
    carrying.mirror_ok()
    name = f"packages/{DATABASE}/{DATABASE}_v1.tarn"
    damaged = carrying.store.directory / name
    damaged.write_bytes(bytes(damaged.stat().st_size))
    assert carrying.mirror_ok()["carried"] == []
    assert carrying.mirror_ok("--compare", "--dry-run")["carried"] == [name]
    repaired = carrying.mirror_ok("--compare")
    assert (repaired["carried"], repaired["unchanged_packages"]) == ([name], 2)
    carrying.assert_same()
    assert carrying.mirror_ok("--compare")["carried"] == []


def test_what_a_killed_web_server_left_is_no_document_and_is_deleted(carrying: Carrying) -> None:
    carrying.publish("one")
    carrying.mirror_ok()
    drafts = ["database_info/1.0000000012", f"packages/{DATABASE}/{DATABASE}_v1.tarn.0000000011"]
    for name in drafts:
        (carrying.store.directory / name).write_bytes(carrying.publisher.document.read_bytes()[:100])
    foreign = carrying.store.directory / f"packages/{DATABASE}/notes.0000000012"
    foreign.write_text("of somebody")
    assert carrying.mirror_ok()["deleted"] == drafts
    foreign.unlink()
    carrying.assert_same()


def test_a_document_of_the_same_size_is_carried(carrying: Carrying) -> None:
    carrying.publish("one", "--data-version", "1001", keep=0)
    carrying.mirror_ok()
    size = carrying.publisher.document.stat().st_size
    carrying.publish("two", keep=0)
    assert carrying.publisher.document.stat().st_size == size
    assert carrying.mirror_ok()["written"] == ["database_info/1"]
    carrying.assert_same()


def test_nothing_that_begins_with_a_dot_is_carried_or_deleted(carrying: Carrying) -> None:
    carrying.publish("one")
    carrying.publish("bad")
    carrying.publisher.withdraw(DATABASE, "--level", "1")
    carrying.remember()
    repository = carrying.publisher.repository
    for name in (".tarndbudpub-x.part", f"packages/{DATABASE}/.half.tarn", "database_info/.1.part", "packages/.x/y_v1.tarn"):
        (repository / name).parent.mkdir(exist_ok=True)
        (repository / name).write_text("half")
    assert list(repository.rglob(".withdrawn"))
    hidden = carrying.store.directory / "packages/.theirs"
    hidden.parent.mkdir()
    hidden.write_text("theirs")
    carrying.mirror_ok()
    assert hidden.read_text() == "theirs"
    hidden.unlink()
    carrying.assert_same()


def test_what_the_repository_drops_is_deleted_last(carrying: Carrying, way: Way) -> None:
    for text in ("one", "two", "three", "four"):
        carrying.publish(text)
    carrying.mirror_ok()
    foreign = carrying.store.directory / f"packages/{DATABASE}/notes.txt"
    foreign.write_text("not a package")
    carrying.publish("five", keep=1)
    programs.run_ok(programs.PUB, "prune", "--repo", carrying.publisher.repository)
    kept = carrying.mirror_ok("--no-delete")
    assert kept["deleted"] == []
    assert (carrying.store.directory / f"packages/{DATABASE}/{DATABASE}_d2.tarn").exists()
    way.begin(None)
    result = programs.run(*carrying.command("--json"), env=carrying.store.environment(way.netloc))
    assert result.status == 0, str(result)
    assert f"packages/{DATABASE}/{DATABASE}_d2.tarn" in json.loads(result.stdout)["deleted"]
    assert foreign.read_text() == "not a package"
    foreign.unlink()
    carrying.assert_same()
    carrying.publish("six", keep=1)
    way.begin(None)
    assert programs.run(*carrying.command(), env=carrying.store.environment(way.netloc)).status == 0
    kinds = [request.split("/")[0].strip() + request.split("/")[1] for request in way.seen if request[:3] in ("PUT", "DEL")]
    assert kinds == sorted(kinds, key=["PUTpackages", "PUTdatabase_info", "DELETEpackages"].index)
    assert kinds[-1] == "DELETEpackages"


def test_a_package_that_is_younger_here_is_carried_again(carrying: Carrying) -> None:
    carrying.publish("one")
    carrying.mirror_ok()
    name = f"packages/{DATABASE}/{DATABASE}_v1.tarn"
    (carrying.store.directory / name).write_bytes(b"x" * (carrying.store.directory / name).stat().st_size)
    assert carrying.mirror_ok()["carried"] == [], "contents are not compared"
    later = time.time() + 60
    os.utime(carrying.publisher.repository / name, (later, later))
    assert carrying.mirror_ok()["carried"] == [name]
    carrying.assert_same()


def test_a_damaged_package_at_the_store_is_replaced(carrying: Carrying) -> None:
    carrying.publish("one")
    carrying.mirror_ok()
    package = carrying.store.directory / f"packages/{DATABASE}/{DATABASE}_v1.tarn"
    package.write_bytes(package.read_bytes()[:-1])
    assert carrying.mirror_ok()["carried"] == [f"packages/{DATABASE}/{DATABASE}_v1.tarn"]
    carrying.assert_same()


def test_a_dry_run_changes_nothing(carrying: Carrying) -> None:
    carrying.publish("one")
    told = carrying.mirror_ok("--dry-run")
    assert (told["dry_run"], told["written"]) == (True, ["database_info/1"])
    assert list(carrying.store.directory.rglob("*")) == []
    carrying.publish("two")
    carrying.mirror_ok()
    before = trees.contents(carrying.store.directory)
    carrying.publish("three", keep=1)
    carrying.publish("four", keep=1)
    programs.run_ok(programs.PUB, "prune", "--repo", carrying.publisher.repository)
    told = carrying.mirror_ok("--dry-run")
    assert told["dry_run"]
    assert trees.contents(carrying.store.directory) == before
    done = carrying.mirror_ok()
    for what in ("carried", "written", "deleted"):
        assert told[what] == done[what] != [], what


@pytest.mark.parametrize(
    ("break_it", "word"),
    [
        (lambda repository: (repository / "database_info/1").write_text("{"), "database_info/1"),
        (lambda repository: (repository / "database_info/1").unlink(), "has no document"),
        (lambda repository: shutil.rmtree(repository / "database_info"), "database_info"),
        (lambda repository: next(repository.rglob("*_v2.tarn")).unlink(), f"{DATABASE}_v2.tarn"),
        (lambda repository: os.truncate(next(repository.rglob("*_d2.tarn")), 300), f"{DATABASE}_d2.tarn with the size"),
    ],
    ids=["damaged document", "no document", "no directory", "missing package", "diff package of another size"],
)
def test_a_broken_repository_leaves_the_store_as_it_is(
    carrying: Carrying, break_it: object, word: str
) -> None:
    carrying.publish("one")
    carrying.mirror_ok()
    before = trees.contents(carrying.store.directory)
    carrying.publish("two")
    break_it(carrying.publisher.repository)
    result = carrying.mirror()
    assert result.status == 3, str(result)
    assert word in result.stderr
    assert len(result.stderr.splitlines()) == 1
    assert trees.contents(carrying.store.directory) == before


def test_an_old_copy_of_the_repository_needs_to_be_forced(carrying: Carrying, tmp_path: Path) -> None:
    carrying.publish("one")
    old = tmp_path / "old"
    shutil.copytree(carrying.publisher.repository, old)
    carrying.publish("two")
    carrying.mirror_ok()
    before = trees.contents(carrying.store.directory)
    command = [programs.MIRROR, "--repo", str(old), "store:"]
    result = programs.run(*command, env=carrying.store.environment())
    assert result.status == 1, str(result)
    assert "names version 2" in result.stderr
    assert trees.contents(carrying.store.directory) == before
    assert programs.run(*command, "--force", env=carrying.store.environment()).status == 0
    assert trees.contents(carrying.store.directory) == trees.served(old)


def test_another_repository_needs_to_be_forced(carrying: Carrying, tmp_path: Path) -> None:
    carrying.publish("one")
    carrying.mirror_ok()
    before = trees.contents(carrying.store.directory)
    other = Publisher(tmp_path / "other")
    other.base = carrying.store.url
    command = [programs.MIRROR, "--repo", str(other.repository), "store:"]

    def assert_refused(word: str) -> None:
        result = programs.run(*command, env=carrying.store.environment())
        assert result.status == 1, str(result)
        assert word in result.stderr
        assert trees.contents(carrying.store.directory) == before

    other.publish(carrying.tree, "geo", "--db-version", "2")
    assert_refused("of database_info/1 at store:, the repository has no such document")
    other.publish(carrying.tree, "geo")
    assert_refused(f"it names version 1 of {DATABASE}, and no document of the repository does so")
    assert programs.run(*command, "--force", env=carrying.store.environment()).status == 0
    assert trees.contents(carrying.store.directory) == trees.served(other.repository)


@pytest.mark.parametrize(
    ("changes", "word"),
    [
        ({"RCLONE_CONFIG_STORE_URL": "http://127.0.0.1:9"}, "rclone failed with status"),
        ({"RCLONE_CONFIG_STORE_TYPE": "nonsense"}, "rclone failed with status"),
        ({"PATH": "/nonexistent"}, "rclone is not installed"),
        # Whatever makes rclone do nothing and say that all is well.
        ({"RCLONE_DRY_RUN": "true"}, "the store lacks"),
    ],
)
def test_a_store_that_does_not_work_is_told(carrying: Carrying, changes: dict[str, str], word: str) -> None:
    carrying.publish("one")
    result = programs.run(*carrying.command(), env=carrying.store.environment() | changes)
    assert result.status == 1, str(result)
    assert word in result.stderr
    assert len(result.stderr.splitlines()) == 1
    assert trees.contents(carrying.store.directory) == {}


def test_wrong_usage_is_refused(carrying: Carrying) -> None:
    for arguments in (["bucket"], [], ["store:", "--nonsense"]):
        command = [programs.MIRROR, "--repo", str(carrying.publisher.repository), *arguments]
        assert programs.run(*command).status == 2


def test_a_terminal_shows_progress(carrying: Carrying) -> None:
    carrying.publish("one")
    environment = [f"{name}={value}" for name, value in carrying.store.environment().items() if name.startswith("RCLONE")]
    terminal = OnTerminal("/usr/bin/env", *environment, *carrying.command())
    assert terminal.wait() == 0
    assert "carrying packages" in terminal.shown
    assert "writing documents" in terminal.shown


def prepare_sweep(carrying: Carrying, start: Path) -> None:
    """The store has versions 1 to 3, which is kept; the repository has what leads to 5, and no longer all of that."""
    for text in ("one", "two", "three"):
        carrying.publish(text)
    carrying.mirror_ok()
    shutil.copytree(carrying.store.directory, start)
    carrying.publish("four")
    carrying.publish("five", keep=2)
    programs.run_ok(programs.PUB, "prune", "--repo", carrying.publisher.repository)


def test_a_run_that_is_killed_at_any_change_leaves_what_devices_can_use(
    carrying: Carrying, way: Way, reader: Device, tmp_path: Path
) -> None:
    prepare_sweep(carrying, tmp_path / "start")
    assert not is_killed(carrying, way, reader, tmp_path / "start", Cut(0, "after"))
    # An end at a request that only reads is, to the store, one after the change before it.
    changes = list(way.changes)
    assert {"PUT", "DELETE"} <= set(changes)
    for number, method in enumerate(changes, 1):
        for moment in ("amid", "after") if method == "PUT" else ("after",):
            cut = Cut(number, moment)
            assert is_killed(carrying, way, reader, tmp_path / "start", cut), cut
            carrying.mirror_ok()
            carrying.assert_same()


def is_killed(carrying: Carrying, way: Way, reader: Device, start: Path, cut: Cut) -> bool:
    """Mirrors from the same beginning until the cut, and updates a device; whether the cut came."""
    shutil.rmtree(carrying.store.directory)
    shutil.copytree(start, carrying.store.directory)
    way.begin(cut)
    process = subprocess.Popen(
        carrying.command(), env=carrying.store.environment(way.netloc), stdout=subprocess.DEVNULL, stderr=subprocess.PIPE
    )
    way.pid = process.pid
    error = process.communicate(timeout=PATIENCE)[1].decode()
    assert process.returncode in (0, -9), f"{cut}: {error}"
    carrying.assert_whole(cut)
    shutil.rmtree(STATUS / DATABASE, ignore_errors=True)  # a device that has nothing yet
    reader.update(DATABASE)
    assert reader.version(DATABASE) in (3, 5), str(cut)
    return process.returncode == -9


def test_a_publisher_at_work_makes_no_mixture(carrying: Carrying, reader: Device, tmp_path: Path) -> None:
    carrying.publish("one")
    carrying.mirror_ok()
    reader.update(DATABASE)
    ended = threading.Event()
    failures: list[str] = []
    runs = 0

    def publish() -> None:
        try:
            for number in range(2, 30):
                if number > 6 and runs > 2:  # whichever of the two is faster here
                    break
                time.sleep(1)  # so that the mirror, which begins again when packages vanish, comes to an end
                carrying.publish(f"text {number}", keep=1)
                programs.run_ok(programs.PUB, "prune", "--repo", carrying.publisher.repository)
        except AssertionError as error:
            failures.append(str(error))
        finally:
            ended.set()

    thread = threading.Thread(target=publish)
    thread.start()
    while not ended.is_set():
        result = carrying.mirror("--json")
        assert result.status == 0, str(result)
        carrying.assert_whole(f"run {runs}")
        reader.update(DATABASE)
        runs += 1
    thread.join()
    assert failures == []
    assert runs > 1
    carrying.mirror_ok()
    carrying.assert_same()
    reader.update(DATABASE)
    trees.assert_same(carrying.tree, reader.installed(DATABASE))


@pytest.mark.parametrize("options", [[], ["--compare"]], ids=["carried", "compared"])
def test_a_package_that_is_removed_meanwhile_begins_another_round(
    carrying: Carrying, way: Way, options: list[str]
) -> None:
    for text in ("one", "two", "three"):
        carrying.publish(text)
    if options:
        carrying.mirror_ok()
    way.begin(None)
    way.hold = threading.Event()
    running = programs.Running(carrying.command("--json", *options), env=carrying.store.environment(way.netloc))
    waiting.until(lambda: bool(way.seen), "the store is asked")
    # What was to be carried or compared goes away, since the new document names it no longer.
    carrying.publish("four", keep=1)
    programs.run_ok(programs.PUB, "prune", "--repo", carrying.publisher.repository)
    way.hold.set()
    result = running.wait()
    assert result.status == 0, str(result)
    assert json.loads(result.stdout)["rounds"] == 2
    carrying.assert_same()


def test_two_runs_wait_for_each_other(carrying: Carrying, way: Way) -> None:
    carrying.publish("one")
    way.begin(None)
    way.hold = threading.Event()
    first = programs.Running(carrying.command(), env=carrying.store.environment(way.netloc))
    waiting.until(lambda: bool(way.seen), "the first run is at work")
    second = programs.Running(carrying.command("--json"), env=carrying.store.environment())
    documents = carrying.publisher.document.parent
    waiting.until(lambda: waiting.has_open(second.pid, documents), "the second run is there")
    way.hold.set()
    assert first.wait().status == 0
    result = second.wait()
    assert result.status == 0, str(result)
    assert "Waiting for another tarndbudpub-mirror" in result.stderr
    assert json.loads(result.stdout)["carried"] == []


def test_the_store_answers_as_the_repository_would(carrying: Carrying) -> None:
    carrying.publish("one")
    carrying.mirror_ok()
    with urllib.request.urlopen(f"{carrying.store.url}/database_info/1?os=orv&dlid=x", timeout=30) as answer:
        assert answer.headers["Cache-Control"] == "no-cache"
        assert answer.read() == carrying.publisher.document.read_bytes()


def test_types_and_cache_headers_are_sent_with_the_files(carrying: Carrying, way: Way) -> None:
    carrying.publish("one")
    way.begin(None)
    assert programs.run(*carrying.command(), env=carrying.store.environment(way.netloc)).status == 0
    sent = {request: headers for request, headers in way.sent if request.startswith("PUT")}
    package = sent[f"PUT /packages/{DATABASE}/{DATABASE}_v1.tarn"]
    document = sent["PUT /database_info/1"]
    assert (package["Content-Type"], document["Content-Type"]) == ("application/octet-stream", "application/json")
    assert package["Cache-Control"] == "public, max-age=31536000, immutable"
    assert document["Cache-Control"] == "no-cache"
