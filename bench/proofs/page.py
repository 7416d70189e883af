"""docs/proof.md, from what the trials found and from the text in bench/proof.md; and the three figures in README.md."""

from __future__ import annotations

import json
import re
from collections.abc import Callable
from pathlib import Path

from bench import pages
from bench.pages import table

TRIALS = ("power", "faults", "readers", "input", "soak")
TEXT = Path("bench/proof.md")
PAGE = Path("docs/proof.md")
README = Path("README.md")
MEASURED = Path("docs/performance/rows.json")
ATTACKS = Path("docs/proof/attacks.json")
PROMISES = Path("docs/proof/promises.json")

Record = dict[str, object]


def number(value: float) -> str:
    return f"{value:,.0f}" if value >= 100 or value == int(value) else f"{value:,.3g}"


def verdict(row: Record) -> str:
    if not row.get("is_promise", True):
        return "measured"
    if not row["tried"]:
        return "not tried"
    return f"**broken {len(row['wrong'])} times**" if row["wrong"] else "held"


def tried(rows: list[Record], first: str) -> str:
    """A line for each row, begun by what tells the rows apart; further figures in columns if all rows have the same."""
    names = list(rows[0]["extra"])
    alike = all(list(row["extra"]) == names for row in rows)

    def figures(extra: dict[str, float]) -> list[str]:
        if alike:
            return [number(value) for value in extra.values()]
        return [", ".join(f"{name}: {number(value)}" for name, value in extra.items())]

    lines = [
        [str(row[first]), f"{number(row['tried'])} {row['unit']}", *figures(row["extra"]), verdict(row)] for row in rows
    ]
    return table([first, "tried", *(names if alike else ["figures"]), "result"], lines)


def split_off_file_system(where: str) -> tuple[str, str]:
    operation, *kind = re.split(r", (ext4.*|btrfs|xfs)$", where)
    return operation, kind[0] if kind else ""


def cell(row: Record) -> str:
    of = next(iter(row["extra"].values()))
    return f"{number(row['tried'])} of {number(of)}: {verdict(row)}"


def by_file_system(rows: list[Record]) -> str:
    """A line for each operation, for what is told apart as "operation, file system" with one promise and one figure."""
    parts = [(*split_off_file_system(str(row["where"])), row) for row in rows]
    kinds = list(dict.fromkeys(kind for _, kind, _ in parts))
    operations = list(dict.fromkeys(operation for operation, _, _ in parts))
    cells = {(operation, kind): cell(row) for operation, kind, row in parts}
    lines = [[operation, *(cells.get((operation, kind), "–") for kind in kinds)] for operation in operations]
    figure = next(iter(rows[0]["extra"]))
    return f"{rows[0]['promise']}. {rows[0]['unit'].capitalize()} of {figure}:\n\n{table(['operation', *kinds], lines)}"


def by_promise(rows: list[Record]) -> str:
    if rows[0]["unit"] == "power cuts":
        return by_file_system(rows)
    promises = list(dict.fromkeys(row["promise"] for row in rows))
    if len(promises) == len(rows):
        return tried(rows, "promise")
    parts = [(promise, [row for row in rows if row["promise"] == promise]) for promise in promises]
    return "\n".join(f"{promise[0].upper()}{promise[1:]}:\n\n{tried(some, 'where')}" for promise, some in parts)


def trial(result: Record) -> str:
    made = f"Of commit {result['commit']} ({result['date']}), seed {result['seed']}, {result['machine']}.\n"
    return f"{by_promise(result['rows'])}\n{made}"


def missing(name: str) -> str:
    return f"Not tried yet; `bench/proof {name}` does.\n"


def summary(results: dict[str, Record]) -> str:
    lines = []
    for name, result in results.items():
        rows = [row for row in result["rows"] if row.get("is_promise", True)]
        for unit in dict.fromkeys(row["unit"] for row in rows):
            chosen = [row for row in rows if row["unit"] == unit]
            wrong = sum(len(row["wrong"]) for row in chosen)
            lines.append([f"[{name}](#{name})", unit, number(sum(row["tried"] for row in chosen)), number(wrong)])
    return table(["trial", "of", "tried", "in which a promise was broken"], lines)


def peers(rows: list[Record]) -> str:
    chosen = [row for row in rows if row["measure"] in ("chain", "readers", "size")]
    lines = [
        [row["what"], f"{row['ratio']:.2f}", f"{row['limit']:.2f}", "met" if row["met"] else "**missed**"] for row in chosen
    ]
    return table(["measured (beside)", "ratio", "aim", ""], lines)


def attacks(records: list[Record]) -> str:
    return table(
        ["attacker", "attack", "tried by", "result"],
        [[record["attacker"], record["class"], record["tried"], record["result"]] for record in records],
    )


def linked(source: str) -> str:
    """By its name; a link where the page about proof can follow one."""
    name = Path(source).name
    target = source.removeprefix("docs/") if source.startswith("docs/") else f"../{source}"
    return f"[{name.removesuffix('.md')}]({target})"


def promises(records: list[Record]) -> str:
    lines = [
        [str(record["promise"]).replace("|", "\\|"), ", ".join(map(linked, record["pages"])), str(record["held_by"])]
        for record in records
    ]
    return table(["promise", "made in", "held by"], lines)


def versions(results: dict[str, Record]) -> str:
    newest = max(results.values(), key=lambda result: result["date"])
    return table(["what", "version"], [[name, version] for name, version in newest["versions"].items()])


def read(path: Path) -> object | None:
    return json.loads(path.read_text()) if path.exists() else None


def figures(results: dict[str, Record]) -> str:
    def tried(name: str, unit: str) -> str:
        rows = results[name]["rows"] if name in results else []
        return number(sum(row["tried"] for row in rows if row["unit"] == unit))

    wrong = sum(len(row["wrong"]) for result in results.values() for row in result["rows"])
    days = results["soak"]["rows"][0]["tried"] if "soak" in results else 0
    return (
        f"[Proof](docs/proof.md): {tried('power', 'power cuts')} power cuts, {tried('faults', 'faults')} system calls that failed or at which the process was killed, "
        f"and {number(days)} days of a device's life broke a promise {number(wrong)} times.\n"
    )


def filled(template: str, source: Path, directory: Path) -> str:
    results = {name: found for name in TRIALS if (found := read(directory / f"{name}.json"))}
    others: dict[str, Callable[[], str]] = {
        "summary": lambda: summary(results),
        "figures": lambda: figures(results),
        "peers": lambda: peers(read(source / MEASURED)),
        "attacks": lambda: attacks(read(source / ATTACKS)),
        "promises": lambda: promises(read(source / PROMISES)),
        "versions": lambda: versions(results),
    }

    def made(name: str) -> str:
        if name in results:
            return trial(results[name])
        return others[name]() if name in others else missing(name)

    return pages.filled("proof", template, made)


def texts(source: Path, directory: Path) -> dict[Path, str]:
    """The page and the README as the results make them."""
    return {
        source / page: filled((source / template).read_text(), source, directory)
        for page, template in ((PAGE, TEXT), (README, README))
    }


def write(source: Path, directory: Path) -> None:
    for path, text in texts(source, directory).items():
        path.write_text(text)


def agrees(source: Path, directory: Path) -> bool:
    different = [path for path, text in texts(source, directory).items() if path.read_text() != text]
    for path in different:
        print(f"{path}: the figures are not those of the trials")
    return not different
