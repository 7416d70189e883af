"""Channels as publishers, web servers and devices use them: publish, promote, roll out, prune and check."""

from __future__ import annotations

import fcntl
import hashlib
import http.client
import json
import re
import signal
from collections.abc import Iterator
from pathlib import Path

import pytest
from harness import programs, trees, users, waiting
from harness.device import DATABASE, Device
from harness.publisher import Publisher
from harness.terminal import OnTerminal
from harness.webserver import Nginx

SOURCE = Path(__file__).resolve().parents[2]
DEVICES = 20_000
SERVED = "#try_files $tarndbud_document"
RELOADS = Path("/proc/self/setgroups").read_text().strip() == "allow"
PROXIED = "#rewrite ^ $tarndbud_document"


def promote(publisher: Publisher, name: str, source: str = "canary", target: str = "1") -> programs.Result:
    return programs.run(
        programs.PUB, "promote", name, "--repo", publisher.repository, "--from", source, "--to", target,
        "--key", publisher.public_key,
    )  # fmt: skip


def check(publisher: Publisher, *options: str | Path) -> programs.Result:
    return programs.run(programs.PUB, "check-repo", "--repo", publisher.repository, *options)


def prune(publisher: Publisher, *options: str) -> programs.Result:
    return programs.run_ok(programs.PUB, "prune", "--repo", publisher.repository, *options)


class Versions:
    """A tree that is published again and again, changed a little each time."""

    def __init__(self, publisher: Publisher, tree: Path) -> None:
        self._publisher = publisher
        self.tree = trees.write_random_tree(tree, 7, count=4, size=60_000)
        self._number = 0

    def publish(self, channel: str, name: str = DATABASE, keep_diffs: int = 9) -> None:
        self._number += 1
        (self.tree / "number").write_text(f"{self._number}\n")
        self._publisher.publish(self.tree, name, "--channel", channel, "--level", "1", keep_diffs=keep_diffs)


@pytest.fixture
def versions(publisher: Publisher, tmp_path: Path) -> Versions:
    return Versions(publisher, tmp_path / "tree")


def test_a_device_follows_the_channel_of_its_setting(
    connected: Device, publisher: Publisher, nginx: Nginx, versions: Versions
) -> None:
    versions.publish("1")
    connected.update(DATABASE)
    versions.publish("canary")
    connected.update(DATABASE)
    assert connected.version(DATABASE) == 1
    connected.set("db_ver", "canary")
    connected.update(DATABASE)
    assert connected.version(DATABASE) == 2
    trees.assert_same(versions.tree, connected.installed(DATABASE))
    assert promote(publisher, DATABASE).status == 0
    versions.publish("1")
    connected.set("db_ver", "1")
    connected.update(DATABASE)
    assert connected.version(DATABASE) == 3
    trees.assert_same(versions.tree, connected.installed(DATABASE))
    assert nginx.packages() == ["v1", "d2", "d3"]


def test_devices_of_the_target_take_the_promoted_versions_by_diff_packages(
    connected: Device, publisher: Publisher, nginx: Nginx, versions: Versions
) -> None:
    versions.publish("1")
    connected.update(DATABASE)
    for _ in range(3):
        versions.publish("canary")
    promoted = programs.run_ok(
        programs.PUB, "promote", DATABASE, "--repo", publisher.repository, "--from", "canary", "--key",
        publisher.public_key, "--json",
    )  # fmt: skip
    assert json.loads(promoted.stdout) == {
        "id": DATABASE, "from_document": "canary", "to_document": "1", "data_version": 4, "before": 1, "is_changed": True, "has_chain": True,
    }  # fmt: skip
    connected.update(DATABASE)
    assert nginx.packages() == ["v1", "d2", "d3", "d4"]
    trees.assert_same(versions.tree, connected.installed(DATABASE))


def test_what_devices_could_not_take_is_not_promoted(publisher: Publisher, versions: Versions) -> None:
    versions.publish("1")
    versions.publish("canary")
    before = publisher.document.read_bytes()
    publisher.package(DATABASE, 2).unlink()
    publisher.package(DATABASE, 2).with_name(f"{DATABASE}_d2.tarn").write_bytes(b"damaged")
    refused = promote(publisher, DATABASE)
    assert refused.status == 1
    assert f"{DATABASE}_d2.tarn" in refused.stderr and f"{DATABASE}_v2.tarn" in refused.stderr
    assert publisher.document.read_bytes() == before


class RolloutServer(Nginx):
    """The update server's example with its line for rollouts, and the file that tarndbudpub writes."""

    def __init__(self, directory: Path, home: Path) -> None:
        home.mkdir()
        self.conf = home / "tarndbud-rollout.conf"
        self.roll_out("0")
        super().__init__(SOURCE / "packaging/nginx/tarndbud.conf", directory, home)

    def _server_block(self, template: str, directory: Path) -> str:
        return with_rollout(super()._server_block(template, directory), SERVED, self.conf)

    def _frame(self) -> str:
        """Only a master reloads well; its workers change their user, which some namespaces forbid."""
        return super()._frame().replace("master_process off;", "") if RELOADS else super()._frame()

    def _workers(self) -> set[str]:
        pid = self._process.pid
        return set(Path(f"/proc/{pid}/task/{pid}/children").read_text().split())

    def roll_out(self, percent: str, *options: str | Path) -> None:
        programs.run_ok(programs.PUB, "rollout", "canary", percent, "--conf", self.conf, *options)

    def reload(self) -> None:
        """Returns when all connections get the new settings."""
        if not RELOADS:
            self.close()
            self._start()
            return
        before = self._workers()
        self._process.send_signal(signal.SIGHUP)
        waiting.until(lambda: self._workers() and not self._workers() & before, "nginx reads its settings again")


def with_rollout(block: str, line: str, conf: Path) -> str:
    assert block.count(line) == 1
    return f"include {conf};\n" + block.replace(line, line.removeprefix("#"))


def device_ids() -> list[str]:
    return [hashlib.sha256(str(number).encode()).hexdigest()[:32] for number in range(DEVICES)]


def documents_of(server: Nginx, ids: list[str]) -> list[bytes]:
    """What each device gets, asked for as devices ask."""
    connection = http.client.HTTPConnection(server.netloc, timeout=60)
    answers = []
    for device in ids:
        connection.request("GET", f"/database_info/1?os=orv&dlid={device}&db_list%5B{DATABASE}%5D=1")
        response = connection.getresponse()
        assert response.status == 200
        answers.append(response.read())
    connection.close()
    return answers


@pytest.fixture
def rollout(publisher: Publisher, versions: Versions, tmp_path: Path) -> Iterator[RolloutServer]:
    server = RolloutServer(publisher.repository, tmp_path / "rollout")
    publisher.base = server.url
    versions.publish("1")
    versions.publish("canary")
    yield server
    server.close()


def canary_devices(publisher: Publisher, server: Nginx, ids: list[str]) -> set[str]:
    default, canary = publisher.document.read_bytes(), publisher.document.with_name("canary").read_bytes()
    answers = documents_of(server, ids)
    assert set(answers) <= {default, canary}
    return {device for device, answer in zip(ids, answers, strict=True) if answer == canary}


def test_a_rollout_reaches_its_share_of_devices_and_goes_back(publisher: Publisher, rollout: RolloutServer) -> None:
    ids = device_ids()
    assert canary_devices(publisher, rollout, ids[:500]) == set()
    reached: list[set[str]] = []
    for percent in ("5", "33.33"):
        rollout.roll_out(percent, "--repo", publisher.repository)
        rollout.reload()
        reached.append(canary_devices(publisher, rollout, ids))
        assert abs(100 * len(reached[-1]) / DEVICES - float(percent)) < 1
    assert reached[0] < reached[1]
    some = ids[:1000]
    assert canary_devices(publisher, rollout, some) == reached[1] & set(some)
    rollout.roll_out("100")
    rollout.reload()
    assert canary_devices(publisher, rollout, some) == set(some)
    rollout.roll_out("0")
    rollout.reload()
    assert canary_devices(publisher, rollout, some) == set()


def test_who_gives_no_id_and_who_asks_for_another_document_gets_that(
    publisher: Publisher, rollout: RolloutServer
) -> None:
    rollout.roll_out("99.99")
    rollout.reload()
    connection = http.client.HTTPConnection(rollout.netloc, timeout=60)
    default, canary = publisher.document.read_bytes(), publisher.document.with_name("canary").read_bytes()
    (publisher.repository / "database_info/11").write_bytes(b"another")
    wanted = {
        "/database_info/1": default, "/database_info/1?os=orv&dlid=": default, "/database_info/1?dlid=x": canary,
        "/database_info/canary?dlid=x": canary, "/database_info/11?dlid=x": b"another",
    }  # fmt: skip
    for path, content in wanted.items():
        connection.request("GET", path)
        response = connection.getresponse()
        assert (response.status, response.read()) == (200, content), path
        assert response.headers["Cache-Control"] == "no-cache"
        assert response.headers["Content-Type"] == "application/json"
    connection.close()


def test_a_real_device_is_on_the_side_that_its_own_request_gives_it(
    device: Device, publisher: Publisher, rollout: RolloutServer
) -> None:
    device.netloc = rollout.netloc
    device.configure()
    device.update(DATABASE)
    assert device.version(DATABASE) == 1
    request = next(line for line in rollout.requests() if "/database_info/1?" in line)
    asked = re.search(r"[?&]dlid=([0-9a-f]{32})&", request)
    assert asked, request
    for percent in ("50", "99.99"):
        rollout.roll_out(percent)
        rollout.reload()
        device.update(DATABASE)
        expected = 2 if canary_devices(publisher, rollout, [asked[1]]) else 1
        assert device.version(DATABASE) == expected
    assert device.version(DATABASE) == 2
    rollout.roll_out("0")
    rollout.reload()
    device.forget_document()
    back = device.run("update", DATABASE)
    assert back.status == 5, "what is installed is above what is offered"
    assert device.version(DATABASE) == 2, "devices never go back by themselves"


class RolloutProxy(Nginx):
    """The proxy's example with its line for rollouts, in front of an update server without any."""

    def __init__(self, origin: Nginx, home: Path, conf: Path) -> None:
        self._origin = origin
        self._conf = conf
        super().__init__(SOURCE / "packaging/nginx/tarndbud-cache.conf", home / "cache", home)

    def _server_block(self, template: str, directory: Path) -> str:
        block = re.sub(r"listen \S+;", f"listen {self.netloc};", template)
        block = re.sub(r"proxy_pass \S+;", f"proxy_pass {self._origin.url};", block)
        block = re.sub(r"proxy_cache_path \S+", f"proxy_cache_path {directory}", block)
        return with_rollout(block.replace("200 10m", "200 3600s"), PROXIED, self._conf)


def test_the_caching_proxy_keeps_the_two_documents_apart(
    publisher: Publisher, nginx: Nginx, versions: Versions, tmp_path: Path
) -> None:
    versions.publish("1")
    versions.publish("canary")
    conf = tmp_path / "rollout.conf"
    programs.run_ok(programs.PUB, "rollout", "canary", "40", "--conf", conf)
    proxy = RolloutProxy(nginx, tmp_path / "proxy", conf)
    try:
        ids = device_ids()[:2000]
        first = canary_devices(publisher, proxy, ids)
        assert 0.3 < len(first) / len(ids) < 0.5
        assert canary_devices(publisher, proxy, ids) == first
        asked = [line.split()[2] for line in nginx.requests()]
        assert sorted(asked) == ["/database_info/1", "/database_info/canary"], "each once, and without an id"
    finally:
        proxy.close()


def test_the_shipped_rollout_file_is_what_the_command_writes(tmp_path: Path) -> None:
    conf = tmp_path / "tarndbud-rollout.conf"
    programs.run_ok(programs.PUB, "rollout", "canary", "0", "--conf", conf)
    shipped = Path("/usr/share/tarndbudpub/nginx/tarndbud-rollout.conf")
    assert conf.read_text() == shipped.read_text()
    assert conf.read_text().startswith("# Made by tarndbudpub rollout")


def test_a_pruned_repository_serves_devices_that_are_behind_and_goes_on(
    connected: Device, publisher: Publisher, nginx: Nginx, versions: Versions
) -> None:
    for _ in range(3):
        versions.publish("1", keep_diffs=2)
    connected.update(DATABASE)
    for _ in range(2):
        versions.publish("1", keep_diffs=2)
    dry = json.loads(prune(publisher, "--dry-run", "--json").stdout)
    sizes = {path: path.stat().st_size for path in (publisher.package(DATABASE, version) for version in (1, 2))}
    assert {item["path"]: item["bytes"] for item in dry["files"]} == {str(path): size for path, size in sizes.items()}
    assert dry["bytes"] == sum(sizes.values())
    assert f"Removed 2 files, {dry['bytes']} bytes." in prune(publisher, DATABASE).stdout
    assert not any(path.exists() for path in sizes)
    connected.update(DATABASE)
    assert connected.version(DATABASE) == 5
    versions.publish("1", keep_diffs=2)
    connected.update(DATABASE)
    assert nginx.packages() == ["v3", "d4", "d5", "d6"]
    trees.assert_same(versions.tree, connected.installed(DATABASE))
    assert check(publisher, "--key", publisher.public_key).status == 0


def test_prune_waits_for_a_publisher(publisher: Publisher, versions: Versions) -> None:
    for _ in range(3):
        versions.publish("1", keep_diffs=0)
    with (publisher.repository / ".tarndbudpub.lock").open() as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        terminal = OnTerminal(programs.PUB, "prune", "--repo", publisher.repository)
        terminal.read_until("Waiting for another publisher of this repository.")
        assert publisher.package(DATABASE, 1).exists()
    assert terminal.wait() == 0
    assert not publisher.package(DATABASE, 1).exists()


def test_check_repo_tells_a_monitor_what_is_wrong(publisher: Publisher, versions: Versions) -> None:
    versions.publish("1")
    versions.publish("canary")
    whole = json.loads(check(publisher, "--key", publisher.public_key, "--json").stdout)
    assert (whole["status"], whole["documents"], whole["packages"], whole["problems"]) == ("ok", 2, 3, [])
    assert whole["signatures_checked"]
    (publisher.repository / f"packages/{DATABASE}/notes").write_text("mine")
    untidy = check(publisher, "--json")
    assert untidy.status == 4
    assert json.loads(untidy.stdout)["status"] == "untidy"
    package = publisher.package(DATABASE, 1)
    content = bytearray(package.read_bytes())
    content[-1] ^= 1
    package.write_bytes(content)
    assert check(publisher).status == 4, "without a key only heads are read"
    broken = check(publisher, "--key", publisher.public_key)
    assert broken.status == 3
    assert f"broken: database_info/1, {DATABASE}: the package {package} " in broken.stdout
    assert check(publisher, "--key", publisher.private_key.with_suffix(".none")).status == 1


def test_check_repo_needs_no_right_to_write_and_little_memory(publisher: Publisher, tmp_path: Path) -> None:
    tree = trees.write_random_tree(tmp_path / "large", 3, count=2, size=100_000_000)
    publisher.publish(tree, DATABASE, "--level", "1")
    before = sorted(path.stat().st_mtime_ns for path in publisher.repository.rglob("*"))
    result, peak = programs.peak_memory(
        programs.PUB, "check-repo", "--repo", publisher.repository, "--key", publisher.public_key
    )
    assert result.status == 0, str(result)
    assert peak < 64 * 1024
    assert sorted(path.stat().st_mtime_ns for path in publisher.repository.rglob("*")) == before


def test_check_repo_may_be_run_by_who_cannot_write(publisher: Publisher, versions: Versions, tmp_path: Path) -> None:
    versions.publish("1")
    repository = publisher.repository
    before = trees.contents(repository)
    # By relative names, because other users cannot go the way to the directory of this test.
    names = [str(path.relative_to(tmp_path)) for path in (repository, publisher.public_key)]
    tmp_path.chmod(0o755)
    command = [programs.PUB, "check-repo", "--repo", names[0], "--key", names[1]]
    with (repository / ".tarndbudpub.lock").open("a") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        result = users.run_as_other(*command, cwd=tmp_path)
    assert result.status == 0, str(result)
    assert result.stdout.startswith("ok: 1 document, 1 package ")
    assert trees.contents(repository) == before


def test_check_repo_shows_progress_on_a_terminal_alone(publisher: Publisher, versions: Versions) -> None:
    versions.publish("1")
    terminal = OnTerminal(programs.PUB, "check-repo", "--repo", publisher.repository)
    assert terminal.wait() == 0
    assert "checking packages" in terminal.shown
    assert check(publisher).stderr == ""
