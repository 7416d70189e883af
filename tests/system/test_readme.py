"""README.md and docs/linking.md mean what they say: their commands and their program do what stands beside them."""

from __future__ import annotations

import json
import os
import re
import subprocess
from collections.abc import Iterator
from pathlib import Path

import pytest
from harness import programs
from harness.documents import Document
from harness.volumes import Volumes, may_mount
from harness.webserver import free_port

SOURCE = Path(__file__).resolve().parents[2]
EXAMPLE = SOURCE / "examples/host.cpp"
README = Document(SOURCE / "README.md")
LINKING = Document(SOURCE / "docs/linking.md")
TOUR_VERSION = "1001"  # of its second publication
DEMO_VOLUME = Path("/volume1")


def replaced(text: str, old: str, new: str) -> str:
    assert old in text
    return text.replace(old, new)


@pytest.fixture
def tour(clean_device: None, volumes: Volumes, tmp_path: Path) -> Iterator[programs.Result]:
    """The tour's commands, run in one shell with a free port and a volume that goes away in the place of its own."""
    if any(Path("/").glob("volume[0-9]*")):
        pytest.skip("needs a machine without /volume1, which the tour would use")
    script = replaced(README.code("sh", "Five-minute tour"), "8099", str(free_port()))
    script = replaced(script, "/srv/data", str(volumes.make("directory")))
    path = tmp_path / "tour.sh"
    path.write_text("trap 'kill $(jobs -p)' EXIT\n" + script)
    return programs.run("/bin/bash", "-e", path, env={**os.environ, "HOME": str(tmp_path)})


def test_the_tour_installs_what_it_publishes(tour: programs.Result, tmp_path: Path) -> None:
    assert tour.status == 0, str(tour)
    assert tour.stderr == ""
    assert "zones: installed version 1000" in tour.stdout.splitlines()
    assert "zones: updated from version 1000 to version 1001" in tour.stdout.splitlines()
    assert "Diff from version 1000:" in tour.stdout
    assert "A line more." in tour.stdout.splitlines()
    entry = json.loads(programs.run_ok(programs.CTL, "status", "zones", "--json").stdout)[0]
    assert str(entry["installed_version"]) == TOUR_VERSION


@pytest.fixture
def demo(clean_device: None, request: pytest.FixtureRequest) -> Iterator[programs.Result]:
    """What the demo prints, without its building."""
    if DEMO_VOLUME.exists() or not may_mount():
        pytest.skip("needs a machine without /volume1, over which the demo mounts its volume")
    yield programs.run(SOURCE / "scripts/demo-tour", request.config.getoption("--build-dir"))
    if DEMO_VOLUME.is_mount():
        subprocess.run(["umount", DEMO_VOLUME], check=True)
    DEMO_VOLUME.rmdir()


def shape(line: str) -> str:
    """A line without what differs from machine to machine: sizes, times, and the widths of columns."""
    return re.sub(r"\d{4,} +\d{4,} +\d+\.\d\d s", "BYTES BYTES TIME", re.sub(" +", " ", line))


def test_the_update_in_the_readme_is_the_demos(demo: programs.Result) -> None:
    assert demo.status == 0, str(demo)
    printed = [shape(line) for line in demo.stdout.splitlines()]
    shown = [shape(line) for line in README.introduction("console").splitlines()]
    assert len(shown) == 5
    assert [line for line in shown if line not in printed] == []


def test_the_program_in_the_document_is_the_example() -> None:
    assert LINKING.blocks("cpp", "A host program") == [EXAMPLE.read_text()]


def test_the_documents_line_compiles_the_example_into_a_host_that_runs(clean_device: None, tmp_path: Path) -> None:
    (line,) = LINKING.blocks("sh", "A host program")
    line = replaced(line, "examples/host.cpp", str(EXAMPLE))
    programs.run_ok("/bin/bash", "-c", replaced(line, "-o host", f"-o {tmp_path}/host"))
    programs.run_ok(tmp_path / "host")
