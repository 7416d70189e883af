"""README.md means what it says: its commands and its program do what stands beside them."""

from __future__ import annotations

import json
import os
from collections.abc import Iterator
from pathlib import Path

import pytest
from harness import programs
from harness.documents import Document
from harness.volumes import Volumes
from harness.webserver import free_port

SOURCE = Path(__file__).resolve().parents[2]
EXAMPLE = SOURCE / "examples/host.cpp"
README = Document(SOURCE / "README.md")
TOUR_VERSION = "20261121"  # of its second publication


def replaced(text: str, old: str, new: str) -> str:
    assert old in text
    return text.replace(old, new)


@pytest.fixture
def tour(clean_device: None, volumes: Volumes, tmp_path: Path) -> Iterator[programs.Result]:
    """The tour's commands, run in one shell with a free port and a volume that goes away in the place of its own."""
    if any(Path("/").glob("volume[0-9]*")):
        pytest.skip("needs a machine without /volume1, which the tour would use")
    install, *commands = README.blocks("sh", "Five-minute tour")
    assert "cmake --install" in install
    script = replaced("".join(commands), "8099", str(free_port()))
    script = replaced(script, "/srv/data", str(volumes.make("directory")))
    path = tmp_path / "tour.sh"
    path.write_text("trap 'kill $(jobs -p)' EXIT\n" + script)
    return programs.run("/bin/bash", "-e", path, env={**os.environ, "HOME": str(tmp_path)})


def test_the_tour_installs_what_it_publishes(tour: programs.Result, tmp_path: Path) -> None:
    assert tour.status == 0, str(tour)
    assert tour.stderr == ""
    assert "Europe" in tour.stdout.splitlines()
    assert "zones_d20261121.tarn" in tour.stdout
    assert "A line more." in tour.stdout.splitlines()
    entry = json.loads(programs.run_ok(programs.CTL, "status", "zones", "--json").stdout)[0]
    assert str(entry["installed_version"]) == TOUR_VERSION


def test_the_program_in_the_readme_is_the_example() -> None:
    assert README.blocks("cpp", "Linking the library") == [EXAMPLE.read_text()]


def test_the_readmes_line_compiles_the_example_into_a_host_that_runs(clean_device: None, tmp_path: Path) -> None:
    (line,) = README.blocks("sh", "Linking the library")
    line = replaced(line, "examples/host.cpp", str(EXAMPLE))
    programs.run_ok("/bin/bash", "-c", replaced(line, "-o host", f"-o {tmp_path}/host"))
    programs.run_ok(tmp_path / "host")
