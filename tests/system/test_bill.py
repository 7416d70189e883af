"""The bill of materials names the packages, what they need, and whose code lies in them."""

from __future__ import annotations

import hashlib
import json
import subprocess
from pathlib import Path

import pytest
from harness import programs

MAKE = Path(__file__).resolve().parents[2] / "scripts/make-bill"
INFO = """-----BEGIN PGP SIGNED MESSAGE-----
Hash: SHA512

Format: 1.0
Source: tarndbud
Version: 1.0.0
Build-Date: Sat, 21 Nov 2026 15:35:43 +0000
Installed-Build-Depends:
 libc6 (= 2.36-9),
 {installed}
Environment:
 LANG="C"
"""
WITHIN = ("libc6-dev", "libcli11-dev", "libdeflate-dev", "libgcc-12-dev", "libstdc++-12-dev", "libxxhash-dev", "nlohmann-json3-dev")


def write_info(directory: Path, installed: tuple[str, ...]) -> None:
    lines = ",\n ".join(f"{name} (= 1.{number})" for number, name in enumerate(installed))
    (directory / "tarndbud_1.0.0_amd64.buildinfo").write_text(INFO.format(installed=lines))


@pytest.fixture
def build(tmp_path: Path) -> Path:
    """A directory with what a build leaves: a package and what it was built with."""
    control = tmp_path / "tree/DEBIAN/control"
    control.parent.mkdir(parents=True)
    control.write_text(
        "Package: tarndbud\nVersion: 1.0.0\nArchitecture: amd64\nMaintainer: Somebody <somebody@example.org>\n"
        "Depends: libc6 (>= 2.36), wget | curl\nDescription: a trial\n"
    )
    directory = tmp_path / "built"
    directory.mkdir()
    subprocess.run(["dpkg-deb", "--build", tmp_path / "tree", directory / "tarndbud_1.0.0_amd64.deb"], check=True)
    write_info(directory, WITHIN)
    return directory


def test_the_bill_is_whole_and_the_same_again(build: Path) -> None:
    programs.run_ok(MAKE, build)
    file = build / "tarndbud_1.0.0.spdx.json"
    text = file.read_text()
    told = json.loads(text)
    packages = {package["name"]: package for package in told["packages"]}
    digest = hashlib.sha256((build / "tarndbud_1.0.0_amd64.deb").read_bytes()).hexdigest()
    assert packages["tarndbud"]["checksums"] == [{"algorithm": "SHA256", "checksumValue": digest}]
    assert packages["libc6"]["versionInfo"] == "2.36-9"
    assert packages["libdeflate-dev"]["versionInfo"] == "1.2"
    assert "versionInfo" not in packages["wget"]
    known = {package["SPDXID"] for package in packages.values()} | {told["SPDXID"]}
    assert len(known) == len(told["packages"]) + 1
    links = {(link["spdxElementId"], link["relationshipType"], link["relatedSpdxElement"]) for link in told["relationships"]}
    assert {end for one, _, other in links for end in (one, other)} == known
    assert {
        (told["SPDXID"], "DESCRIBES", "SPDXRef-tarndbud"), ("SPDXRef-tarndbud", "DEPENDS_ON", "SPDXRef-libc6"),
        ("SPDXRef-tarndbud", "DEPENDS_ON", "SPDXRef-wget"), ("SPDXRef-tarndbud", "STATIC_LINK", "SPDXRef-libdeflate-dev"),
        ("SPDXRef-libc6", "BUILD_DEPENDENCY_OF", "SPDXRef-tarndbud"),
    } <= links  # fmt: skip
    programs.run_ok(MAKE, build)
    assert file.read_text() == text
    programs.run_ok(MAKE, "--check", build)
    file.write_text(text.replace(digest, digest[::-1]))
    assert programs.run(MAKE, "--check", build).status == 1


def test_code_of_an_unknown_package_is_told(build: Path) -> None:
    write_info(build, WITHIN[:2] + WITHIN[3:])
    result = programs.run(MAKE, build)
    assert result.status == 1
    assert "does not name libdeflate-dev" in result.stderr
