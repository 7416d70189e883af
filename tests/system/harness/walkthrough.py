"""Following a document: its commands as they stand, and what it shows of their output held against the real output."""

from __future__ import annotations

import os
import re
from collections.abc import Mapping
from pathlib import Path

from . import programs
from .documents import Step

GAP = "..."
"""A line of a document that stands for any number of lines, also for none."""
VARYING = (
    (r"\b[0-9a-f]{64}\b", "DIGEST"),
    (r"\d{4}-\d\d-\d\d \d\d:\d\d(:\d\d)?( UTC)?", "MOMENT"),
    (r"\b\d+(\.\d)? (B|kB|MB|GB|TB)\b", "SIZE"),
    (r"\b\d+ bytes\b", "SIZE"),
    (r"\b\d+\.\d %", "SHARE"),
    (r"\b\d+ (s|min|h|d)\b", "DURATION"),
    (r"\b[12]\d{9}\b", "SECONDS"),
    # How many files a package of the machine has.
    (r"\b\d\d+ (files|unchanged)\b", r"COUNT \1"),
    # Bytes at the begin of a table's line, and what was expected beside what came.
    (r"^ *\d+ ", "NUMBER "),
    (r"\d+ \(\d+\)", "NUMBER (NUMBER)"),
    # The width of a table's columns depends on what stands in them.
    (r" +", " "),
)
"""What differs from machine to machine and from day to day. Versions, names and words do not."""


def normal(line: str) -> str:
    for pattern, replacement in VARYING:
        line = re.sub(pattern, replacement, line)
    return line.strip()


def matches(shown: list[str], printed: list[str]) -> bool:
    if not shown:
        return not printed
    if shown[0] == GAP:
        return any(matches(shown[1:], printed[start:]) for start in range(len(printed) + 1))
    return bool(printed) and shown[0] == printed[0] and matches(shown[1:], printed[1:])


def shows(shown: str, printed: str) -> bool:
    """Whether a document's text is what a command printed, but for what varies."""
    return matches([normal(line) for line in shown.splitlines()], [normal(line) for line in printed.splitlines()])


def swapped(text: str, words: Mapping[str, str]) -> str:
    """Replaces all words in one go, the longest first."""
    pattern = "|".join(re.escape(word) for word in sorted(words, key=len, reverse=True))
    return re.sub(pattern, lambda match: words[match.group()], text) if words else text


class Walkthrough:
    """Runs a document's commands below a directory of its own."""

    def __init__(self, home: Path, places: Mapping[str, str], env: Mapping[str, str] | None = None) -> None:
        """Takes by places the words of the document that stand for something else here, and by what."""
        self._home = home
        self.places = dict(places)
        self._env = {**os.environ, **(env or {})}

    def follow(self, step: Step, options: tuple[str, ...] = ("-eu", "-o", "pipefail")) -> programs.Result:
        """A step must succeed, and print what is shown; if nothing is shown, it must at least complain of nothing."""
        script = swapped(step.commands, self.places)
        path = self._home / "step.sh"
        # As on a terminal, where both streams are one.
        path.write_text(script if step.shown is None else f"exec 2>&1\n{script}")
        result = programs.run("/bin/bash", *options, path, env=self._env)
        assert result.status == 0, f"{step.heading}: {result}"
        assert result.stderr == "", f"{step.heading}: {result}"
        if step.shown is not None:
            printed = swapped(result.stdout, self._words())
            assert shows(step.shown, printed), f"{step.heading} shows\n{step.shown}\nand the commands print\n{printed}"
        return result

    def _words(self) -> dict[str, str]:
        """The other way round; of several words for the same, the first."""
        return {here: word for word, here in reversed(self.places.items()) if here}
