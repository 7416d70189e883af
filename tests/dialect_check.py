#!/usr/bin/python3
"""Holds the form of C++ sources that neither compilers nor clang-format hold; docs/contributing.md describes it.

usage: dialect_check.py [CHECKOUT]

Every header begins with its @file comment and a guard that is its path in capitals; types of the standard library have
std::; a source has one anonymous namespace; headers of the project are included by whole name in quotation marks; no
file is longer than one idea needs. C headers are held to their beginning and length alone. Exit status: 0 all right, 1 not.
"""

from __future__ import annotations

import re
import sys
from collections.abc import Iterator
from pathlib import Path

FOLDERS = ("archive", "base", "bench", "dataupdate", "decoder", "host", "kit", "platform", "publisher", "tests")
PROJECT = "archive|base|dataupdate|decoder|host|kit|platform|publisher"

FILE_COMMENT = re.compile(r"/\*\* @file \S[^\n]* \*/\n|/\*\*\n \* @file\n \* \S.*?\n \*/\n", re.DOTALL)
LONGEST_LINE = 120
LONGEST_FILE = 300
LONGEST_TEST = 500
FAULTS = {
    "std:: is missing": re.compile(r"(?<![\w:])(?:size_t|ptrdiff_t|u?int(?:8|16|32|64|ptr|max)_t)\b"),
    "a header of the project in angle brackets": re.compile(rf"^#include <(?:{PROJECT})/", re.MULTILINE),
    "a header by less than its whole name": re.compile(r'^#include "\.', re.MULTILINE),
}
# Tests include their own headers by the name alone.
FAULTS_OF_FOLDERS = {
    "a header by less than its whole name": re.compile(rf'^#include "(?!(?:{PROJECT})/)', re.MULTILINE),
}
ANONYMOUS = re.compile(r"^namespace \{", re.MULTILINE)
NO_CODE = re.compile(r'//[^\n]*|/\*.*?\*/|R"\(.*?\)"|(?<!#include )"(?:[^"\\\n]|\\.)*"', re.DOTALL)


def is_for_c(path: Path, text: str) -> bool:
    return path.suffix == ".c" or "include" in path.parts or "__cplusplus" in text or path.stem.endswith("_from_c")


def beginning_faults(path: Path, text: str) -> Iterator[str]:
    comment = FILE_COMMENT.match(text)
    if not comment:
        yield "does not begin with its @file comment"
        return
    words = re.sub(r"\s*\n \* ?", " ", comment[0]).strip()
    if "\n" in comment[0].strip() and len(words) <= LONGEST_LINE and "\n *\n" not in comment[0]:
        yield "its @file comment fits into one line"
    name = "/".join(path.parts).partition("/include/")[2] or str(path)
    guard = re.sub(r"\W", "_", name).upper()
    if not text[comment.end() :].startswith(f"#ifndef {guard}\n#define {guard}\n"):
        yield f"has no guard {guard} below its @file comment"


def faults(path: Path, text: str) -> Iterator[str]:
    lines, most = text.count("\n"), LONGEST_TEST if path.parts[0] == "tests" else LONGEST_FILE
    if lines > most:
        yield f"has {lines} lines, more than {most}"
    if path.suffix == ".h":
        yield from beginning_faults(path, text)
    if is_for_c(path, text):
        return
    code = NO_CODE.sub(lambda match: "\n" * match[0].count("\n"), text)
    if len(ANONYMOUS.findall(code)) > 1:
        yield "has more than one anonymous namespace"
    in_folder = path.parts[0] in PROJECT.split("|")
    for fault, pattern in {**FAULTS, **(FAULTS_OF_FOLDERS if in_folder else {})}.items():
        for match in pattern.finditer(code):
            yield f"line {code.count(chr(10), 0, match.start()) + 1}: {fault}"


def main(arguments: list[str]) -> int:
    root = Path(arguments[0]) if arguments else Path(__file__).resolve().parent.parent
    paths = [path for folder in FOLDERS for path in sorted((root / folder).rglob("*")) if path.suffix in (".h", ".cpp")]
    found = [
        f"{path.relative_to(root)}: {fault}"
        for path in paths
        for fault in faults(path.relative_to(root), path.read_text())
    ]
    print("\n".join([*found, f"{len(paths)} files, {len(found)} faults"]))
    return 1 if found or not paths else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
