"""Programs that read while files are replaced, and after a replacement that was not finished."""

from __future__ import annotations

import time
from pathlib import Path

import pytest
from harness import programs, tracing, trees, views, waiting
from harness.alternation import Alternation
from harness.device import DATABASE, RUN, Device
from harness.publisher import Publisher
from harness.webserver import Nginx

EXAMPLES = Path(__file__).resolve().parents[2] / "examples"
KINDS = ("reader.c", "reader.sh")
TRACED = pytest.mark.skipif(not tracing.is_possible(), reason="other programs cannot be traced here")
CYCLES = 100
CARELESS_SECONDS = 60


@pytest.fixture(scope="module")
def c_reader(tmp_path_factory: pytest.TempPathFactory, product: None) -> Path:
    reader = tmp_path_factory.mktemp("reader") / "reader"
    line = f"gcc -std=c11 -Wall -Werror {EXAMPLES}/reader.c $(pkg-config --cflags --libs tarndbud) -o {reader}"
    programs.run_ok("/bin/sh", "-c", line)
    return reader


def example(kind: str, c_reader: Path) -> str:
    return str(c_reader if kind == "reader.c" else EXAMPLES / kind)


@pytest.fixture(params=KINDS)
def reader(request: pytest.FixtureRequest, c_reader: Path) -> str:
    """An example program."""
    return example(request.param, c_reader)


def printing(reader: str, device: Device, seconds: int) -> list[str]:
    """An example as it is run to print the file "list"."""
    return [reader, DATABASE, str(seconds), str(device.installed(DATABASE) / "list")]


def publish(publisher: Publisher, place: Path, content: str) -> None:
    # At the top each file is renamed by itself, so that a replacement takes its time.
    files = {f"{number:03}": content.encode() for number in range(400)}
    publisher.publish(trees.write_tree(place, {"list": content.encode(), **files}), DATABASE)


def stopped_in_replacement(device: Device, publisher: Publisher, place: Path) -> tracing.Stopped:
    """An update from content "0" to "1" that has been stopped while it replaces files."""
    publish(publisher, place / "tree", "0")
    device.update(DATABASE)
    publish(publisher, place / "tree", "1")
    device.forget_document()
    update = tracing.Stopped(place / "report", tracing.REPLACING, [programs.CTL, "update", DATABASE])
    assert device.mark(DATABASE).exists()
    assert device.is_locked(f"using_{DATABASE}.lock")
    return update


def test_a_reader_without_its_arguments_says_what_it_wants(reader: str) -> None:
    result = programs.run(reader)
    assert result.status == 2
    assert result.stderr.startswith("usage: reader")


@pytest.mark.parametrize("size", (1, 1000 * 4096))
def test_a_reader_tells_that_its_output_could_not_be_written(
    connected: Device, publisher: Publisher, reader: str, tmp_path: Path, size: int
) -> None:
    publisher.publish(trees.write_tree(tmp_path / "tree", {"list": b"0" * size}), DATABASE, "--level", "1")
    connected.update(DATABASE)
    result = programs.run("/bin/sh", "-c", 'exec "$@" >/dev/full', "sh", *printing(reader, connected, 0))
    assert result.status == 1, str(result)
    assert "No space left on device" in result.stderr


def test_a_reader_in_c_names_what_makes_its_lock_file_after_a_restart(
    connected: Device, publisher: Publisher, c_reader: Path, tmp_path: Path
) -> None:
    publish(publisher, tmp_path / "tree", "0")
    connected.update(DATABASE)
    for lock in RUN.iterdir():
        lock.unlink()
    result = programs.run(*printing(str(c_reader), connected, 0))
    assert (result.status, result.stdout) == (75, "")
    assert result.stderr == f"{DATABASE} is not installed, or tarndbudctl init has not run since the restart\n"
    connected.run_ok("init")
    assert programs.run_ok(*printing(str(c_reader), connected, 0)).stdout == "0"


@TRACED
def test_a_reader_waits_for_a_replacement_that_is_running(
    connected: Device, publisher: Publisher, reader: str, tmp_path: Path
) -> None:
    update = stopped_in_replacement(connected, publisher, tmp_path)
    try:
        assert programs.run(*printing(reader, connected, 0)).status == 75
        reading = programs.Running(printing(reader, connected, 60))
        lock = connected.lock_path(f"using_{DATABASE}.lock")
        waiting.until(lambda: waiting.has_open(reading.pid, lock), "the reader waits")
        assert not reading.has_ended()
    finally:
        update.go_on()
    result = reading.wait()
    assert update.wait().status == 0
    # The one in C does not wait until the replacement has been recorded.
    assert (result.status, result.stdout) == (0, "1") or result.status == 75
    assert programs.run_ok(*printing(reader, connected, 60)).stdout == "1"


@TRACED
def test_a_reader_leaves_a_mixture_alone_that_a_killed_update_left(
    connected: Device, publisher: Publisher, reader: str, tmp_path: Path
) -> None:
    update = stopped_in_replacement(connected, publisher, tmp_path)
    update.kill()
    update.wait()
    assert connected.mark(DATABASE).exists()
    assert not connected.is_locked(f"using_{DATABASE}.lock")
    result = programs.run(*printing(reader, connected, 60))
    assert (result.status, result.stdout) == (75, "")
    assert "the last replacement of" in result.stderr.lower()
    assert result.seconds < 30, "there is no update to wait for"
    read = connected.run("read", DATABASE, "--", "echo", "read")
    assert (read.status, read.stdout) == (75, "")
    assert connected.run_ok("read", DATABASE, "--even-unfinished", "--", "echo", "read").stdout == "read\n"
    check = connected.run("check", DATABASE)
    assert check.status == 4
    assert "the last replacement of its files was not finished" in check.stdout
    connected.run_ok("update", DATABASE)
    assert programs.run_ok(*printing(reader, connected, 0)).stdout == "1"
    connected.run_ok("check", DATABASE)


@pytest.fixture
def alternation(connected: Device, publisher: Publisher, nginx: Nginx, tmp_path: Path) -> Alternation:
    return Alternation(connected, publisher, nginx, tmp_path / "tree")


def test_readers_see_one_version_whole_through_hundreds_of_replacements(
    connected: Device, alternation: Alternation, c_reader: Path
) -> None:
    paths = views.paths(connected.installed(DATABASE))
    c, shell = (views.Reader([example(kind, c_reader), DATABASE, "60", *paths]) for kind in KINDS)
    with c, shell:
        for _ in range(CYCLES):
            alternation.cycle()
    assert alternation.replacements > 2 * CYCLES
    assert alternation.packages() == {"v1", "d2"}
    for reader in (c, shell):
        print(dict(reader.statuses), dict(reader.versions))
        assert [str(result)[:2000] for result in reader.mixtures[:3]] == []
        # The moment between a replacement and its record is a mixture for all that a reader knows.
        assert set(reader.statuses) <= {0, 75}
        assert min(reader.versions[1], reader.versions[2]) > 10


def test_a_reader_without_the_lock_meets_a_mixture(connected: Device, alternation: Alternation) -> None:
    """What the test before would show if the lock held nothing off."""
    careless = views.Reader(["/bin/cat", *views.paths(connected.installed(DATABASE))])
    deadline = time.monotonic() + CARELESS_SECONDS
    with careless:
        while not any(result.status == 0 for result in careless.mixtures) and time.monotonic() < deadline:
            alternation.cycle()
    print(f"after {alternation.replacements} replacements: {dict(careless.statuses)}")
    # Not only missing files: files of both versions, from a program that saw nothing wrong.
    assert any(result.status == 0 for result in careless.mixtures)
