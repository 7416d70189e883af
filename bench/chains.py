"""An update by one diff package and by a chain of five, beside the same changes carried and applied by stock tools."""

from __future__ import annotations

import json
import random
import shutil
import sqlite3
from collections.abc import Iterator
from pathlib import Path
from statistics import median

from harness.device import STATUS, Device, empty
from harness.publisher import Publisher

from bench import sizes, stock
from bench.tools import our_phases, shell, timed

DATABASE = "chain"
STEPS = 5
Row = dict[str, object]
# Of the other's time, and of its bytes.
TIME_LIMITS = {1: 0.6, STEPS: 0.5}
BYTES_LIMIT = 0.9
FULL_TIME_LIMIT = 0.55
FULL_BYTES_LIMIT = 1.0
FULL_LEVEL = 19

# One step as somebody would write it: fetch, verify, unpack, patch beside the old files, move, note the new digests.
STEP = """
wget -q "$LINK" -O "$V/step"; wget -q "$LINK.sig" -O "$V/step.sig"
openssl pkeyutl -verify -pubin -inkey "$KEY" -rawin -in "$V/step" -sigfile "$V/step.sig"
mkdir "$V/patches" "$V/new"; tar --zstd -xf "$V/step" -C "$V/patches"
for patch in "$V"/patches/*; do
	name=${patch##*/}
	if [ "$name" = "$SQLITE" ]; then
		cp --reflink=auto "$INSTALL/$name" "$V/new/$name"
		{ echo 'PRAGMA synchronous = OFF; BEGIN;'; cat "$patch"; echo 'COMMIT;'; } | sqlite3 "$V/new/$name"
	else
		xdelta3 -d -s "$INSTALL/$name" "$patch" "$V/new/$name"
	fi
	openssl dgst -sha384 "$V/new/$name" >>"$V/digests"
done
mv "$V"/new/* "$INSTALL"; rmdir "$V/new"; rm -r "$V/patches" "$V/step" "$V/step.sig"
"""


class History:
    """Small texts, a database with indexes and a sorted table, 100 MB at full scale; a change touches 1 %."""

    def __init__(self, root: Path, total_bytes: int) -> None:
        self._root = root
        self._chance = random.Random(4)
        self._files = total_bytes // 50_000
        self._rows = total_bytes * 65 // 100 // 175
        self._lines = total_bytes * 25 // 100 // 50

    def make(self) -> None:
        self._root.mkdir()
        for number in range(self._files):
            self._write_text(number)
        with sqlite3.connect(self._root / sizes.DATABASE_FILE) as database:
            database.execute("CREATE TABLE places(id INTEGER PRIMARY KEY, name TEXT, key TEXT, rank INTEGER)")
            database.executemany("INSERT INTO places VALUES(?, ?, ?, ?)", (self._row(i) for i in range(self._rows)))
            database.execute("CREATE INDEX by_key ON places(key)")
            database.execute("CREATE INDEX by_rank ON places(rank)")
        database.close()
        self._table = sorted(self._line() for _ in range(self._lines))
        self._write_table()

    def change(self) -> None:
        for number in self._chance.sample(range(self._files), max(1, self._files // 100)):
            self._write_text(number)
        with sqlite3.connect(self._root / sizes.DATABASE_FILE) as database:
            for row in self._chance.sample(range(self._rows), self._rows // 100):
                database.execute("UPDATE places SET name = ?, rank = ? WHERE id = ?", (*self._row(row)[1::2], row))
        database.close()
        for at in self._chance.sample(range(self._lines), self._lines // 100):
            self._table[at] = self._line()
        self._table.sort()
        self._write_table()

    def _write_text(self, number: int) -> None:
        words = " ".join(self._chance.choices(sizes.WORDS, k=800))
        (self._root / f"text{number:04}.txt").write_text(words)

    def _write_table(self) -> None:
        (self._root / "table.txt").write_text("".join(self._table))

    def _line(self) -> str:
        return f"{self._chance.randrange(10**12):012} {' '.join(self._chance.choices(sizes.WORDS, k=6))[:36]}\n"

    def _row(self, number: int) -> tuple[int, str, str, int]:
        name = " ".join(self._chance.choices(sizes.WORDS, k=8))
        return (number, name, f"{self._chance.getrandbits(128):032x}", self._chance.randrange(10**9))


class ChainBench:
    def __init__(self, build: Path, publisher: Publisher, scratch: Path, total_bytes: int) -> None:
        self._build, self._publisher, self._scratch = build, publisher, scratch
        self._tree = scratch / "tree"
        self._history = History(self._tree, total_bytes)
        self._documents: dict[int, str] = {}
        self._bytes = {0: (0, 0)}

    def publish(self) -> None:
        old = self._scratch / "old"
        self._history.make()
        self._publish(1)
        for step in range(1, STEPS + 1):
            shutil.copytree(self._tree, old)
            self._history.change()
            self._publish(step + 1)
            ours = self._publisher.entry(DATABASE)["diff_files"][str(step + 1)]["file_size"]
            theirs = self._make_stock_step(step, old)
            before = self._bytes[step - 1]
            self._bytes[step] = (before[0] + ours, before[1] + theirs)
            shutil.rmtree(old)
        self._stock_bytes = stock.make_package(self._tree, self._publisher, FULL_LEVEL).stat().st_size

    def sizes(self) -> Iterator[Row]:
        for steps in TIME_LIMITS:
            ours, peer = (count / 1000 for count in self._bytes[steps])
            yield {"what": f"{name_of(steps)}, bytes", "ours": ours, "peer": peer, "limit": BYTES_LIMIT, "unit": "k"}
        ours = self._publisher.package(DATABASE, STEPS + 1).stat().st_size / 1e6
        what = f"full package, bytes (tar and zstd -{FULL_LEVEL})"
        yield {"what": what, "ours": ours, "peer": self._stock_bytes / 1e6, "limit": FULL_BYTES_LIMIT, "unit": "M"}

    def measure(self, kind: str, volume: Path, device: Device, url: str, rounds: int) -> Iterator[Row]:
        """On one file system, from version 1 each time; ours and theirs take turns."""
        self._offer(1)
        device.update(DATABASE)
        shell('cp -a "$A" "$V/first"; cp -a "$S" "$V/state"', A=device.installed(DATABASE), S=STATUS / DATABASE, V=volume)
        for steps, limit in TIME_LIMITS.items():
            ours, theirs, phases = [], [], []
            for _ in range(rounds + 1):
                theirs.append(self._stock_update(volume, url, steps))
                ours.append(self._our_update(volume, device, steps))
                phases.append(self._our_phases(volume, device))
            stock.print_phases(f"{kind}: {name_of(steps)}", phases[1:])
            what = f"{kind}: {name_of(steps)} (script and xdelta3 by hand)"
            yield {"what": what, "ours": median(ours[1:]), "peer": median(theirs[1:]), "limit": limit, "unit": "s"}
        yield self._measure_full(kind, volume, device, url, rounds)

    def _measure_full(self, kind: str, volume: Path, device: Device, url: str, rounds: int) -> Row:
        ours, theirs = [], []
        self._offer(STEPS + 1, chain=False)
        for _ in range(rounds + 1):
            shell('cp -a "$V/first" "$V/stock"; sync -f "$V"', V=volume)
            theirs.append(stock.update(volume, self._publisher, url))
            self._restore(volume, device)
            ours.append({"total": timed(lambda: device.run_ok("update", DATABASE))})
            ours[-1] |= self._our_phases(volume, device)
        stock.print_phases(f"{kind}: full", ours[1:], theirs[1:])
        peer = median(sum(phases.values()) for phases in theirs[1:])
        what = f"{kind}: full (stock tools, with sync)"
        return {"what": what, "ours": median(run["total"] for run in ours[1:]), "peer": peer, "limit": FULL_TIME_LIMIT, "unit": "s"}

    def _publish(self, version: int) -> None:
        self._publisher.publish(self._tree, DATABASE, keep_diffs=STEPS)
        self._documents[version] = self._publisher.document.read_text()

    def _offer(self, version: int, *, chain: bool = True) -> None:
        document = json.loads(self._documents[version])
        if not chain:
            document["db_list"][DATABASE]["diff_files"] = {}
        self._publisher.document.write_text(json.dumps(document))

    def _make_stock_step(self, step: int, old: Path) -> int:
        patches = self._scratch / "patches"
        patches.mkdir()
        for path in sorted(self._tree.iterdir()):
            if path.read_bytes() != (old / path.name).read_bytes():
                sizes.script_or_xdelta3(old / path.name, path, patches / path.name)
        package = self._publisher.repository / f"packages/step{step}.tar.zst"
        sizes.run("tar", "--sort=name", "-C", patches, f"-Izstd -{sizes.LEVEL}", "-cf", package, ".")
        sizes.run(
            "openssl", "pkeyutl", "-sign", "-inkey", self._publisher.private_key, "-rawin", "-in", package, "-out",
            f"{package}.sig",
        )  # fmt: skip
        shutil.rmtree(patches)
        return package.stat().st_size

    def _stock_update(self, volume: Path, url: str, steps: int) -> float:
        install = volume / "stock"
        shell('cp -a "$V/first" "$INSTALL"; sync -f "$V"', V=volume, INSTALL=install)
        variables = {"V": volume, "INSTALL": install, "KEY": self._publisher.public_key, "SQLITE": sizes.DATABASE_FILE}

        def update() -> None:
            for step in range(1, steps + 1):
                shell(STEP, LINK=f"{url}/packages/step{step}.tar.zst", **variables)
            shell('sync -f "$INSTALL"', **variables)

        seconds = timed(update)
        shell('rm -r "$INSTALL" "$V/digests"', **variables)
        return seconds

    def _restore(self, volume: Path, device: Device) -> None:
        """Has version 1 installed again, and the document asked for."""
        installed = device.installed(DATABASE)
        empty(installed)
        shell(
            'cp -a "$V/first/." "$INSTALL"; rm -r "$S"; cp -a "$V/state" "$S"; sync -f "$V"',
            V=volume, INSTALL=installed, S=STATUS / DATABASE,
        )  # fmt: skip
        device.forget_document()

    def _our_update(self, volume: Path, device: Device, steps: int) -> float:
        self._offer(steps + 1)
        self._restore(volume, device)
        seconds = timed(lambda: device.run_ok("update", DATABASE))
        assert device.version(DATABASE) == steps + 1
        downloaded = json.loads((STATUS / DATABASE / "last_run.json").read_text())["downloaded_bytes"]
        assert downloaded < self._bytes[steps][0] + len(self._documents[STEPS + 1]) + 1, "it went by the full package"
        return seconds

    def _our_phases(self, volume: Path, device: Device) -> stock.Phases:
        """What the library spends the time on, measured apart, for looking on takes time."""
        self._restore(volume, device)
        phases = our_phases(self._build, self._publisher, DATABASE, volume)
        return {name: seconds for name, seconds in phases.items() if name not in ("files", "total")}


def name_of(steps: int) -> str:
    return "one diff" if steps == 1 else f"chain of {steps}"
