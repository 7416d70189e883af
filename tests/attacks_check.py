#!/usr/bin/python3
"""Holds tests/attacks.json, the attacks that are tried in every run, against the tests that exist.

usage: attacks_check.py [--write] BUILD_DIRECTORY [CHECKOUT]

Each attack names tests: "Suite.Test" of GoogleTest, or "tests/system/test_x.py::test_y". Fails for an attack without a
test, for a test that does not exist or is disabled, and when docs/proof/attacks.json, from which the page is made, does
not hold these attacks; --write writes that file. Exit status: 0 all right, 1 not, 2 usage.
"""

from __future__ import annotations

import json
import sys
from collections.abc import Iterator
from pathlib import Path

import ledger_check

ATTACKS = "tests/attacks.json"
TABLE = "docs/proof/attacks.json"

Attack = dict[str, object]


def enabled_tests(build: str, root: Path) -> dict[str, bool]:
    """Names as attacks have them; of a test with parameters all cases must be enabled."""
    tests: dict[str, bool] = {}
    for suite, cases in ledger_check.ctest_suites(build).items():
        for case, enabled in cases.items():
            name = f"{suite}.{case.partition('/')[0]}"
            tests[name] = tests.get(name, True) and enabled
    for path, cases in ledger_check.pytest_suites(root).items():
        tests |= {f"{path}::{case}": enabled for case, enabled in cases.items()}
    return tests


def shown(test: str) -> str:
    """Without the directory, which all of these have."""
    return f"`{test.removeprefix('tests/system/')}`"


def table(attacks: list[Attack]) -> str:
    """As the page shows them."""
    rows = [
        {
            "attacker": attack["attacker"], "class": attack["attack"], "tried": ", ".join(map(shown, attack["tests"])),
            "result": attack["result"],
        }
        for attack in attacks
    ]  # fmt: skip
    return json.dumps(rows, indent="\t", ensure_ascii=False) + "\n"


def faults(attacks: list[Attack], tests: dict[str, bool]) -> Iterator[str]:
    for attack in attacks:
        if not attack["tests"]:
            yield f"{ATTACKS}: no test tries \"{attack['attack']}\""
        for test in attack["tests"]:
            if not tests.get(test, False):
                yield f"{ATTACKS}: {test} {'is disabled' if test in tests else 'does not exist'}"


def main(arguments: list[str]) -> int:
    wants_write = arguments[:1] == ["--write"]
    places = arguments[wants_write:]
    if len(places) not in (1, 2):
        print("usage: attacks_check.py [--write] BUILD_DIRECTORY [CHECKOUT]", file=sys.stderr)
        return 2
    root = Path(places[1]) if len(places) == 2 else Path(__file__).resolve().parent.parent
    attacks = json.loads((root / ATTACKS).read_text())
    page = root / TABLE
    if wants_write:
        page.parent.mkdir(parents=True, exist_ok=True)
        page.write_text(table(attacks))
    found = list(faults(attacks, enabled_tests(places[0], root)))
    if not page.exists() or page.read_text() != table(attacks):
        found.append(f"{TABLE} does not hold the attacks of {ATTACKS}: run tests/attacks_check.py --write {places[0]}")
    print("\n".join([*found, f"{len(attacks)} attacks, {len(found)} faults"]))
    return 1 if found or not attacks else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
