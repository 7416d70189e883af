#!/usr/bin/python3
"""Holds what the documents say about the tree against the tree.

usage: documents_check.py [CHECKOUT]

Every link of README.md, CHANGELOG.md and docs/*.md leads to a file and a heading that exist, and so does every path of
the checkout that they name. The table of folders in docs/contributing.md, the drawing in docs/architecture.md and the
includes of the sources agree about which folder sees which, without a circle; so do the table and the drawing of the
publisher's folders, each of which sees also what those see that it names. Pictures are well-formed. Every command
is in the list of all commands, every setting has its type and a manual page, and docs/json.md has the members that the
commands print, and no others.
Exit status: 0 all right, 1 not.
"""

from __future__ import annotations

import re
import sys
from collections.abc import Collection, Iterator
from graphlib import CycleError, TopologicalSorter
from pathlib import Path
from xml.etree import ElementTree

import json_members

FOLDERS = ("archive", "base", "dataupdate", "decoder", "host", "kit", "platform", "publisher")
TABLE = "docs/contributing.md"
DRAWING = "docs/architecture.md"
ELSEWHERE = {"build", "packages", "database_info", "files", "zones", "a", "bytes"}
"""What paths begin with that lie in a build, a repository or a package, and what is no path."""
LINK = re.compile(r"!?\[[^\]]*\]\(([^)\s]+)\)")
QUOTED = re.compile(r"`([^`\n]+)`")
PATH = re.compile(r"(?:\./)?[a-z.][\w.-]*(?:/[\w.*-]+)+/?|[a-z]\w*/|[\w-]+\.(?:cpp|h|py|md|sh)")
INCLUDE = re.compile(r'^#include ["<](\w+)/', re.MULTILINE)
INCLUDE_OF_PUBLISHER = re.compile(r'^#include "publisher/(\w+)/', re.MULTILINE)
ARROW = re.compile(r"^\t(\w+)(?:\[.*?\])? --> (\w+(?: & \w+)*)$", re.MULTILINE)

FOLDER_ROW = rf"`({'|'.join(FOLDERS)})/`"
PART_ROW = r"`publisher/(\w+)/`"

Sees = dict[str, set[str]]


def documents(root: Path) -> list[Path]:
    return [root / "README.md", root / "CHANGELOG.md", *sorted((root / "docs").glob("*.md"))]


def without_code(text: str) -> str:
    return re.sub(r"^```.*?^```$", "", text, flags=re.MULTILINE | re.DOTALL)


def anchors(text: str) -> set[str]:
    """The names by which headings are linked."""
    headings = re.findall(r"^#+ (.*)$", without_code(text), re.MULTILINE)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}


def broken_links(document: Path) -> Iterator[str]:
    for link in LINK.findall(without_code(document.read_text())):
        if re.match(r"[a-z]+:", link):
            continue
        name, _, anchor = link.partition("#")
        target = document.parent / name if name else document
        if not target.exists():
            yield f'links to "{link}", which does not exist'
        elif anchor and anchor not in anchors(target.read_text()):
            yield f'links to "{link}", which has no such heading'


def is_there(root: Path, path: str) -> bool:
    """Whether there is such a path, or, for a name alone, a file of that name in any folder."""
    folders = FOLDERS if "/" not in path else ()
    return any(root.glob(path)) or any(name for folder in folders for name in (root / folder).rglob(path))


def missing_paths(root: Path, document: Path) -> Iterator[str]:
    for quoted in QUOTED.findall(without_code(document.read_text())):
        for word in quoted.split():
            path = word.removeprefix("./").rstrip("/")
            if PATH.fullmatch(word) and path.split("/")[0] not in ELSEWHERE and not is_there(root, path):
                yield f'names "{word}", which is not in the tree'


def in_table(root: Path, row: str) -> Sees:
    """What each folder sees by the table with the rows "| `folder/` | what it holds | sees |"; ROW matches the first."""
    sees: Sees = {}
    for line in (root / TABLE).read_text().splitlines():
        cells = [cell.strip() for cell in line.strip("|").split("|")]
        folder = re.fullmatch(row, cells[0])
        if folder and len(cells) == 3:
            sees[folder[1]] = set(re.findall(r"`(\w+)/", cells[2].replace("publisher/", "")))
    return sees


def in_drawing(root: Path, number: int, folders: Collection[str]) -> Sees:
    """What each folder sees by the arrows of one of the drawings."""
    drawing = (root / DRAWING).read_text().split("```mermaid\n")[number].split("```")[0]
    sees: Sees = {folder: set() for folder in folders}
    for source, targets in ARROW.findall(drawing):
        sees.setdefault(source, set()).update(targets.split(" & "))
    return sees


def includes(folder: Path, pattern: re.Pattern[str]) -> set[str]:
    """What the sources of a folder include, as the pattern's group names it."""
    texts = (path.read_text() for path in sorted(folder.rglob("*")) if path.suffix in (".cpp", ".h"))
    return {name for text in texts for name in pattern.findall(text)}


def in_sources(root: Path) -> Sees:
    """What each folder includes; the C headers of the platform lie in folders of their own names."""
    platform = {path.name for path in (root / "platform").iterdir() if path.is_dir()}
    sees: Sees = {}
    for folder in FOLDERS:
        named = includes(root / folder, INCLUDE)
        sees[folder] = {"platform" if name in platform else name for name in named} & set(FOLDERS) - {folder}
    return sees


def shown(names: set[str]) -> str:
    return " ".join(sorted(names)) or "nothing"


def circles(sees: Sees) -> Iterator[str]:
    try:
        tuple(TopologicalSorter(sees).static_order())
    except CycleError as error:
        yield f"the folders include each other in a circle: {error.args[1]}"


def disagreements(root: Path) -> Iterator[str]:
    actual = in_sources(root)
    for where, said in ((TABLE, in_table(root, FOLDER_ROW)), (DRAWING, in_drawing(root, 1, FOLDERS))):
        for folder in FOLDERS:
            if said.get(folder) != actual[folder]:
                there = shown(said.get(folder, set()))
                yield f"{where}: {folder} sees {there} there, and includes {shown(actual[folder])}"
    yield from circles(actual)


def with_all_below(sees: Sees) -> Sees:
    """Each folder with all that can be reached from it."""
    reached: Sees = {}
    for folder in TopologicalSorter(sees).static_order():
        direct = sees.get(folder, set())
        reached[folder] = direct.union(*(reached[other] for other in direct))
    return reached


def disagreements_in_publisher(root: Path) -> Iterator[str]:
    parts = sorted(path.name for path in (root / "publisher").iterdir() if path.is_dir())
    actual = {part: includes(root / "publisher" / part, INCLUDE_OF_PUBLISHER) - {part} for part in parts}
    yield from (found := list(circles(actual)))
    drawn = in_drawing(root, 2, parts)
    if found or in_table(root, PART_ROW) != drawn:
        yield f"{TABLE}: what the publisher's folders see is not what {DRAWING} draws"
        return
    reached = with_all_below(drawn)
    for part in parts:
        if not drawn[part] <= actual[part] <= reached[part]:
            yield f"{DRAWING}: publisher/{part} sees {shown(drawn[part])} there, and includes {shown(actual[part])}"


def bad_pictures(root: Path) -> Iterator[str]:
    for picture in sorted((root / "docs").glob("*.svg")):
        try:
            ElementTree.parse(picture)
        except ElementTree.ParseError as error:
            yield f"{picture.relative_to(root)}: {error}"


def forgotten_commands(root: Path) -> Iterator[str]:
    folder = root / "host/commands"
    listed = set(re.findall(r"\bk\w+Command\b", (folder / "commands.cpp").read_text()))
    for path in sorted(folder.glob("*.cpp")):
        for name in re.findall(r"^const Command (\w+) =", path.read_text(), re.MULTILINE):
            if name not in listed:
                yield f"host/commands/commands.cpp: {name} of {path.name} is not in the list"


def forgotten_settings(root: Path) -> Iterator[str]:
    sources = "".join((root / name).read_text() for name in ("dataupdate/service_config.cpp", "host/library/services.cpp"))
    read = re.findall(r'et\w*\((?:id_|kServiceSection|"config"), "(\w+)"', sources)
    types = (root / "host/library/settings.cpp").read_text()
    pages = "".join(path.read_text() for path in (root / "packaging/man").glob("*.conf.5"))
    for key in sorted(set(read)):
        if f'{{"{key}", k' not in types:
            yield f'host/library/settings.cpp: the setting "{key}" has no type'
        if key not in pages:
            yield f'packaging/man: no manual page describes the setting "{key}"'
    if not read:
        yield "dataupdate/service_config.cpp: no setting is read in a form that this check knows"


def main(arguments: list[str]) -> int:
    root = Path(arguments[0]) if arguments else Path(__file__).resolve().parent.parent
    faults = [
        f"{document.relative_to(root)}: {fault}"
        for document in documents(root)
        for fault in (*broken_links(document), *missing_paths(root, document))
    ]
    faults += [*disagreements(root), *disagreements_in_publisher(root), *bad_pictures(root)]
    faults += [*forgotten_commands(root), *forgotten_settings(root), *json_members.faults(root)]
    print("\n".join([*faults, f"{len(documents(root))} documents, {len(faults)} faults"]))
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
