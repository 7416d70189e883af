"""Many processes of the administrator's program at once, each judged by how it ends."""

from __future__ import annotations

import json
import os
import random
import signal
import sys
import threading
import time
from collections import Counter
from collections.abc import Callable
from dataclasses import dataclass, field, replace
from pathlib import Path

from . import manifests, programs
from .damage import Damages
from .device import RUN, Device

LONGEST_RUN_SECONDS = 300
"""Far longer than anything takes here, and shorter than the 600 seconds for which programs wait for a lock."""
MOST_COMPLAINTS = 5
INTERRUPTED = 0.05
"""The share of processes that are told to end early."""


@dataclass(frozen=True)
class Order:
    """A command line, and what it asks for."""

    words: tuple[str, ...]
    ids: tuple[str, ...]
    may_be_locked: bool = False
    """Whether it asks not to wait for a lock for as long as it takes."""
    interrupted_after: float | None = None

    @property
    def verb(self) -> str:
        return self.words[0]


@dataclass(frozen=True)
class Sight:
    """The version that a reader saw, some time between two moments."""

    begin: float
    end: float
    version: int


@dataclass
class Crowd:
    """Starts programs, one after the other in each of many threads, and judges each when it has ended."""

    device: Device
    ids: tuple[str, ...]
    damages: Damages
    seed: int
    ended: Counter[tuple[str, int]] = field(default_factory=Counter)
    sights: dict[str, list[Sight]] = field(default_factory=dict)
    complaints: list[str] = field(default_factory=list)
    _running: dict[int, tuple[float, Order, programs.Running]] = field(default_factory=dict)
    _over: threading.Event = field(default_factory=threading.Event)

    def keeps_on(self) -> bool:
        return not self._over.is_set()

    def pause(self, seconds: float) -> bool:
        """Waits, no longer than the crowd lasts; whether it still does."""
        return not self._over.wait(seconds)

    def run(self, processes: int, seconds: float, helpers: list[Callable[[], None]]) -> None:
        """Keeps so many processes at work for so long, beside helpers which end when the crowd does."""
        work = [self._worker(random.Random(f"{self.seed} {number}")) for number in range(processes)]
        threads = [threading.Thread(target=self._guarded, args=(each,)) for each in [*work, *helpers]]
        for thread in threads:
            thread.start()
        deadline = time.monotonic() + seconds
        while time.monotonic() < deadline and len(self.complaints) < MOST_COMPLAINTS:
            self._watch()
            time.sleep(0.2)
        self._over.set()
        while any(thread.is_alive() for thread in threads):
            self._watch()
            time.sleep(0.05)

    def assert_all_well(self) -> None:
        assert not self.complaints, "\n\n".join(self.complaints[:MOST_COMPLAINTS])

    def assert_no_step_back(self) -> None:
        """That no reader saw an older version than one that had ended before it began."""
        for name, sights in self.sights.items():
            ended = sorted(sights, key=lambda sight: sight.end)
            newest, past = 0, 0
            for sight in sorted(sights, key=lambda sight: sight.begin):
                while past < len(ended) and ended[past].end < sight.begin:
                    newest = max(newest, ended[past].version)
                    past += 1
                assert sight.version >= newest, f"{name}: version {newest} was seen, and version {sight.version} later"

    def _guarded(self, work: Callable[[], None]) -> None:
        try:
            work()
        except Exception as error:  # noqa: BLE001 - told by the test, whatever it is
            self.complaints.append(f"{type(error).__name__}: {error}")

    def _worker(self, source: random.Random) -> Callable[[], None]:
        def work() -> None:
            while self.keeps_on():
                order = self._order(source)
                if source.random() < INTERRUPTED:
                    # Most in their first tenths of a second, in which most end by themselves.
                    order = replace(order, interrupted_after=2 * source.random() ** 3)
                self._perform(order)

        return work

    def _order(self, source: random.Random) -> Order:
        one = source.choice(self.ids)
        ids = source.choice([(one,), (one,), self.ids])
        names = ids if ids != self.ids else source.choice([(), ids])
        script = ("--", sys.executable, "-I", manifests.__file__, str(self.device.installed(one)))
        return source.choice(
            [
                Order(("update", *names), ids),
                Order(("update", *names, "--json"), ids),
                Order(("update", *names, "--no-wait"), ids, may_be_locked=True),
                Order(("fix", *names), ids),
                Order(("fix", *names, "--no-wait", "--json"), ids, may_be_locked=True),
                Order(("check", *names), ids),
                Order(("check", *names, "--json"), ids),
                Order(("check", *names, "--timeout", source.choice("01")), ids, may_be_locked=True),
                Order(("read", one, *script), (one,)),
                Order(("read", one, "--timeout", source.choice("012"), *script), (one,), may_be_locked=True),
                Order(("status", "--json"), self.ids),
                Order(("refresh",), ()),
                Order(("metrics",), self.ids),
            ]
        )

    def _perform(self, order: Order) -> None:
        begin = time.monotonic()
        # Its log lines come with its errors.
        running = programs.Running([programs.CTL, "--verbose", *order.words])
        self._running[running.pid] = (begin, order, running)
        if order.interrupted_after is not None:
            time.sleep(order.interrupted_after)
            if not running.has_ended():
                os.kill(running.pid, signal.SIGTERM)
        result = running.wait(2 * LONGEST_RUN_SECONDS)
        del self._running[running.pid]
        self.ended[order.verb, result.status] += 1
        why = self._complaint(order, begin, result)
        if why:
            self.complaints.append(f"{why}: {result}")

    def _complaint(self, order: Order, begin: float, result: programs.Result) -> str:
        if result.status == 75 and order.may_be_locked:
            return ""
        if order.interrupted_after is not None and result.status in (-signal.SIGTERM, 128 + signal.SIGTERM):
            return ""
        if result.status == 4 and order.verb == "check":
            damaged = any(self.damages.may_have_been(name, begin, time.monotonic()) for name in order.ids)
            return "" if damaged else "nothing was damaged"
        if result.status != 0:
            return "an exit status that must not be"
        return self._wrong_output(order, begin, result.stdout)

    def _wrong_output(self, order: Order, begin: float, output: str) -> str:
        if order.verb == "read":
            self.sights.setdefault(order.ids[0], []).append(Sight(begin, time.monotonic(), int(output)))
        if order.verb == "status" and any(entry["installed_version"] is None for entry in json.loads(output)):
            return "everything is installed"
        if order.verb == "metrics":
            installed = [line for line in output.splitlines() if line.startswith("tarndbud_installed{")]
            if len(installed) != len(self.ids) or not all(line.endswith(" 1") for line in installed):
                return "everything is installed"
        if "--json" in order.words and len(json.loads(output)) != len(order.ids):
            return "not all databases are reported"
        return ""

    def _watch(self) -> None:
        """Ends everything when a process hangs, once it has told who holds what."""
        oldest = min((begin for begin, _, _ in list(self._running.values())), default=time.monotonic())
        if time.monotonic() - oldest < LONGEST_RUN_SECONDS:
            return
        self.complaints.insert(0, self._describe())
        self._over.set()
        for _, _, running in list(self._running.values()):
            running.kill()

    def _describe(self) -> str:
        now = time.monotonic()
        running = [
            f"{pid}: {now - begin:.0f} s, {programs.kernel_function(pid)}: {' '.join(order.words)}"
            for pid, (begin, order, _) in sorted(list(self._running.items()))
        ]
        inodes = [f"{path.stat().st_ino} {path}" for path in RUN.glob("*.lock")]
        return "\n".join(["A process hangs.", *running, *inodes, Path("/proc/locks").read_text()])


def programs_left() -> list[str]:
    """The programs of the product that still run."""
    left = []
    for entry in Path("/proc").iterdir():
        try:
            if entry.name.isdigit() and os.readlink(entry / "exe") in (programs.CTL, programs.VCDIFF):
                left.append((entry / "cmdline").read_bytes().replace(b"\0", b" ").decode())
        except OSError:
            continue
    return left

