"""What a reader of many files sees: all of one version, or a mixture.

The first file is a manifest of the others, which all change with each version and have one size, so that a reader's
output can be taken apart again.
"""

from __future__ import annotations

import hashlib
import json
import random
import threading
from collections import Counter
from dataclasses import dataclass, field
from pathlib import Path

from . import programs

COUNT, SIZE = 60, 1000
PAUSE = 0.05
MANIFEST = "manifest"
NAMES = [f"part{number % 7}/{number:03}" for number in range(COUNT)]


def noise(name: str) -> str:
    """What versions share and nothing compresses, so that a diff package is smaller than a full one."""
    return random.Random(name).randbytes(SIZE).hex()


def files(version: int) -> dict[str, bytes]:
    """The files of a version; a diff package between two of them patches every file."""
    content = {name: f"{name} {version} {noise(name)}".encode()[:SIZE] for name in NAMES}
    digests = {name: hashlib.sha256(data).hexdigest() for name, data in content.items()}
    return {MANIFEST: (json.dumps({"version": version, "digests": digests}) + "\n").encode(), **content}


def paths(root: Path) -> list[str]:
    """The files in the order in which a reader prints them."""
    return [str(root / name) for name in (MANIFEST, *NAMES)]


def version_of(output: str) -> int | None:
    """The one version that a reader printed; none when it saw anything else."""
    manifest, newline, rest = output.partition("\n")
    try:
        digests = json.loads(manifest)["digests"]
    except ValueError:
        return None
    seen = rest.encode()
    if not newline or len(seen) != COUNT * SIZE or sorted(digests) != sorted(NAMES):
        return None
    blocks = (seen[at : at + SIZE] for at in range(0, len(seen), SIZE))
    whole = all(hashlib.sha256(block).hexdigest() == digests[name] for name, block in zip(NAMES, blocks, strict=True))
    return int(json.loads(manifest)["version"]) if whole else None


@dataclass
class Reader:
    """Runs a program that prints the files over and over, until it is told to stop."""

    command: list[str]
    pause: float = PAUSE
    statuses: Counter[int] = field(default_factory=Counter)
    versions: Counter[int] = field(default_factory=Counter)
    mixtures: list[programs.Result] = field(default_factory=list)

    def __post_init__(self) -> None:
        self._over = threading.Event()
        self._thread = threading.Thread(target=self._run)

    def __enter__(self) -> Reader:
        self._thread.start()
        return self

    def __exit__(self, *_: object) -> None:
        self._over.set()
        self._thread.join()

    def _run(self) -> None:
        # Readers without a pause would keep updates waiting, who look only ten times a second whether anybody reads.
        while not self._over.wait(self.pause):
            self._look(programs.run(*self.command))

    def _look(self, result: programs.Result) -> None:
        self.statuses[result.status] += 1
        if result.status == 75:
            return
        version = version_of(result.stdout) if result.status == 0 else None
        if version is None:
            self.mixtures.append(result)
        else:
            self.versions[version] += 1
