"""Tables of what the tests hold: kept in tests/NAME.json, held against the tests, shown from docs/proof/NAME.json."""

from __future__ import annotations

import json
import sys
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import NamedTuple

import ledger_check

Row = dict[str, object]
Holders = dict[str, bool]
"""By the name of a test, or of another program that a row may name, whether it is enabled."""


def enabled_tests(build: str, root: Path) -> Holders:
    """Names as rows have them; of a test with parameters all cases must be enabled."""
    tests: Holders = {}
    for suite, cases in ledger_check.ctest_suites(build).items():
        for case, enabled in cases.items():
            name = suite if case == suite else f"{suite}.{case.partition('/')[0]}"
            tests[name] = tests.get(name, True) and enabled
    for path, cases in ledger_check.pytest_suites(root).items():
        tests |= {f"{path}::{case}": enabled for case, enabled in cases.items()}
    return tests


def shown(tests: list[str]) -> str:
    """Without the directory, which most of these have."""
    return ", ".join(f"`{test.removeprefix('tests/system/')}`" for test in tests)


class Table(NamedTuple):
    name: str
    tests: str
    """The member of a row that lists its tests."""
    title: Callable[[Row], str]
    line: Callable[[Row], Row]
    """What the page shows of a row."""
    others: Callable[[Path], Holders] = lambda root: {}
    """Of a checkout, what rows may name beside tests."""
    further_faults: Callable[[Path, Row], Iterator[str]] = lambda root, row: iter(())

    @property
    def source(self) -> str:
        return f"tests/{self.name}.json"

    @property
    def page(self) -> str:
        return f"docs/proof/{self.name}.json"

    def text(self, rows: list[Row]) -> str:
        return json.dumps([self.line(row) for row in rows], indent="\t", ensure_ascii=False) + "\n"

    def faults(self, root: Path, row: Row, holders: Holders) -> Iterator[str]:
        if not row[self.tests]:
            yield f'no test holds "{self.title(row)}"'
        for test in row[self.tests]:
            if not holders.get(test, False):
                yield f"{test} {'is disabled' if test in holders else 'does not exist'}"
        yield from self.further_faults(root, row)


def check(table: Table, arguments: list[str]) -> int:
    wants_write = arguments[:1] == ["--write"]
    places = arguments[wants_write:]
    if len(places) not in (1, 2):
        print(f"usage: {table.name}_check.py [--write] BUILD_DIRECTORY [CHECKOUT]", file=sys.stderr)
        return 2
    root = Path(places[1]) if len(places) == 2 else Path(__file__).resolve().parent.parent
    rows = json.loads((root / table.source).read_text())
    page = root / table.page
    if wants_write:
        page.parent.mkdir(parents=True, exist_ok=True)
        page.write_text(table.text(rows))
    holders = {**enabled_tests(places[0], root), **table.others(root)}
    found = [f"{table.source}: {fault}" for row in rows for fault in table.faults(root, row, holders)]
    if not page.exists() or page.read_text() != table.text(rows):
        found.append(f"{table.page} is not made of {table.source}: run tests/{table.name}_check.py --write {places[0]}")
    print("\n".join([*found, f"{len(rows)} {table.name}, {len(found)} faults"]))
    return 1 if found or not rows else 0
