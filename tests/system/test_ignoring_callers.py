"""Callers that ignore the ends of their children, which the programs inherit."""

from __future__ import annotations

import random
from pathlib import Path

from harness import programs, trees
from harness.device import DATABASE, Device
from harness.publisher import Publisher

LARGE = 200_000


def ignoring(*arguments: str | Path) -> programs.Result:
    return programs.run("/usr/bin/env", "--ignore-signal=CHLD", *arguments)


def test_updates_and_readers_do_not_mind(connected: Device, publisher: Publisher, tmp_path: Path) -> None:
    tree = trees.write_random_tree(tmp_path / "tree", 1, count=3, size=1000)
    publisher.publish(tree, DATABASE)
    result = ignoring(programs.CTL, "update", DATABASE)
    assert result.status == 0, str(result)
    trees.assert_same(tree, connected.installed(DATABASE))
    assert ignoring(programs.CTL, "read", DATABASE, "--", "/bin/sh", "-c", "exit 7").status == 7


def test_patches_are_made_all_the_same(publisher: Publisher, tmp_path: Path) -> None:
    tree = tmp_path / "tree"
    tree.mkdir()
    content = random.Random(1).randbytes(LARGE)
    (tree / "file").write_bytes(content)
    publisher.publish(tree, DATABASE)
    (tree / "file").write_bytes(content[: LARGE // 2] + b"changed" + content[LARGE // 2 :])
    result = ignoring(
        programs.PUB, "publish", tree, "--repo", publisher.repository, "--id", DATABASE, "--key", publisher.private_key,
        "--url", publisher.base,
    )  # fmt: skip
    assert result.status == 0, str(result)
    assert " patched 1," in result.stdout
