"""Damaging installed files, and knowing since when they may be damaged."""

from __future__ import annotations

import fcntl
import random
import time
from collections.abc import Iterator
from contextlib import ExitStack, contextmanager
from dataclasses import dataclass, field
from pathlib import Path

from . import manifests
from .device import RUN, Device


@contextmanager
def held(path: Path, operation: int) -> Iterator[None]:
    """Holds a lock, having waited for it in the kernel's queue, ahead of all that poll."""
    with path.open("a") as stream:
        fcntl.flock(stream, operation)
        yield


@dataclass
class Span:
    begin: float
    end: float = float("inf")


@dataclass
class Damages:
    """Damages what manifests allow, and remembers for each database when it may have been damaged.

    What is damaged while an update computes its digests would be recorded as what it ought to be, so updates are held
    off meanwhile.
    """

    device: Device
    seed: int
    spans: dict[str, list[Span]] = field(default_factory=dict)

    def may_have_been(self, name: str, begin: float, end: float) -> bool:
        """Whether a database may have been damaged at some time between two moments."""
        return any(span.begin <= end and begin <= span.end for span in list(self.spans.get(name, [])))

    def damage(self, name: str) -> None:
        source = random.Random(f"{self.seed} {name} {len(self.spans.get(name, []))}")
        victim = self.device.installed(name) / source.choice(manifests.VICTIMS)
        with ExitStack() as locks:
            for lock in ("update_any.lock", f"update_{name}.lock"):
                locks.enter_context(held(RUN / lock, fcntl.LOCK_EX))
            self.spans.setdefault(name, []).append(Span(time.monotonic()))
            if source.random() < 0.3:
                victim.unlink()
            else:
                with victim.open("r+b") as stream:
                    stream.write(manifests.DAMAGE)

    def is_mended(self, name: str) -> bool:
        """Whether nothing of it is left, which ends the time for which it may have been damaged."""
        root = self.device.installed(name)
        with held(RUN / f"using_{name}.lock", fcntl.LOCK_SH):
            mended = not any(manifests.is_damaged(root / victim) for victim in manifests.VICTIMS)
        if mended and name in self.spans:
            self.spans[name][-1].end = time.monotonic()
        return mended
