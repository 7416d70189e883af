"""How long readers are held off: from the moment at which the lock is had to the one at which it is let go."""

from __future__ import annotations

import random
import re
from collections.abc import Iterator
from pathlib import Path

from harness import programs
from harness.device import Device
from harness.publisher import Publisher

DATABASE = "chain"
LIMIT_MS = 20
FEW = 30
FEW_LIMIT_MS = 5
LOCK = re.compile(r"^\d+ +(\d+\.\d+) flock\(\d+<[^>]*using_[^>]*>, (LOCK_EX|LOCK_UN)[^)]*\) = 0$", re.MULTILINE)


class ReadersBench:
    """Many small files, of which a diff package changes a fifth, another a few, and a full package all."""

    def __init__(self, publisher: Publisher, scratch: Path, files: int) -> None:
        self._publisher = publisher
        self._scratch = scratch
        self._tree = scratch / "tree"
        self._names = [f"d{number % 100:02}/f{number:05}" for number in range(files)]
        self._documents: list[str] = []

    def publish(self) -> None:
        few, many, files = FEW, len(self._names) // 5, len(self._names)
        self._works = {
            f"diff of {few} files": FEW_LIMIT_MS, f"diff of {many} files": LIMIT_MS, f"full of {files} files": LIMIT_MS,
        }  # fmt: skip
        for changed, keep in ((files, 1), (few, 1), (many, 1), (files, 0)):
            self._change(changed)
            self._publisher.publish(self._tree, DATABASE, "--level", "1", keep_diffs=keep)
            self._documents.append(self._publisher.document.read_text())

    def measure(self, kind: str, device: Device) -> Iterator[dict[str, object]]:
        self._offer(0, device)
        device.run_ok("update", DATABASE)
        for number, (what, limit) in enumerate(self._works.items(), 1):
            self._offer(number, device)
            held = self._held_ms(device)
            yield {"what": f"{kind}: readers held off, {what} (the limit)", "ours": held, "peer": limit, "limit": 1.0, "unit": "m"}

    def _change(self, count: int) -> None:
        chance = random.Random(len(self._documents))
        for name in chance.sample(self._names, count):
            path = self._tree / name
            path.parent.mkdir(parents=True, exist_ok=True)
            old = path.read_bytes() if path.exists() else b""
            # What stays the same makes a patch worth its while.
            path.write_bytes(chance.randbytes(40) + (old[40:] or chance.randbytes(460)))

    def _offer(self, number: int, device: Device) -> None:
        self._publisher.document.write_text(self._documents[number])
        device.forget_document()

    def _held_ms(self, device: Device) -> float:
        """Only locking is traced, so the rest takes no longer than without."""
        report = self._scratch / "report"
        trace = ["strace", "-f", "--seccomp-bpf", "-ttt", "-y", "-qq", "-e", "trace=flock", "-o", str(report)]
        programs.run_ok(*trace, programs.CTL, "update", DATABASE)
        times = [(float(moment), operation) for moment, operation in LOCK.findall(report.read_text())]
        spans = [
            later[0] - earlier[0] for earlier, later in zip(times, times[1:]) if (earlier[1], later[1]) == ("LOCK_EX", "LOCK_UN")
        ]  # fmt: skip
        assert len(spans) == 1, report.read_text()
        return spans[0] * 1000
