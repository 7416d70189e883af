"""Memory does not grow with the data."""

from __future__ import annotations

import random
import shutil
from collections.abc import Iterator
from pathlib import Path

import pytest
from harness import programs, trees
from harness.device import DATABASE, Device
from harness.publisher import Publisher
from harness.volumes import MIB, Volumes, may_mount

LIMIT_KIB = 32 * 1024
TOTAL = 2048 * MIB
UNIQUE = 192 * MIB


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
