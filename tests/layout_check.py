#!/usr/bin/python3
"""Holds what each folder can include against the layout that docs/contributing.md describes.

usage: layout_check.py BUILD_DIRECTORY

Takes the compile commands of the build, and asks the compiler for every header of the tree whether a source can include
it by its whole name. A header that the layout does not allow must not be found: the first one of each folder is also
included, which must stop the compiler for this reason. What the layout allows must compile. Exit status: 0 all right, 1 not, 2 usage.
"""

from __future__ import annotations

import json
import shlex
import subprocess
import sys
import tempfile
from dataclasses import dataclass
from pathlib import Path, PurePath

ROOT = Path(__file__).resolve().parent.parent
FOLDERS = ("archive", "base", "dataupdate", "decoder", "host", "kit", "platform", "publisher")
C_HEADERS = ("tarncore", "tarnsdk", "tarncrypto", "tarncodesign")

# The publisher's folders, and which of them each sees besides those that these see.
PUBLISHER = {
    "common": (),
    "sqlite": ("common",),
    "packages": ("common",),
    "repository": ("packages",),
    "diff": ("repository", "sqlite"),
    "releases": ("diff",),
    "changes": ("diff",),
    "kits": ("repository",),
    "mirror": ("repository",),
    "site": ("changes",),
    "commands": ("kits", "mirror", "releases", "site"),
}
BESIDES = {"common": ("base",), "packages": ("archive", "decoder"), "kits": ("kit",)}


def publisher_sees(name: str) -> set[str]:
    """What the publisher's folder of this name may include."""
    below = (publisher_sees(other) for other in PUBLISHER[name])
    return {f"publisher/{name}", *BESIDES.get(name, ())}.union(*below)


# Sources, and what they may include: a whole folder, or the headers that a pattern names.
SEES = {
    "base": ("base",),
    "archive": ("archive", "base"),
    "platform/tarncore": ("platform/tarncore", "platform/*.h", "tarncore", "base"),
    "platform/tarncrypto": ("platform/tarncrypto", "tarncrypto", "base"),
    "platform/tarnsdk": ("platform/tarnsdk", "platform/*.h", "tarnsdk", "tarncore", "base"),
    "platform/tarncodesign": ("tarncodesign", "base", "archive"),
    "dataupdate": ("dataupdate", "base", *C_HEADERS),
    "decoder": ("decoder", "base"),
    "kit": ("kit", "base"),
    "host": ("host", "base", "kit", "dataupdate/*.h", *C_HEADERS),
    "host/library": ("host/library", "host/terminal", "base", "kit", "dataupdate/*.h", *C_HEADERS),
    "host/terminal": ("host/terminal", "base", "dataupdate/*.h", *C_HEADERS),
    **{f"publisher/{name}": tuple(sorted(publisher_sees(name))) for name in PUBLISHER},
    "publisher/packages/device.cpp": ("publisher/common", "publisher/packages/device.h", "dataupdate"),
    "publisher/repository/document.cpp": ("publisher/common", "publisher/repository/document.h", "base"),
}


@dataclass(frozen=True)
class Search:
    """How the compiler looks for the headers of the sources that one line of SEES names."""

    sources: str
    compiler: str
    options: tuple[str, ...]

    def run(self, text: str, *more: str) -> subprocess.CompletedProcess[str]:
        with tempfile.TemporaryDirectory() as empty:
            return subprocess.run(
                [self.compiler, *self.options, *more, "-x", "c++", "-"],
                input=text, capture_output=True, text=True, cwd=empty, check=False,
            )  # fmt: skip

    def found(self, headers: list[str]) -> set[str]:
        """Headers of the machine are left out: a library that is installed there is not this tree's."""
        text = "".join(f'#if __has_include("{name}")\n@ {name}\n#endif\n' for name in headers)
        output = self.run(text, "-nostdinc", "-E").stdout
        return {line.removeprefix("@ ") for line in output.splitlines() if line.startswith("@ ")}

    def compiles(self, headers: list[str]) -> bool:
        return self.run("".join(f'#include "{name}"\n' for name in headers), "-fsyntax-only").returncode == 0

    def is_stopped_at(self, header: str) -> bool:
        result = self.run(f'#include "{header}"\n', "-nostdinc", "-fsyntax-only")
        missing = (f"{header}: No such file", f"'{header}' file not found")
        return result.returncode != 0 and any(text in result.stderr for text in missing)


def matches(header: str, seen: str) -> bool:
    return PurePath(header).match(seen) if "*" in seen else PurePath(header).is_relative_to(seen)


def all_headers() -> list[str]:
    """Every header by the name that includes it; those of the platform's C interfaces lie in include directories."""
    paths = (path.relative_to(ROOT) for folder in FOLDERS for path in (ROOT / folder).rglob("*.h"))
    return sorted(str(path).partition("/include/")[2] or str(path) for path in paths)


def sources_of(path: str) -> str:
    return max((sources for sources in SEES if PurePath(path).is_relative_to(sources)), key=len)


def searches(build: Path) -> set[Search]:
    found = set()
    for entry in json.loads((build / "compile_commands.json").read_text()):
        path = Path(entry["file"])
        if not path.is_relative_to(ROOT) or path.relative_to(ROOT).parts[0] not in FOLDERS:
            continue
        words = shlex.split(entry["command"])
        first = next(number for number, word in enumerate(words) if word.startswith("-"))
        options = [
            option
            for word, following in zip(words, [*words[1:], ""])
            for option in ((word, following) if word in ("-isystem", "-include") else (word,))
            if word.startswith(("-I", "-isystem", "-include", "-std", "-D"))
        ]
        found.add(Search(sources_of(str(path.relative_to(ROOT))), words[first - 1], tuple(options)))
    return found


def faults(search: Search, headers: list[str]) -> list[str]:
    sees = SEES[search.sources]
    found = search.found(headers)
    allowed = {header for header in found if any(matches(header, seen) for seen in sees)}
    forbidden = {PurePath(header).parent: header for header in headers if not any(matches(header, s) for s in sees)}
    problems = [f"can include {header}" for header in sorted(found - allowed)]
    problems += [f"is not stopped at {header}" for header in forbidden.values() if not search.is_stopped_at(header)]
    problems += [f"finds nothing of {seen}" for seen in sees if not any(matches(header, seen) for header in found)]
    wanted = sorted({PurePath(header).parent: header for header in sorted(allowed)}.values())
    if not search.compiles(wanted):
        problems.append(f"does not compile with {' '.join(wanted)}")
    return [f"{search.sources}: {problem}" for problem in problems]


def main(arguments: list[str]) -> int:
    if len(arguments) != 1:
        print("usage: layout_check.py BUILD_DIRECTORY", file=sys.stderr)
        return 2
    headers = all_headers()
    every = sorted(searches(Path(arguments[0])), key=lambda search: search.sources)
    problems = [f"{sources}: compiled by no command" for sources in SEES.keys() - {one.sources for one in every}]
    for search in every:
        problems += faults(search, headers)
    print("\n".join([*problems, f"{len(headers)} headers, {len(every)} ways to look for them, {len(problems)} faults"]))
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
