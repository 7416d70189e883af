"""docs/publishing.md means what it says: its commands, from top to bottom, print what it shows, and devices follow."""

from __future__ import annotations

import json
import os
import re
import shutil
import time
from collections.abc import Callable, Iterator
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest
from harness import databases, programs, trees, waiting
from harness.davstore import DavStore
from harness.device import WGETRC, Device
from harness.documents import Document
from harness.publisher import Publisher
from harness.volumes import Volumes
from harness.walkthrough import Walkthrough
from harness.webserver import Nginx, TlsNginx

SOURCE = Path(__file__).resolve().parents[2]
DOCUMENT = Document(SOURCE / "docs/publishing.md")
SERVER_BLOCK = Path("/usr/share/tarndbudpub/nginx/tarndbud.conf")
SITE = "https://updates.example.org"
DATABASE = "zones"
ON_A_MACHINE_OF_ITS_OWN = {"Installing", "The web server"}
"""What the trial of the packages runs, because it changes the machine."""


class Server(TlsNginx):
    """The server block with the document's lines for TLS, and the certificate that its commands have made."""

    def __init__(self, directory: Path, home: Path) -> None:
        self._certificates = home / "etc/tarndbudpub/tls"
        self.certificate = self._certificates / "authority.pem"
        Nginx.__init__(self, SERVER_BLOCK, directory, home / "nginx")

    def _server_block(self, template: str, directory: Path) -> str:
        lines = DOCUMENT.code("nginx", "The certificate").replace("listen 443 ssl;", f"listen {self.netloc} ssl;")
        lines = lines.replace("/etc/tarndbudpub/tls", str(self._certificates))
        block, changes = re.subn(r"\tlisten 127\.0\.0\.1:8080;.*\n", lines, template)
        assert changes == 1
        return block.replace("root /srv/tarndbud;", f"root {directory};")


class Desk:
    """Where a publisher sits: the document's places below a directory that goes away, its web server, and a device."""

    def __init__(self, home: Path, device: Device) -> None:
        self.home = home
        self.device = device
        self.repository = home / "srv/tarndbud"
        self.server: Server | None = None
        self.store: DavStore | None = None
        self.published: object = None
        self._printed = ""
        directories = ("/srv", "/etc/tarndbudpub", "/etc/nginx/conf.d", "/usr/local/bin")
        places = {directory: f"{home}{directory}" for directory in directories}
        places |= {"/var/log/nginx": f"{home}/nginx", "DNS:updates.example.org": "IP:127.0.0.1"}
        wgetrc = home / "wgetrc"
        wgetrc.touch()
        env = {"PATH": f"{home}/usr/local/bin:{os.environ['PATH']}", "WGETRC": str(wgetrc)}
        env["RCLONE_CONFIG"] = f"{home}/rclone.conf"
        self._walkthrough = Walkthrough(home, places, env)

    def follow(self, heading: str) -> None:
        """Runs a section's commands as they stand but for places and ports."""
        self._printed = "".join(self._walkthrough.follow(step).stdout for step in DOCUMENT.steps(heading))

    def printed(self) -> list[str]:
        """By the section that was followed last."""
        return self._printed.splitlines()

    def open_server(self) -> None:
        self.server = Server(self.repository, self.home)
        self._walkthrough.places[SITE] = self.server.url
        (self.home / "wgetrc").write_text(f"ca_certificate = {self.server.certificate}\n")
        self.device.scheme = "https"
        self.device.netloc = self.server.netloc
        self.device.add_database(DATABASE)
        WGETRC.write_text(f"{WGETRC.read_text()}\nca_certificate = {self.server.certificate}\n")

    def open_store(self) -> None:
        self.store = DavStore(SERVER_BLOCK, self.home / "srv/store", self.home / "dav")
        self._walkthrough.places["127.0.0.1:8082"] = self.store.writing

    def close(self) -> None:
        for server in (self.server, self.store):
            if server is not None:
                server.close()

    def tree(self, name: str) -> Path:
        return self.home / "srv/data" / name

    def trust(self, name: str) -> None:
        self.device.trust(self.home / f"etc/tarndbudpub/{name}.pub")

    def document(self) -> object:
        return json.loads((self.repository / "database_info/1").read_text())

    def packages(self) -> list[str]:
        """What devices fetched, without what the document's own commands asked for."""
        assert self.server is not None
        return [line.split("/")[-1] for line in self.server.requests() if "/packages/" in line]

    def assert_installs(self, version: int, tree: str, fetched: str) -> None:
        """That a device comes to this version, by this package."""
        before = len(self.packages())
        self.device.update(DATABASE)
        assert self.device.version(DATABASE) == version
        assert_same_content(self.tree(tree), self.device.installed(DATABASE))
        assert self.packages()[before:] == [f"{DATABASE}_{fetched}.tarn"]


def assert_same_content(published: Path, installed: Path) -> None:
    """Bytes of files, but rows of databases, whose bytes a script may have arranged in another way."""
    digests = [trees.contents(root) for root in (published, installed)]
    assert digests[0].keys() == digests[1].keys()
    for name in digests[0]:
        if name.endswith(".sqlite"):
            assert databases.content(published / name) == databases.content(installed / name)
        else:
            assert digests[0][name] == digests[1][name], name


@pytest.fixture
def desk(clean_device: None, volumes: Volumes, tmp_path: Path) -> Iterator[Desk]:
    for name in ("etc/nginx/conf.d", "usr/local/bin", "srv/tarndbud"):
        (tmp_path / name).mkdir(parents=True)
    volume = volumes.make("directory")
    device = Device(volume, "127.0.0.1:9")
    device.list_volumes(volume)
    made = Desk(tmp_path, device)
    yield made
    made.close()


def after_the_withdrawal(desk: Desk) -> None:
    assert "Berlin" in str(databases.content(desk.tree("good/places.sqlite")))
    desk.assert_installs(1002, "good", "d1002")


def after_the_channel(desk: Desk) -> None:
    desk.published = desk.document()
    desk.assert_installs(1003, "good", "d1003")


def after_the_rebuilding(desk: Desk) -> None:
    assert desk.document() == desk.published


def after_the_rotation(desk: Desk) -> None:
    desk.trust("release2")
    desk.assert_installs(1004, "good", "d1004")


def after_the_script(desk: Desk) -> None:
    shutil.copytree("/usr/share/zoneinfo/Europe", desk.tree("europe"))
    desk.assert_installs(1005, "europe", "d1005")
    desk.published = desk.document()


def after_the_mirror(desk: Desk) -> None:
    assert desk.store is not None
    served = trees.served(desk.repository)
    pages = {name for name in served if name.startswith("site/")}
    assert "site/index.html" in pages, "the pages for people, which devices do not read, are not carried"
    assert trees.contents(desk.store.directory) == {name: served[name] for name in served.keys() - pages}


MILESTONES: dict[str, Callable[[Desk], None]] = {
    "The key": lambda desk: desk.trust("release"),
    "The certificate": Desk.open_server,
    "The first publication": lambda desk: desk.assert_installs(1000, "zones", "v1000"),
    "Every further version": lambda desk: desk.assert_installs(1001, "zones", "d1001"),
    "Withdrawing a release": after_the_withdrawal,
    "Channels": after_the_channel,
    "A lost document": after_the_rebuilding,
    "Rotating the key": after_the_rotation,
    "Unattended": after_the_script,
    "A cache or a CDN in front": Desk.open_store,
    "Object storage": after_the_mirror,
    "When publishing fails": after_the_rebuilding,
}
"""What is true, or is done at a device, when a section has been followed."""


def go_through(desk: Desk, headings: list[str]) -> None:
    for heading in headings:
        if heading not in ON_A_MACHINE_OF_ITS_OWN:
            desk.follow(heading)
            MILESTONES.get(heading, lambda _: None)(desk)


def published_by_the_book(desk: Desk) -> None:
    """Without the device's installation."""
    for heading in ("The key", "The certificate", "The first publication"):
        desk.follow(heading)
        if heading != "The first publication":
            MILESTONES[heading](desk)


def test_the_document_is_followed_from_top_to_bottom(desk: Desk) -> None:
    go_through(desk, DOCUMENT.headings())
    assert set(MILESTONES) <= set(DOCUMENT.headings())


def test_the_trial_of_the_packages_runs_what_changes_a_machine() -> None:
    trial = (SOURCE / "tests/packages/test_setting_up.py").read_text()
    assert {heading for heading in ON_A_MACHINE_OF_ITS_OWN if f'"{heading}"' not in trial} == set()


def test_the_commands_that_no_test_runs_are_those_of_a_service_manager() -> None:
    lines = [line for heading in DOCUMENT.headings() for line in DOCUMENT.code("shell", heading).splitlines()]
    assert {re.split("[ |]", line)[0] for line in lines} <= {"sed", "nginx", "systemctl"}


RSYNC = """#!/bin/sh
# Copies with the options of the document, and gives somebody the time to publish after the packages.
mkdir -p "$4" && cp -a "$3." "$4" && touch "$HOME/copied"
while [ ! -e "$HOME/go" ]; do sleep 0.1; done
"""


def test_a_copy_has_the_packages_of_its_document_though_somebody_publishes_meanwhile(
    publisher: Publisher, tmp_path: Path
) -> None:
    tree = trees.write_tree(tmp_path / "tree", {"file": b"1"})
    publisher.publish(tree, DATABASE)
    (tmp_path / "rsync").write_text(RSYNC)
    (tmp_path / "rsync").chmod(0o755)
    (command,) = [step.commands for step in DOCUMENT.steps("Unattended", "") if "rsync" in step.commands]
    copy = tmp_path / "copy"
    command = command.replace("mirror.example.org:/srv/tarndbud", str(copy)).replace("/srv/tarndbud", str(publisher.repository))
    env = {**os.environ, "HOME": str(tmp_path), "PATH": f"{tmp_path}:{os.environ['PATH']}"}
    copying = programs.Running(["/bin/sh", "-c", command], env=env)
    waiting.until((tmp_path / "copied").exists, "the packages are copied")
    trees.write_tree(tree, {"file": b"2"})
    with ThreadPoolExecutor(1) as pool:
        publishing = pool.submit(publisher.publish, tree, DATABASE)
        time.sleep(2)
        (tmp_path / "go").touch()
        result = copying.wait()
        publishing.result()
    assert result.status == 0, str(result)
    link = json.loads((copy / "database_info/1").read_text())["db_list"][DATABASE]["download_link"]
    assert (copy / link[len(publisher.base) + 1 :]).exists(), link
    assert publisher.package(DATABASE, 2).exists()


def test_the_server_block_is_installed_where_the_document_says() -> None:
    assert f"cp {SERVER_BLOCK} /etc/nginx/sites-enabled/" in DOCUMENT.code("sh", "The web server")
    assert SERVER_BLOCK.read_text() == (SOURCE / "packaging/nginx/tarndbud.conf").read_text()
    assert (SERVER_BLOCK.parent / "tarndbud-cache.conf").exists()


def test_a_device_that_does_not_know_the_authority_downloads_nothing(desk: Desk) -> None:
    published_by_the_book(desk)
    shutil.copyfile(SOURCE / "packaging/conf/wgetrc", WGETRC)
    distrusting = desk.device.run("update", DATABASE)
    assert distrusting.status == 1, str(distrusting)
    assert "certificate is not trusted" in distrusting.stderr
    assert desk.packages() == []


def test_a_device_trusts_the_authority_that_its_system_trusts(desk: Desk) -> None:
    published_by_the_book(desk)
    shutil.copyfile(SOURCE / "packaging/conf/wgetrc", WGETRC)
    place = Path("/usr/local/share/ca-certificates/updates.crt")
    assert f"`{place}`" in DOCUMENT.section("The certificate")
    assert desk.server is not None
    shutil.copyfile(desk.server.certificate, place)
    try:
        programs.run_ok("update-ca-certificates")
        desk.assert_installs(1000, "zones", "v1000")
    finally:
        place.unlink()
        programs.run_ok("update-ca-certificates", "--fresh")
