"""What earlier releases wrote is read for ever: packages, documents, repositories, kits, and what devices recorded.

tests/kept holds what each release wrote, made once by tests/kept/make.
"""

from __future__ import annotations

import json
from collections.abc import Iterator
from pathlib import Path

import pytest
from harness import kept, programs
from harness.device import STATUS
from harness.kept import NAME, Kept
from harness.webserver import Nginx

FIRST, SECOND, BAD, NEWEST, CANARY = range(1000, 1005)
HELD = 8
SOURCE = Path(__file__).resolve().parents[2]


@pytest.fixture(params=kept.releases(), ids=lambda release: release.place.name)
def release(request: pytest.FixtureRequest, clean_device: None) -> Iterator[Kept]:
    yield request.param
    kept.forget_device()


@pytest.fixture
def server(release: Kept, tmp_path: Path) -> Iterator[Nginx]:
    """Serves the repository as it was kept."""
    repository = tmp_path / "repository"
    repository.mkdir()
    nginx = Nginx(SOURCE / "packaging/nginx/tarndbud.conf", repository, tmp_path / "nginx")
    release.repository(repository, nginx.netloc)
    yield nginx
    nginx.close()


def publish(command: str, *arguments: object) -> programs.Result:
    return programs.run_ok(programs.PUB, command, *arguments)


def control(*arguments: str) -> programs.Result:
    return programs.run_ok(programs.CTL, *arguments)


def installed_version() -> str:
    return json.loads((STATUS / NAME / "version.json").read_text())["data_version"]


def assert_installed(release: Kept, version: int) -> None:
    assert installed_version() == str(version)
    release.assert_installed(version)
    control("check", NAME)


def test_every_package_is_read(release: Kept, tmp_path: Path) -> None:
    repository = release.repository(tmp_path / "repository", "127.0.0.1:9")
    codecs = set()
    for package in sorted((repository / "packages").rglob("*.tarn")):
        publish("verify", package, "--key", release.place / "release.pub")
        codecs |= json.loads(publish("inspect", package, "--json").stdout)["codecs"].keys()
    assert codecs == {"zstd", "brotli", "lzma", "bzip2"}
    for version in (FIRST, SECOND, NEWEST, CANARY):
        tree = tmp_path / str(version)
        publish("extract", repository / f"packages/{NAME}/{NAME}_v{version}.tarn", tree, "--key", release.place / "release.pub")
        assert kept.content(tree) == release.contents[str(version)]


def test_a_repository_is_published_to(release: Kept, server: Nginx, tmp_path: Path) -> None:
    repository = tmp_path / "repository"
    care = ("--repo", repository, "--key", release.place / "release.pub")
    publish("check-repo", *care)
    package = repository / f"packages/{NAME}/{NAME}_v{NEWEST}.tarn"
    publish("extract", package, tmp_path / "tree", "--key", release.place / "release.pub")
    database = tmp_path / "tree/places.sqlite"
    programs.run_ok("sqlite3", database, "UPDATE places SET height = 0 WHERE id = 5")
    publish("publish", tmp_path / "tree", "--repo", repository, "--id", NAME, "--key", release.place / "release.key",
            "--url", server.url, "--level", "1")  # fmt: skip
    publish("check-repo", *care)
    release.device("full", server.netloc)
    control("refresh")
    control("update", NAME)
    assert installed_version() == str(CANARY + 1)
    assert kept.content(kept.VOLUME / "@database/autoupdate" / NAME) == kept.content(tmp_path / "tree")


def test_a_device_goes_on_by_the_chain(release: Kept, server: Nginx) -> None:
    release.device("full", server.netloc)
    assert_installed(release, FIRST)
    control("refresh")
    control("update", NAME)
    assert_installed(release, NEWEST)
    assert server.packages() == [f"d{SECOND}", f"d{BAD}w{NEWEST}", f"d{NEWEST}"]


def test_a_hold_and_a_refusal_are_kept(release: Kept, server: Nginx) -> None:
    release.device("held", server.netloc)
    assert_installed(release, SECOND)
    status = json.loads(control("status", NAME, "--json").stdout)[0]
    assert status["held"] is True
    assert status["refused_version"] == BAD
    control("refresh")
    assert programs.run(programs.CTL, "update", NAME).status == HELD
    assert_installed(release, SECOND)
    control("unhold", NAME)
    control("update", NAME)
    assert_installed(release, NEWEST)


def test_what_was_killed_in_the_middle_is_made_good(release: Kept, server: Nginx) -> None:
    release.device("killed", server.netloc)
    control("update", NAME)
    assert_installed(release, NEWEST)
    assert list((kept.VOLUME / "@tmp/data_update").iterdir()) == []


def test_a_kit_is_imported(release: Kept) -> None:
    release.device("full", "127.0.0.1:9")
    control("import", str(release.kit))
    assert_installed(release, NEWEST)
