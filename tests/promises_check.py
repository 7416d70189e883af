#!/usr/bin/python3
"""Holds tests/promises.json, what the pages promise, against the pages and against the tests that exist.

usage: promises_check.py [--write] BUILD_DIRECTORY [CHECKOUT]

Each promise has the sentence by which each page makes it, word for word except for line breaks; what it is about, where
the sentence alone does not say so; and what holds it: tests as in tests/attacks.json, tests of ctest by their names, or
programs that try more than a run of the tests has time for ("bench/proof power", "bench/run chain", "bench/fleet",
"scripts/try-reproducible"). Fails for a sentence that its page does not have, for a promise without a test, for what
does not exist or is disabled, and when docs/proof/promises.json, from which the page is made, does not hold these
promises; --write writes that file. Exit status: 0 all right, 1 not, 2 usage.
"""

from __future__ import annotations

import ast
import os
import re
import sys
from collections.abc import Callable, Iterator
from functools import cache
from pathlib import Path

from held_table import Holders, Row, Table, check, shown

MARK = re.compile(r"^\s*(?:/?\*+|//+|#|\.[A-Z][a-z])(?= |$)", re.MULTILINE)
"""What begins a line of a comment, or of a manual page, and is no part of the text."""


def constants(path: Path, *names: str) -> list[str]:
    """The words in tuples that a program defines."""
    words: list[str] = []
    for node in ast.parse(path.read_text()).body:
        if isinstance(node, ast.Assign) and ast.unparse(node.targets[0]) in names:
            words += ast.literal_eval(node.value)
    return words


def trials(root: Path) -> list[str]:
    return constants(root / "bench/proofs/page.py", "TRIALS")


def measures(root: Path) -> list[str]:
    return constants(root / "bench/run", "MEASURES", "SCALES")


PARTS: dict[str, Callable[[Path], list[str]]] = {"bench/proof": trials, "bench/run": measures}
"""Programs of several parts, of which a promise names one."""


def programs(root: Path) -> Holders:
    files = [path for folder in ("bench", "scripts") for path in (root / folder).glob("*") if path.is_file()]
    found = {str(path.relative_to(root)) for path in files if os.access(path, os.X_OK)}
    parts = [f"{program} {part}" for program in PARTS.keys() & found for part in PARTS[program](root)]
    return dict.fromkeys([*(found - PARTS.keys()), *parts], True)


@cache
def words(path: Path) -> str:
    """The text without what depends on the width of its lines, and without marks at their beginnings."""
    text = path.read_text() if path.is_file() else ""
    return " ".join((text if path.suffix == ".md" else MARK.sub("", text)).split())


def unsaid(root: Path, promise: Row) -> Iterator[str]:
    for page, sentence in promise["promised"].items():
        if sentence not in words(root / page):
            yield f'{page} does not say "{sentence}"'


def first(promise: Row) -> str:
    return next(iter(promise["promised"].values()))


def line(promise: Row) -> Row:
    about = f"*{promise['about']}:* " if "about" in promise else ""
    return {"pages": list(promise["promised"]), "promise": about + first(promise), "held_by": shown(promise["held_by"])}


PROMISES = Table("promises", "held_by", first, line, programs, unsaid)

if __name__ == "__main__":
    sys.exit(check(PROMISES, sys.argv[1:]))
