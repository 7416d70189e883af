"""docs/publishing.md means what it says: its commands, run in order, publish what devices then have."""

from __future__ import annotations

import json
import os
import re
import shutil
from collections.abc import Iterator
from pathlib import Path

import pytest
from harness import programs, trees
from harness.device import WGETRC, Device
from harness.documents import Document
from harness.volumes import Volumes
from harness.webserver import Nginx, TlsNginx

SOURCE = Path(__file__).resolve().parents[2]
DOCUMENT = Document(SOURCE / "docs/publishing.md")
SERVER_BLOCK = Path("/usr/share/tarndbudpub/nginx/tarndbud.conf")
SITE = "https://updates.example.org"
DATABASE = "zones"


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
    """Where a publisher sits: the document's places below a directory that goes away, and its web server."""

    def __init__(self, home: Path, device: Device) -> None:
        self.home = home
        self.device = device
        self.repository = home / "srv/tarndbud"
        self.repository.mkdir(parents=True)
        (home / "wgetrc").touch()
        self.follow("The certificate")
        self.server = Server(self.repository, home)
        (home / "wgetrc").write_text(f"ca_certificate = {self.server.certificate}\n")
        device.scheme = "https"
        device.netloc = self.server.netloc
        device.add_database(DATABASE)

    def follow(self, heading: str) -> programs.Result:
        """Runs a section's commands as they stand but for places and ports."""
        script = DOCUMENT.code("sh", heading)
        assert script, heading
        script = script.replace("/var/log/nginx", str(self.home / "nginx")).replace("DNS:updates.example.org", "IP:127.0.0.1")
        if SITE in script:
            script = script.replace(SITE, self.server.url)
        for place in ("/srv", "/etc/tarndbudpub", "/usr/local/bin"):
            script = re.sub(rf"(?<![\w/]){place}\b", f"{self.home}{place}", script)
        path = self.home / "section.sh"
        path.write_text(script)
        path_variable = f"{self.home}/usr/local/bin:{os.environ['PATH']}"
        env = {**os.environ, "PATH": path_variable, "WGETRC": str(self.home / "wgetrc")}
        result = programs.run("/bin/bash", "-eu", "-o", "pipefail", path, env=env)
        assert result.status == 0, str(result)
        assert result.stderr == ""
        return result

    def tree(self, name: str) -> Path:
        return self.home / "srv/data" / name

    def trust_authority(self) -> None:
        WGETRC.write_text(f"{WGETRC.read_text()}\nca_certificate = {self.server.certificate}\n")

    def trust(self, name: str) -> None:
        self.device.trust(self.home / f"etc/tarndbudpub/{name}.pub")

    def packages(self) -> list[str]:
        """What devices fetched, without what the document's own commands asked for."""
        return [line.split("/")[-1] for line in self.server.requests() if "/packages/" in line]

    def assert_installs(self, version: int, tree: Path, fetched: list[str]) -> None:
        """That a device comes to this version, by these packages."""
        before = len(self.packages())
        self.device.update(DATABASE)
        assert self.device.version(DATABASE) == version
        trees.assert_same(tree, self.device.installed(DATABASE))
        assert self.packages()[before:] == [f"{DATABASE}_{name}.tarn" for name in fetched]


@pytest.fixture
def desk(clean_device: None, volumes: Volumes, tmp_path: Path) -> Iterator[Desk]:
    (tmp_path / "etc").mkdir()
    (tmp_path / "usr/local/bin").mkdir(parents=True)
    volume = volumes.make("directory")
    device = Device(volume, "127.0.0.1:9")
    device.list_volumes(volume)
    made = Desk(tmp_path, device)
    yield made
    made.server.close()


def published_by_the_book(desk: Desk) -> None:
    desk.follow("The key")
    desk.trust("release")
    desk.trust_authority()
    desk.follow("The first publication")


def test_the_documents_commands_carry_a_device_from_nothing_through_all_versions(desk: Desk) -> None:
    published_by_the_book(desk)
    desk.assert_installs(1000, desk.tree("zones"), ["v1000"])
    assert "zones_d1001.tarn" in desk.follow("Every further version").stdout
    desk.assert_installs(1001, desk.tree("zones"), ["d1001"])
    assert "Files: 1 added" in desk.follow("What a release changes").stdout
    desk.follow("Keeping a repository clean")
    document = desk.repository / "database_info/1"
    published = json.loads(document.read_text())
    document.unlink()
    assert "Restored zones version 1001" in desk.follow("A lost document").stdout
    assert json.loads(document.read_text()) == published
    assert "The content is that of version 1000." in desk.follow("Withdrawing a release").stdout
    assert not (desk.tree("good") / "published").exists()
    desk.assert_installs(1002, desk.tree("good"), ["d1002"])
    desk.follow("Rotating the key")
    desk.trust("release2")
    desk.assert_installs(1003, desk.tree("good"), ["d1003"])
    desk.follow("Unattended")
    shutil.copytree("/usr/share/zoneinfo/Europe", desk.tree("europe"))
    desk.assert_installs(1004, desk.tree("europe"), ["d1004"])
    assert "Nothing published" in programs.run_ok(desk.home / "usr/local/bin/publish-zones").stdout
    desk.assert_installs(1004, desk.tree("europe"), [])
    desk.follow("Several formats")
    devices, formats, *downloads = desk.follow("Reading the log").stdout.splitlines()
    assert devices.strip() == "1"
    assert re.fullmatch(r"\s*\d+ db_list(\[zones\]|%5Bzones%5D)=1", formats)
    assert len(downloads) == 5


def test_the_documents_commands_carry_a_device_through_a_channel(desk: Desk) -> None:
    published_by_the_book(desk)
    desk.follow("Every further version")
    desk.assert_installs(1001, desk.tree("zones"), ["v1001"])
    assert "Promoted zones version 1002 from canary to 1" in desk.follow("Channels").stdout
    desk.assert_installs(1002, desk.tree("zones"), ["d1002"])
    assert "0 broken, 0 untidy" in desk.follow("Checking a repository").stdout


def test_every_command_of_the_document_is_run() -> None:
    """Sections with commands are those that the tests follow, and two that need a machine of their own."""
    source = Path(__file__).read_text()
    followed = {heading for heading in DOCUMENT.headings() if f'follow("{heading}")' in source}
    with_commands = {heading for heading in DOCUMENT.headings() if DOCUMENT.code("sh", heading)}
    assert with_commands - followed == {"Installing", "The web server"}


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
    shutil.copyfile(desk.server.certificate, place)
    try:
        programs.run_ok("update-ca-certificates")
        desk.assert_installs(1000, desk.tree("zones"), ["v1000"])
    finally:
        place.unlink()
        programs.run_ok("update-ca-certificates", "--fresh")
