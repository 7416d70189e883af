"""Databases that come by a kit, to devices without a network."""

from __future__ import annotations

import fcntl
import json
import os
import random
import subprocess
from pathlib import Path

import pytest
from harness import kits, programs, readers, tracing, trees, users, volumes, waiting
from harness.device import CONFIGURATION, DATABASE, DEFAULTS, DOCUMENT, WGETRC, Device
from harness.documents import Document
from harness.publisher import Publisher
from harness.volumes import MIB, Volumes
from harness.walkthrough import Walkthrough
from harness.webserver import Nginx

OTHER = "geo"
TRACED = pytest.mark.skipif(not tracing.is_possible(), reason="other programs cannot be traced here")

Files = dict[str, bytes]

SAME: Files = {"same": random.Random(1).randbytes(60_000)}
"""Makes diff packages worth their while."""
VERSIONS: list[Files] = [
    {**SAME, "a": b"first " * 3000, "gone": b"only at first"},
    {**SAME, "a": b"first " * 2999 + b"second", "zones/new": b"of the second"},
    {**SAME, "a": b"first " * 2999 + b"thirds", "zones/new": b"of the third"},
]


def unplugged(*command: str) -> list[str]:
    """A command in a network where there is nothing, not even the loopback interface, where such can be made."""
    is_possible = subprocess.run(["unshare", "--net", "true"], capture_output=True).returncode == 0
    return ["unshare", "--net", *command] if is_possible else list(command)


def bring(kit: Path, *options: str) -> programs.Result:
    return programs.run(*unplugged(programs.CTL, "import", str(kit), *options))


def bring_ok(kit: Path, *options: str) -> programs.Result:
    result = bring(kit, *options)
    assert result.status == 0, str(result)
    return result


class Shop:
    """Publishes the versions, and puts them into kits."""

    def __init__(self, publisher: Publisher, home: Path) -> None:
        self.publisher = publisher
        self._home = home

    def publish(self, count: int, name: str = DATABASE) -> None:
        for files in VERSIONS[:count]:
            self.publish_one(files, name)

    def publish_one(self, files: Files, name: str = DATABASE) -> None:
        tree = trees.write_tree(self._home / "tree", files)
        self.publisher.publish(tree, name, "--level", "1", keep_diffs=9)

    def export(self, *options: str, name: str = DATABASE, file: str = "zones.kit") -> Path:
        kit = self._home / file
        programs.run_ok(
            programs.PUB, "export", name, kit, "--repo", self.publisher.repository,
            "--key", self.publisher.public_key, *options,
        )  # fmt: skip
        return kit


@pytest.fixture
def shop(publisher: Publisher, tmp_path: Path) -> Shop:
    return Shop(publisher, tmp_path)


@pytest.fixture
def older(connected: Device, shop: Shop) -> Device:
    """A device with the first version, while there are two more."""
    shop.publish(1)
    connected.update(DATABASE)
    for files in VERSIONS[1:]:
        shop.publish_one(files)
    return connected


def assert_installed(device: Device, version: int) -> None:
    assert device.version(DATABASE) == version
    trees.assert_holds(device.installed(DATABASE), VERSIONS[version - 1])
    assert not device.mark(DATABASE).exists()
    assert device.left_behind() == []
    device.run_ok("check", DATABASE)


def test_a_chain_leads_from_the_installed_version_and_the_network_is_not_asked(
    older: Device, shop: Shop, nginx: Nginx
) -> None:
    kit = shop.export("--from", "1")
    assert kits.packages(kit) == [f"{DATABASE}_d2.tarn", f"{DATABASE}_d3.tarn"]
    requests = nginx.requests()
    assert DOCUMENT.exists()
    assert bring_ok(kit).stdout == f"{DATABASE}: updated from version 1 to version 3\n"
    assert_installed(older, 3)
    assert nginx.requests() == requests
    assert not DOCUMENT.exists(), "it would tell for an hour that the device is above what is offered"
    assert bring_ok(kit).stdout == f"{DATABASE}: up to date, version 3\n"


def test_a_kit_is_a_tar_archive_whose_table_describes_every_part(shop: Shop, nginx: Nginx) -> None:
    shop.publish(3)
    shop.publish(1, OTHER)
    kit = shop.export("--from", "2", "--with-full", "--also", OTHER)
    members = kits.members(kit)
    parts = kits.table(kit)["parts"]
    assert isinstance(parts, list)
    assert [kits.TABLE] + [part["name"] for part in parts] == list(members)
    assert programs.run_ok("tar", "-tf", kit).stdout.splitlines() == list(members)
    assert [part["size"] for part in parts] == [len(members[part["name"]]) for part in parts]
    for part in parts:
        package = next(shop.publisher.repository.glob(f"packages/*/{part['name']}"), None)
        assert package is None or package.read_bytes() == members[part["name"]]
    document = json.loads(members[kits.DOCUMENT])
    assert document["db_list"][OTHER] == {**shop.publisher.entry(OTHER), "diff_files": {}}
    entry = shop.publisher.entry(DATABASE)
    assert document["db_list"][DATABASE] == {**entry, "diff_files": {"3": entry["diff_files"]["3"]}}  # type: ignore[index]
    content = [(kind, part["id"], part["data_version"], members[part["name"]])
               for part in parts for kind in [part["kind"]] if kind != "document"]  # fmt: skip
    rebuilt = kits.write(kit.with_suffix(".hand"), document, content)
    assert kits.members(rebuilt).keys() == members.keys()


def test_a_kit_made_by_the_document_is_installed(device: Device, shop: Shop) -> None:
    shop.publish(1)
    package = shop.publisher.package(DATABASE, 1)
    kit = kits.write(
        package.parent / "hand.kit",
        {"deprecated": False, "db_list": {DATABASE: shop.publisher.entry(DATABASE)}},
        [("full", DATABASE, 1, package.read_bytes())],
    )
    bring_ok(kit)
    assert_installed(device, 1)


def test_who_may_only_read_the_repository_makes_kits_while_a_version_is_published(shop: Shop, tmp_path: Path) -> None:
    shop.publish(1)
    own = tmp_path / "own"
    own.mkdir(mode=0o777)
    own.chmod(0o777)
    repository, key = (path.relative_to(tmp_path) for path in (shop.publisher.repository, shop.publisher.public_key))
    # By relative names, because other users cannot go the way to the directory of this test.
    tmp_path.chmod(0o755)
    command = [programs.PUB, "export", DATABASE, "own/zones.kit", "--repo", repository, "--key", key]
    with (shop.publisher.repository / ".tarndbudpub.lock").open("a") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        result = users.run_as_other(*command, cwd=tmp_path)
    assert result.status == 0, str(result)
    assert kits.packages(own / "zones.kit") == [f"{DATABASE}_v1.tarn"]


def test_the_full_package_serves_a_device_that_was_never_online(device: Device, shop: Shop) -> None:
    shop.publish(3)
    kit = shop.export()
    assert kits.packages(kit) == [f"{DATABASE}_v3.tarn"]
    assert json.loads(bring_ok(kit, DATABASE, "--json").stdout) == [
        {"id": DATABASE, "result": "installed", "version": 3}
    ]
    assert_installed(device, 3)
    assert not DOCUMENT.exists()
    recorded = json.loads(Path(f"/var/lib/data_update/{DATABASE}/last_run.json").read_text())
    assert (recorded["operation"], recorded["exit_status"]) == ("import", 0)


def test_a_device_without_a_servers_name_takes_a_kit(device: Device, shop: Shop) -> None:
    shop.publish(1)
    for settings in (CONFIGURATION, DEFAULTS):
        path = settings / "data_update.conf"
        content = json.loads(path.read_text())
        del content["config"]["db_netloc"]
        path.write_text(json.dumps(content))
    assert "db_netloc" in device.run("update", DATABASE).stderr
    bring_ok(shop.export(), DATABASE)
    assert_installed(device, 1)


def test_an_older_kit_changes_nothing_unless_it_is_forced(older: Device, shop: Shop, tmp_path: Path) -> None:
    kit = shop.export()
    bring_ok(kit)
    shop.publish_one({**SAME, "a": b"fourth"})
    bring_ok(shop.export(file="newest.kit"))
    ran = tmp_path / "ran"
    older.add_hook("10-tell", f'#!/bin/sh\necho "$1" >> {ran}\n')
    told = tmp_path / "told"
    older.add_hook(
        "10-check", f'#!/bin/sh\necho "$INSTALLED_VERSION to $VERSION" >> {told}\n',
        "database_autoupdate/database_autoupdate/validate",
    )  # fmt: skip
    refused = bring(kit)
    assert refused.status == 5, str(refused)
    assert refused.stdout == (
        f"{DATABASE}: installed 4 is above the kit's 3; nothing was changed. "
        '"import --force" installs the kit\'s version\n'
    )
    assert older.version(DATABASE) == 4
    assert not ran.exists()
    assert bring_ok(kit, "--force").stdout == f"{DATABASE}: went back from version 4 to version 3\n"
    assert_installed(older, 3)
    assert ran.read_text().split() == ["pre", "post"]
    assert told.read_text() == "4 to 3\n"
    assert bring_ok(kit, "--force").stdout == f"{DATABASE}: up to date, version 3\n"


def test_a_kit_whose_table_claims_another_version_or_database_installs_nothing(
    device: Device, shop: Shop, tmp_path: Path
) -> None:
    shop.publish(2)
    shop.publish(1, OTHER)
    entry = shop.publisher.entry(DATABASE)
    for version, source in ((7, shop.publisher.package(DATABASE, 1)), (2, shop.publisher.package(OTHER, 1))):
        offered = {**entry, "data_version": str(version), "diff_files": {}}
        kit = kits.write(
            tmp_path / f"lies{version}.kit",
            {"deprecated": False, "db_list": {DATABASE: offered}},
            [("full", DATABASE, version, source.read_bytes())],
        )
        result = bring(kit)
        assert result.status == 1, str(result)
        assert f"The kit {kit} holds another package than its document says" in result.stderr, str(result)
        assert device.version(DATABASE) is None


def test_a_kit_of_a_foreign_key_is_refused_by_its_name(older: Device, shop: Shop, tmp_path: Path) -> None:
    stranger = Shop(Publisher(tmp_path / "stranger", shop.publisher.base), tmp_path)
    stranger.publish(3)
    for options, reason in (((), "cannot be used"), (("--from", "1"), "holds a package that")):
        kit = stranger.export(*options, file="foreign.kit")
        result = bring(kit)
        assert result.status == 1, str(result)
        assert f"The kit {kit} {reason}" in result.stderr, str(result)
        assert_installed(older, 1)


def test_a_damaged_diff_package_is_made_up_for_by_the_full_one(older: Device, shop: Shop) -> None:
    kit = shop.export("--from", "1", "--with-full")
    kits.damage(kit, f"{DATABASE}_d3.tarn")
    bring_ok(kit)
    assert_installed(older, 3)


def test_a_damaged_or_cut_kit_is_told_by_name_and_changes_nothing(older: Device, shop: Shop) -> None:
    kit = shop.export("--from", "1")
    whole = kit.read_bytes()
    kits.damage(kit, f"{DATABASE}_d3.tarn")
    result = bring(kit)
    assert result.status == 1, str(result)
    assert f"The kit {kit} is damaged: {DATABASE}_d3.tarn is not what the table says" in result.stderr, str(result)
    assert "; nothing was changed, copy the kit again." in result.stderr, str(result)
    assert_installed(older, 1)
    for size in (0, 100, 700, len(whole) // 2, len(whole) - 1):
        kit.write_bytes(whole[:size])
        result = bring(kit)
        assert result.status == 1, str(result)
        assert f"The kit {kit} " in result.stderr, str(result)
        assert_installed(older, 1)
    assert ", so nothing was changed; copy the kit again." in result.stderr, str(result)
    kit.unlink()
    assert "cannot be opened" in bring(kit).stderr
    assert bring(kit.parent).status == 1, "a directory"
    os.mkfifo(kit)
    assert bring(kit).status == 1


def test_a_chain_that_does_not_fit_says_what_would(connected: Device, shop: Shop) -> None:
    shop.publish(3)
    result = bring(shop.export("--from", "2"))
    assert result.status == 1, str(result)
    assert f"has no full package of {DATABASE}, and its diff packages from version 2 to 3" in result.stderr
    assert connected.version(DATABASE) is None


def test_no_proxy_and_no_setting_of_the_downloader_comes_between(older: Device, shop: Shop, nginx: Nginx) -> None:
    kit = shop.export("--from", "1")
    requests = nginx.requests()
    WGETRC.write_text(f"use_proxy = on\nhttp_proxy = {nginx.url}\nhttps_proxy = {nginx.url}\nhttps_only = on\n")
    proxies = {name: nginx.url for name in ("http_proxy", "https_proxy", "HTTP_PROXY", "ALL_PROXY")}
    # In the machine's own network, where the proxy could be reached.
    result = programs.run(programs.CTL, "import", kit, env={**os.environ, **proxies})
    assert result.status == 0, str(result)
    assert nginx.requests() == requests
    assert_installed(older, 3)


def test_a_device_whose_server_must_speak_tls_takes_a_kit(older: Device, shop: Shop) -> None:
    older.scheme = "https"
    older.configure()
    bring_ok(shop.export())
    assert_installed(older, 3)


def test_readers_hold_an_import_off_and_hooks_run_around_it(older: Device, shop: Shop, tmp_path: Path) -> None:
    kit, ran = shop.export("--from", "1"), tmp_path / "ran"
    older.add_hook("10-tell", f'#!/bin/sh\necho "$1" >> {ran}\n')
    with readers.reading(DATABASE):
        running = older.start("import", str(kit))
        waiting.until(lambda: ran.exists() and ran.read_text() == "pre\n", "the first hook has run")
        lock = older.lock_path(f"using_{DATABASE}.lock")
        waiting.until(lambda: waiting.has_open(running.pid, lock), "the import waits for the reader")
        assert not running.has_ended()
        trees.assert_holds(older.installed(DATABASE), VERSIONS[0])
        assert older.run("import", str(kit), "--no-wait").status == 75
    result = running.wait()
    assert result.status == 0, str(result)
    assert ran.read_text().split() == ["pre", "post"]
    assert_installed(older, 3)


@TRACED
def test_an_import_that_was_killed_while_it_replaced_files_is_made_good_by_the_next(
    older: Device, shop: Shop, tmp_path: Path
) -> None:
    kit = shop.export("--from", "1", "--with-full")
    stopped = tracing.Stopped(tmp_path / "report", tracing.REPLACING, [programs.CTL, "import", str(kit)])
    assert older.mark(DATABASE).exists()
    stopped.kill()
    stopped.wait()
    bring_ok(kit)
    assert_installed(older, 3)


@TRACED
def test_an_unfinished_replacement_is_not_finished_by_an_older_kit_unless_forced(
    older: Device, shop: Shop, tmp_path: Path
) -> None:
    kit = shop.export()
    bring_ok(kit)
    shop.publish_one({**SAME, "a": b"fourth"})
    bring_ok(shop.export(file="newest.kit"))
    (older.installed(DATABASE) / "a").write_bytes(b"half")
    older.mark(DATABASE).touch()
    result = bring(kit)
    assert result.status == 5, str(result)
    assert "was not finished, and version 3 is older" in result.stderr, str(result)
    assert older.mark(DATABASE).exists()
    bring_ok(kit, "--force")
    assert_installed(older, 3)


@TRACED
def test_a_medium_that_fails_at_any_read_changes_nothing(older: Device, shop: Shop, tmp_path: Path) -> None:
    kit = shop.export("--from", "1")
    trial = [programs.CTL, "import", str(kit), "no-such-database"]
    reads = programs.run("strace", "-f", "-qq", "-P", kit, "-e", "trace=pread64", *trial).stderr.count("pread64(")
    assert reads >= 5, "the table and every header"
    told = 0
    for number in range(1, reads + 3):
        injection = f"inject=pread64:error=EIO:when={number}"
        result = programs.run(
            "strace", "-f", "-qq", "-o", tmp_path / "report", "-P", kit, "-e", injection, programs.CTL, "import", kit
        )
        assert result.status == 1, f"{number}: {result}"
        assert f"The kit {kit} cannot be read: Input/output error" in result.stderr, str(result)
        assert_installed(older, 1)
        told += 1
    assert told > reads
    bring_ok(kit)
    assert_installed(older, 3)


@pytest.mark.skipif(not volumes.may_mount(), reason="needs to mount")
def test_a_read_only_medium_is_enough_and_a_full_volume_is_told(
    device: Device, shop: Shop, volumes: Volumes, publisher: Publisher
) -> None:
    tree = trees.write_random_tree(publisher.repository.parent / "large", 3, count=12, size=MIB)
    publisher.publish(tree, DATABASE, "--level", "1")
    medium = volumes.make("tmpfs", 64 * MIB)
    kit = medium / "zones.kit"
    kit.write_bytes(shop.export().read_bytes())
    volumes.remount_read_only(medium)
    small = volumes.make("tmpfs", 8 * MIB)
    roomy, device.volume = device.volume, small
    assert roomy is not None
    device.list_volumes(small, roomy)
    device.configure()
    result = bring(kit)
    assert result.status == 1, str(result)
    assert "Disk space is too low" in result.stderr, str(result)
    assert device.left_behind() == []
    assert device.version(DATABASE) is None
    device.volume = roomy
    device.configure()
    bring_ok(kit)
    trees.assert_same(tree, device.installed(DATABASE))


def test_all_configured_databases_of_a_kit_come_and_no_others(device: Device, shop: Shop) -> None:
    shop.publish(1)
    shop.publish(2, OTHER)
    shop.publish(1, "unknown-here")
    both = shop.export("--also", OTHER, "--also", "unknown-here")
    device.add_database(OTHER, scheduled=False)
    assert bring_ok(both).stdout == f"{OTHER}: installed version 2\n{DATABASE}: installed version 1\n"
    assert bring(both, "unknown-here").status == 3
    only = shop.export(name="unknown-here", file="unknown.kit")
    result = bring(only)
    assert result.status == 3, str(result)
    assert f"The kit {only} is for unknown-here" in result.stderr
    result = bring(only, DATABASE)
    assert (result.status, f"has no package of {DATABASE}" in result.stderr) == (1, True), str(result)


def test_an_online_update_goes_on_after_an_import_and_the_other_way_round(
    older: Device, shop: Shop, nginx: Nginx
) -> None:
    bring_ok(shop.export("--from", "1"))
    shop.publish_one({**SAME, "a": b"fourth"})
    older.update(DATABASE)
    assert older.version(DATABASE) == 4
    assert nginx.packages()[-1] == "d4", "the chain goes on where the kit ended"
    shop.publish_one({**SAME, "a": b"fifth"})
    assert bring_ok(shop.export("--from", "4")).stdout == f"{DATABASE}: updated from version 4 to version 5\n"
    older.run_ok("status", DATABASE)
    assert older.update(DATABASE).stdout == f"{DATABASE}: up to date, version 5\n"


def test_the_commands_of_the_document_carry_a_database_to_a_device(
    device: Device, publisher: Publisher, tmp_path: Path
) -> None:
    for number, files in enumerate(VERSIONS[:2]):
        version = str(1000 + number)
        tree = trees.write_tree(tmp_path / "tree", files)
        publisher.publish(tree, "zones", "--level", "1", "--data-version", version, keep_diffs=1)
    device.add_database("zones")
    device.configure()
    (tmp_path / "stick").mkdir()
    places = {
        "/srv/tarndbud": str(publisher.repository),
        "/etc/tarndbudpub/release.pub": str(publisher.public_key),
        "/media/stick": str(tmp_path / "stick"),
    }
    walkthrough = Walkthrough(tmp_path, places)
    page = Document(Path(__file__).resolve().parents[2] / "docs/offline.md")
    steps = [step for heading in page.headings() for step in page.steps(heading)]
    assert len(steps) == 3
    for step in steps:
        walkthrough.follow(step)
    trees.assert_holds(device.installed("zones"), VERSIONS[1])
    assert kits.packages(tmp_path / "stick/zones-1000.kit") == ["zones_d1001.tarn"]
