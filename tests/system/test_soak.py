"""A few weeks of a device's life; bench/proof soak lives two years."""

from __future__ import annotations

import os
import random
from pathlib import Path

import pytest
from harness import kept
from harness.kept import Kept
from harness.soak import Life
from harness.volumes import MIB, Volumes, may_loop_mount

SHIPPED = Path(__file__).resolve().parents[2] / "packaging/conf"
DAYS = 25


@pytest.mark.parametrize("release", kept.releases(), ids=lambda release: release.place.name)
def test_whatever_happens_each_day_ends_well(
    release: Kept, clean_device: None, volumes: Volumes, tmp_path: Path
) -> None:
    seed = int(os.environ.get("TARN_SEED", random.SystemRandom().randrange(1 << 32)))
    print(f"TARN_SEED={seed}")
    kind = "ext4" if may_loop_mount() else "directory"
    disks = [volumes.make(kind, 64 * MIB) for _ in range(2)]
    life = Life(release, disks, SHIPPED, tmp_path, random.Random(seed))
    try:
        life.live(DAYS)
        life.end()
    finally:
        life.close()
    assert life.wrong == []
    assert life.counts["updates"] == DAYS + 1
