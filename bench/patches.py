"""Decoding a patch of a large file: ours beside an encoder's own decoder, other tools for the same, and a plain copy."""

from __future__ import annotations

import filecmp
import random
import resource
import subprocess
import time
from collections.abc import Iterator
from dataclasses import dataclass, field
from pathlib import Path
from statistics import median

MIB = 1 << 20
# At least two and a half times as fast as the encoder's own decoder at its best settings.
XDELTA_LIMIT = 1 / 2.5
MEMORY_LIMIT_MIB = 80
# No limit that fails a run: what decoding should take beside copying the same bytes.
COPY_AIM = 1.25
CHANGED_SHARE = 0.01


@dataclass
class Contender:
    name: str
    command: list[str]
    seconds: list[float] = field(default_factory=list)
    processor_seconds: list[float] = field(default_factory=list)
    peak_mib: float = 0


def make_pair(source: Path, target: Path, size: int) -> None:
    """Data that cannot be compressed, and its next version: edits of a few bytes to two hundred all over it, a tenth of
    them insertions. Together they are a hundredth of the file; the same at every call."""
    chance = random.Random(3)
    mean = 100
    edits = int(size * CHANGED_SHARE / mean)
    places = sorted(chance.randrange(size) for _ in range(edits))
    with source.open("wb") as file:
        for _ in range(0, size, MIB):
            file.write(chance.randbytes(MIB))
        file.truncate(size)
    with source.open("rb") as old, target.open("wb") as new:
        for place in places:
            if place > old.tell():
                new.write(old.read(place - old.tell()))
            length = chance.randint(1, 2 * mean)
            new.write(chance.randbytes(length))
            if chance.random() >= 0.1:
                old.seek(length, 1)
        new.write(old.read())


def window_for(size: int) -> str:
    """The power of two that holds a file whole."""
    return str(1 << (size - 1).bit_length())


class PatchBench:
    def __init__(self, build: Path, scratch: Path) -> None:
        self._decoder = str(build / "decoder/tarndbudvcdiff")
        self._header = str(build / "bench/vcdiff_header")
        self._scratch = scratch
        self._source, self._target, self._output = scratch / "source", scratch / "target", scratch / "output"

    def measure(self, size: int, rounds: int) -> Iterator[dict[str, object]]:
        make_pair(self._source, self._target, size)
        contenders = self._contenders(self._make_patches(size), size)
        for contender in contenders:
            self._warm_up(contender)
        for _ in range(rounds):
            for contender in contenders:
                self._time(contender)
        print_figures(contenders, self._target.stat().st_size)
        ours, ours_adler = contenders[:2]
        # Which setting is the faster one depends on what memory costs on the machine.
        best = min(contenders[2:4], key=lambda contender: median(contender.seconds))
        title = f"decode {size // 1_000_000} MB, 1 % changed"
        yield row(f"{title} ({best.name})", median(ours.seconds), median(best.seconds), XDELTA_LIMIT)
        yield row(f"{title}, Adler-32 ({best.name})", median(ours_adler.seconds), median(best.seconds), XDELTA_LIMIT)
        memory = max(ours.peak_mib, ours_adler.peak_mib)
        yield row(f"{title}: peak memory (the limit)", memory, MEMORY_LIMIT_MIB, 1, unit="M")

    def _make_patches(self, size: int) -> dict[str, str]:
        names = {name: str(self._scratch / f"{name}.patch") for name in ("ours", "plain", "zstd")}
        source, target = str(self._source), str(self._target)
        header = run([self._header, source, target]).stdout.strip()
        encode = ["xdelta3", "-e", "-f", "-S", "none", "-B", window_for(size), "-W", str(16 * MIB), "-I", "0"]
        run([*encode, f"-A={header}", "-s", source, target, names["ours"]])
        run([*encode, "-A=", "-s", source, target, names["plain"]])
        run(["zstd", "-q", "-f", "-1", f"--long={self._zstd_window(size)}", f"--patch-from={source}", target, "-o", names["zstd"]])
        return names

    @staticmethod
    def _zstd_window(size: int) -> int:
        return max(27, min(31, size.bit_length()))

    def _contenders(self, patches: dict[str, str], size: int) -> list[Contender]:
        source, output = str(self._source), str(self._output)
        xdelta = ["xdelta3", "-d", "-f"]
        return [
            Contender("ours", [self._decoder, "decode", source, output, patches["ours"]]),
            Contender("ours, Adler-32", [self._decoder, "decode", source, output, patches["plain"]]),
            Contender("xdelta3 -d -B size", [*xdelta, "-B", window_for(size), "-s", source, patches["ours"], output]),
            Contender("xdelta3 -d", [*xdelta, "-s", source, patches["ours"], output]),
            Contender(
                "zstd --patch-from",
                ["zstd", "-q", "-f", "-d", f"--long={self._zstd_window(size)}", f"--patch-from={source}", patches["zstd"], "-o", output],
            ),
            Contender("cp", ["cp", "--reflink=never", str(self._target), output]),
        ]  # fmt: skip

    def _warm_up(self, contender: Contender) -> None:
        """A first run, which is not timed: it fills the page cache, shows the peak of memory and that it works."""
        # Measured by a small program in between: a child begins with the peak of whom it was split off from.
        peak = self._scratch / "peak"
        run(["/usr/bin/time", "-f", "%M", "-o", str(peak), *contender.command])
        contender.peak_mib = int(peak.read_text()) / 1024
        if not filecmp.cmp(self._target, self._output, shallow=False):
            raise RuntimeError(f"{contender.name} made another file.")
        self._output.unlink()

    def _time(self, contender: Contender) -> None:
        self._level()
        begin, used = time.monotonic(), processor_seconds()
        run(contender.command)
        contender.seconds.append(time.monotonic() - begin)
        contender.processor_seconds.append(processor_seconds() - used)
        self._output.unlink()

    def _level(self) -> None:
        """Gives every contender the same memory to begin with. Pages that nobody has used for a while cost a virtual
        machine far more than those given back just now, and would be charged to whoever comes first to need many."""
        copies = [self._scratch / "first", self._scratch / "second"]
        for copy in copies:
            run(["cp", "--reflink=never", str(self._target), str(copy)])
        for copy in copies:
            copy.unlink()


def run(command: list[str]) -> subprocess.CompletedProcess[str]:
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True)


def processor_seconds() -> float:
    """Of all processes run so far; much less troubled by what else the machine does than the time that passes."""
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def row(what: str, ours: float, peer: float, limit: float, unit: str = "s") -> dict[str, object]:
    return {"what": what, "ours": ours, "peer": peer, "limit": limit, "unit": unit}


def print_figures(contenders: list[Contender], size: int) -> None:
    for contender in contenders:
        seconds = median(contender.seconds)
        print(
            f"{contender.name:19} {seconds:7.3f} s {size / seconds / 1e6:6.0f} MB/s, "
            f"processor {median(contender.processor_seconds):6.3f} s, at most {contender.peak_mib:6.1f} MiB"
        )
    ratio = median(contenders[0].seconds) / median(contenders[-1].seconds)
    print(f"ours takes {ratio:.2f} of the time of cp; the aim is {COPY_AIM}")
