#!/usr/bin/python3
"""Holds docs/behaviours.md against the tests that exist.

usage: ledger_check.py [--list] BUILD_DIRECTORY [CHECKOUT]

A suite is a suite of GoogleTest or another test that ctest knows in the build directory, or a file test_*.py of
tests/system or tests/packages. Fails for a clause without a suite, for a suite that is named and missing, empty or
disabled even in part, and for a suite that no clause names. --list prints the clauses with all tests of their suites.
Exit status: 0 all right, 1 not, 2 usage.
"""

from __future__ import annotations

import ast
import json
import re
import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path
from typing import NamedTuple

LEDGER = "docs/behaviours.md"
FOLDERS = ("tests/system", "tests/packages")
SWITCHES = ("skip", "xfail")

Suites = dict[str, dict[str, bool]]
"""By the name of a suite its tests, and whether each is enabled."""


class Clause(NamedTuple):
    line: int
    text: str
    suites: list[str]


def clauses(root: Path) -> Iterator[Clause]:
    """The items "- Sentence: `Suite`, `Suite`", which may go over several lines."""
    items: list[tuple[int, str]] = []
    for number, line in enumerate((root / LEDGER).read_text().splitlines(), 1):
        if line.startswith("- "):
            items.append((number, line[2:]))
        elif line.startswith("  ") and items:
            items[-1] = (items[-1][0], f"{items[-1][1]} {line.strip()}")
    for number, item in items:
        text, _, names = item.rpartition(": `")
        yield Clause(number, text or item, re.findall(r"[^`,\s]+", names))


def ctest_suites(build: str) -> Suites:
    """Tests are called "<executable>.<suite>.<test>", with the instance before the suite where there are several."""
    listing = subprocess.run(
        ["ctest", "--test-dir", build, "--show-only=json-v1"], check=True, capture_output=True, text=True
    )
    suites: Suites = {}
    for test in json.loads(listing.stdout)["tests"]:
        properties = {item["name"]: item["value"] for item in test.get("properties", [])}
        name = test["name"].partition(".")[2] or test["name"]
        suite, _, case = name.partition(".")
        suites.setdefault(suite.rpartition("/")[2], {})[case or name] = not properties.get("DISABLED", False)
    return suites


def is_switch(decorator: ast.expr) -> bool:
    target = decorator.func if isinstance(decorator, ast.Call) else decorator
    return isinstance(target, ast.Attribute) and target.attr in SWITCHES


def pytest_suites(root: Path) -> Suites:
    return {
        str(path.relative_to(root)): {
            node.name: not any(map(is_switch, node.decorator_list))
            for node in ast.walk(ast.parse(path.read_text()))
            if isinstance(node, ast.FunctionDef) and node.name.startswith("test_")
        }
        for folder in FOLDERS
        for path in sorted((root / folder).glob("test_*.py"))
    }


def fault_of(name: str, suites: Suites) -> str | None:
    """What is wrong with a suite that a clause names, or None."""
    if name not in suites:
        return "does not exist"
    if not suites[name]:
        return "has no test"
    disabled = [test for test, enabled in suites[name].items() if not enabled]
    return f"is disabled in {', '.join(disabled)}" if disabled else None


def faults(ledger: list[Clause], suites: Suites) -> Iterator[str]:
    for clause in ledger:
        if not clause.suites:
            yield f"{LEDGER}:{clause.line}: no suite"
        for name in clause.suites:
            fault = fault_of(name, suites)
            if fault:
                yield f"{LEDGER}:{clause.line}: {name} {fault}"
    named = {name for clause in ledger for name in clause.suites}
    for name in sorted(suites.keys() - named):
        yield f"{LEDGER}: no clause names {name}"


def main(arguments: list[str]) -> int:
    wants_list = arguments[:1] == ["--list"]
    places = arguments[wants_list:]
    if len(places) not in (1, 2):
        print("usage: ledger_check.py [--list] BUILD_DIRECTORY [CHECKOUT]", file=sys.stderr)
        return 2
    root = Path(places[1]) if len(places) == 2 else Path(__file__).resolve().parent.parent
    ledger = list(clauses(root))
    suites = {**ctest_suites(places[0]), **pytest_suites(root)}
    if wants_list:
        for clause in ledger:
            print(f"\n{clause.text}")
            for name in clause.suites:
                print("\n".join(f"  {name}: {test}" for test in suites.get(name, {})))
    found = list(faults(ledger, suites))
    tests = sum(map(len, suites.values()))
    print("\n".join([*found, f"{len(ledger)} clauses, {len(suites)} suites, {tests} tests, {len(found)} faults"]))
    return 1 if found or not ledger else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
