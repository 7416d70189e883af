"""Programs of others are built against what is installed, and work."""

from __future__ import annotations

import os
import signal
from pathlib import Path

import pytest
from harness import programs, trees, waiting
from harness.device import DATABASE, Device
from harness.publisher import Publisher

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


@pytest.fixture(params=["reader.c", "reader.sh"])
def reader(request: pytest.FixtureRequest, connected: Device, built: Path) -> list[str]:
    """An example as it is run to print the one file of the database."""
    program = built / "reader" if request.param == "reader.c" else EXAMPLES / request.param
    return [str(program), DATABASE, str(connected.installed(DATABASE) / "list")]


def publish(publisher: Publisher, place: Path, content: str) -> None:
    files = {f"many/{number:03}": content.encode() for number in range(200)}
    publisher.publish(trees.write_tree(place, {"list": content.encode(), **files}), DATABASE)


def stopped_in_replacement(device: Device) -> programs.Running | None:
    """An update that has been stopped while it replaces files; none when it was faster."""
    update = device.start("update", DATABASE)
    while not device.mark(DATABASE).exists() and not update.has_ended():
        pass
    os.kill(update.pid, signal.SIGSTOP)
    if device.mark(DATABASE).exists() and device.is_locked(f"using_{DATABASE}.lock"):
        return update
    os.kill(update.pid, signal.SIGCONT)
    assert update.wait().status == 0
    return None


def test_a_reader_without_its_arguments_says_what_it_wants(reader: list[str]) -> None:
    result = programs.run(reader[0])
    assert result.status == 2
    assert result.stderr.startswith("usage: reader")


def test_a_reader_waits_for_a_replacement_that_is_running(
    connected: Device, publisher: Publisher, reader: list[str], tmp_path: Path
) -> None:
    publish(publisher, tmp_path / "tree", "0")
    connected.update(DATABASE)
    for number in range(1, 20):
        publish(publisher, tmp_path / "tree", str(number))
        connected.forget_document()
        update = stopped_in_replacement(connected)
        if update:
            break
    else:
        pytest.fail("no replacement was ever met")
    try:
        assert programs.run(*reader, "0").status == 75
        reading = programs.Running([*reader, "60"])
        lock = connected.lock_path(f"using_{DATABASE}.lock")
        waiting.until(lambda: waiting.has_open(reading.pid, lock), "the reader waits")
        assert not reading.has_ended()
    finally:
        os.kill(update.pid, signal.SIGCONT)
    assert update.wait().status == 0
    result = reading.wait()
    assert (result.status, result.stdout) == (0, str(number))


def test_readers_see_one_version_whole_while_updates_replace_it(
    connected: Device, publisher: Publisher, reader: list[str], tmp_path: Path
) -> None:
    contents = [f"version {number}\n" * 20_000 for number in range(1, 6)]
    seen = []
    for content in contents:
        publisher.publish(trees.write_tree(tmp_path / "tree", {"list": content.encode()}), DATABASE)
        connected.forget_document()
        update = connected.start("update", DATABASE)
        while not update.has_ended():
            seen.append(programs.run(*reader, "60"))
        assert update.wait().status == 0
    read = [result for result in seen if result.status == 0]
    assert read
    assert {result.stdout for result in read} <= set(contents)
    # Only before the very first installation is there nothing to read.
    assert {result.status for result in seen} <= {0, 1, 75}
