"""Programs of others are built against what is installed, and work."""

from __future__ import annotations

import json
from pathlib import Path

import pytest
from harness import programs, waiting
from harness.device import CONFIGURATION, Device
from harness.volumes import Volumes

EXAMPLES = Path(__file__).resolve().parents[2] / "examples"


@pytest.fixture(scope="module")
def built(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """The directory of the example programs, which CMake built by find_package()."""
    directory = tmp_path_factory.mktemp("consumer")
    programs.run_ok("/usr/bin/cmake", "-G", "Ninja", "-S", EXAMPLES / "consumer", "-B", directory)
    programs.run_ok("/usr/bin/cmake", "--build", directory)
    return directory


def test_a_host_in_cpp_is_built_by_find_package_and_runs(clean_device: None, built: Path) -> None:
    programs.run_ok(built / "host")


def chosen_volume() -> str:
    return json.loads((CONFIGURATION / "data_update.conf").read_text())["config"]["cur_volume"]


def test_a_host_chooses_no_volume_while_databases_may_move(clean_device: None, volumes: Volumes, built: Path) -> None:
    device = Device(None, "127.0.0.1:9")
    device.configure()
    volume = volumes.make("directory")
    device.list_volumes(volume, patterns=())
    with device.locked("update_any.lock"):
        host = programs.Running([str(built / "host")])
        lock = device.lock_path("update_any.lock")
        waiting.until(lambda: host.has_ended() or waiting.has_open(host.pid, lock), "the host waits")
        assert not host.has_ended()
        assert chosen_volume() == ""
    assert host.wait().status == 0
    assert chosen_volume() == str(volume)


def test_a_version_that_is_not_compatible_is_not_found(tmp_path: Path) -> None:
    (tmp_path / "CMakeLists.txt").write_text(
        "cmake_minimum_required(VERSION 3.20)\nproject(wrong LANGUAGES C)\nfind_package(tarndbud 2.0 REQUIRED)\n"
    )
    result = programs.run("/usr/bin/cmake", "-G", "Ninja", "-S", tmp_path, "-B", tmp_path / "build")
    assert result.status != 0
    assert 'compatible with requested version "2.0"' in result.stderr, str(result)


def test_a_reader_in_c_is_built_by_pkg_config(tmp_path: Path) -> None:
    reader = tmp_path / "reader"
    line = f"gcc -std=c11 -Wall -Werror {EXAMPLES}/reader.c $(pkg-config --cflags --libs tarndbud) -o {reader}"
    programs.run_ok("/bin/sh", "-c", line)
    assert programs.run(reader).status == 2
