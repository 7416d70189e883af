"""Memory does not grow with the data."""

from __future__ import annotations

import os
import random
import shutil
from collections.abc import Iterator
from pathlib import Path

import pytest
from harness import programs, trees
from harness.device import DATABASE, STATUS, Device, empty
from harness.publisher import Publisher
from harness.volumes import MIB, Volumes, may_mount

LIMIT_KIB = 32 * 1024
TOTAL = 2048 * MIB
UNIQUE = 192 * MIB
FEW, MANY = 1_000, 20_000
# Of an operation's memory, for each file: a name of this length, with a digest, takes a third of it.
BYTES_FOR_EACH_FILE = 450


@pytest.fixture
def large_tree(scratch: Path) -> Iterator[Path]:
    """2 GiB: files of 256 MiB, of which a part does not compress, so that the package is large as well."""
    tree = scratch / "large-tree"
    tree.mkdir()
    block = random.Random(1).randbytes(MIB)
    for number in range(8):
        with (tree / f"data{number}.bin").open("wb") as stream:
            for part in range(256):
                fresh = (number * 256 + part) * MIB < UNIQUE
                stream.write(random.Random(part).randbytes(MIB) if fresh else block)
    yield tree
    shutil.rmtree(tree)


def test_updating_and_checking_two_gigabytes_stays_below_32_mib(
    connected: Device, publisher: Publisher, volumes: Volumes, large_tree: Path
) -> None:
    if may_mount():
        # On the disk itself: the throwaway root may lie in memory.
        connected.volume = volumes.make("bind")
        connected.list_volumes(connected.volume)
        connected.configure()
    publisher.publish(large_tree, DATABASE, "--level", "1")
    for command in ("update", "check"):
        result, peak = programs.peak_memory(programs.CTL, command, DATABASE, patience=600)
        print(f"{command} of {TOTAL // MIB} MiB: {peak} KiB at most, {result.seconds:.1f} s")
        assert result.status == 0, str(result)
        assert peak < LIMIT_KIB
    assert publisher.package(DATABASE, 1).stat().st_size > UNIQUE
    trees.assert_same(large_tree, connected.installed(DATABASE))


def test_the_level_of_a_package_makes_no_difference_to_memory(
    connected: Device, publisher: Publisher, scratch: Path
) -> None:
    chance = random.Random(1)
    rows = b"".join(b"%08d,%06d\n" % (number, chance.randrange(1_000_000)) for number in range(250_000))
    tree = trees.write_tree(scratch / "mixed", {"noise": chance.randbytes(MIB), "rows": rows})
    publisher.publish(tree, DATABASE, "--level", "19")
    packed = programs.run_ok(programs.PUB, "inspect", publisher.package(DATABASE, 1)).stdout
    assert any(codec in packed for codec in ("brotli", "lzma", "bzip2")), packed
    result, peak = programs.peak_memory(programs.CTL, "update", DATABASE)
    assert result.status == 0, str(result)
    assert peak < LIMIT_KIB
    shutil.rmtree(tree)


def test_compressing_takes_so_much_for_each_processor_whatever_patches_may_take(
    publisher: Publisher, scratch: Path
) -> None:
    chance = random.Random(1)
    rows = b"".join(b"%08d,%06d\n" % (number, chance.randrange(1_000_000)) for number in range(300_000))
    tree = trees.write_tree(scratch / "compressed", {"rows": rows})
    result, peak = programs.peak_memory(
        programs.PUB, "publish", tree, "--repo", publisher.repository, "--id", DATABASE, "--key", publisher.private_key,
        "--url", publisher.base, "--memory", "16",
    )  # fmt: skip
    assert result.status == 0, str(result)
    assert peak < (25 + 50 * len(os.sched_getaffinity(0))) * 1024
    shutil.rmtree(tree)


def test_making_a_patch_stays_within_the_memory_that_it_is_given(publisher: Publisher, scratch: Path) -> None:
    """A file that fills little more than half of the encoder's window, whose index is as large as for a full one."""
    chance = random.Random(1)
    tree = trees.write_tree(scratch / "patched", {"large": chance.randbytes(80 * MIB)})
    publisher.publish(tree, DATABASE, "--level", "1")
    with (tree / "large").open("r+b") as stream:
        for _ in range(100):
            stream.seek(chance.randrange(80 * MIB))
            stream.write(b"changed")
    result, peak = programs.peak_memory(
        programs.PUB, "publish", tree, "--repo", publisher.repository, "--id", DATABASE, "--key", publisher.private_key,
        "--url", publisher.base, "--level", "1", "--memory", "400",
    )  # fmt: skip
    assert "patched 1" in result.stdout, str(result)
    assert peak < 400 * 1024
    shutil.rmtree(tree)


def small_files(tree: Path, count: int, content: str) -> None:
    for number in range(count):
        path = tree / f"region-{number // 100:04}/data-{number:06}.dat"
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(f"{content} {number}")


def peaks_of_a_life(device: Device, publisher: Publisher, tree: Path, count: int) -> dict[str, int]:
    """The memory of each operation, in KiB, on a database of so many files."""

    def peak(*command: str) -> int:
        device.forget_document()
        result, kib = programs.peak_memory(programs.CTL, *command)
        assert result.status == 0, str(result)
        return kib

    small_files(tree, count, "first")
    publisher.publish(tree, DATABASE, "--level", "1")
    peaks = {"install": peak("update", DATABASE), "check": peak("check", DATABASE)}
    small_files(tree, count // 10, "second")
    publisher.publish(tree, DATABASE, "--level", "1", keep_diffs=1)
    peaks["diff update"] = peak("update", DATABASE)
    (device.installed(DATABASE) / "region-0000/data-000000.dat").write_text("damaged")
    peaks |= {"fix": peak("fix", DATABASE), "status": peak("status", DATABASE)}
    peaks["force install"] = peak("force-install", DATABASE, "0")
    trees.assert_same(tree, device.installed(DATABASE))
    return peaks


def test_memory_grows_little_with_the_number_of_files(
    connected: Device, publisher: Publisher, scratch: Path
) -> None:
    tree = scratch / "small-files"
    few = peaks_of_a_life(connected, publisher, tree, FEW)
    shutil.rmtree(tree)
    for state in (connected.installed(DATABASE), STATUS / DATABASE, publisher.repository):
        empty(state)
    many = peaks_of_a_life(connected, publisher, tree, MANY)
    shutil.rmtree(tree)
    growth = {operation: (many[operation] - few[operation]) * 1024 / (MANY - FEW) for operation in few}
    print({operation: f"{few[operation]} to {many[operation]} KiB" for operation in few})
    assert all(each < BYTES_FOR_EACH_FILE for each in growth.values()), growth
