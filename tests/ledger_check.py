#!/usr/bin/python3
"""Holds docs/behaviours.md against the tests that exist.

usage: ledger_check.py BUILD_DIRECTORY

Fails when a line of the ledger names no test, or one that does not exist or is disabled. Tests in C++ are those that
ctest knows in the build directory, tests in Python those in the source files. A name without a parameter stands for all
its cases. Exit status: 0 all right, 1 not, 2 usage.
"""

from __future__ import annotations

import ast
import json
import re
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
LEDGER = ROOT / "docs" / "behaviours.md"
FOLDERS = ("tests/system", "tests/packages")
SWITCHES = ("skip", "xfail")


def ctest_names(build: str) -> dict[str, bool]:
    """The tests "<executable>.<suite>.<test>" without the executable, and whether each is enabled."""
    listing = subprocess.run(
        ["ctest", "--test-dir", build, "--show-only=json-v1"], check=True, capture_output=True, text=True
    )
    names = {}
    for test in json.loads(listing.stdout)["tests"]:
        properties = {item["name"]: item["value"] for item in test.get("properties", [])}
        name = test["name"].partition(".")[2] or test["name"]
        names[name] = not properties.get("DISABLED", False)
    return names


def decorator_name(decorator: ast.expr) -> str:
    target = decorator.func if isinstance(decorator, ast.Call) else decorator
    return target.attr if isinstance(target, ast.Attribute) else ""


def pytest_names() -> dict[str, bool]:
    names = {}
    for path in sorted(path for folder in FOLDERS for path in (ROOT / folder).glob("test_*.py")):
        for node in ast.walk(ast.parse(path.read_text())):
            if isinstance(node, ast.FunctionDef) and node.name.startswith("test_"):
                enabled = not any(decorator_name(decorator) in SWITCHES for decorator in node.decorator_list)
                names[f"{path.relative_to(ROOT)}::{node.name}"] = enabled
    return names


def fault_of(name: str, tests: dict[str, bool]) -> str | None:
    """What is wrong with a named test, or None."""
    cases = [enabled for test, enabled in tests.items() if test == name or test.startswith(name + "/")]
    if not cases:
        return "does not exist"
    return None if all(cases) else "is disabled"


def faults(lines: list[str], tests: dict[str, bool]) -> list[str]:
    found = []
    for number, line in enumerate(lines, 1):
        if not line.startswith("- "):
            continue
        names = re.findall(r"`([^`]+)`", line)
        if not names:
            found.append(f"line {number} names no test")
        for name in names:
            fault = fault_of(name, tests)
            if fault:
                found.append(f"line {number}: {name} {fault}")
    return found


def main(arguments: list[str]) -> int:
    if len(arguments) != 1:
        print("usage: ledger_check.py BUILD_DIRECTORY", file=sys.stderr)
        return 2
    lines = LEDGER.read_text().splitlines()
    promises = sum(line.startswith("- ") for line in lines)
    found = faults(lines, {**ctest_names(arguments[0]), **pytest_names()})
    for fault in found:
        print(f"{LEDGER.relative_to(ROOT)}: {fault}")
    print(f"{promises} promises, {len(found)} without a test")
    return 1 if found or promises == 0 else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
