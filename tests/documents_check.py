#!/usr/bin/python3
"""Holds what the documents say about the tree against the tree.

usage: documents_check.py [CHECKOUT]

Every link of README.md, CHANGELOG.md and docs/*.md leads to a file and a heading that exist, and so does every path of
the checkout that they name. The table of folders in docs/contributing.md, the drawing in docs/architecture.md and the
includes of the sources agree about which folder sees which, without a circle. Pictures are well-formed. Every command
is in the list of all commands, and every setting has its type and a manual page.
Exit status: 0 all right, 1 not.
"""

from __future__ import annotations

import re
import sys
from collections.abc import Iterator
from graphlib import CycleError, TopologicalSorter
from pathlib import Path
from xml.etree import ElementTree

FOLDERS = ("archive", "base", "dataupdate", "decoder", "host", "kit", "platform", "publisher")
TABLE = "docs/contributing.md"
DRAWING = "docs/architecture.md"
ELSEWHERE = {"build", "packages", "database_info", "files", "zones", "a", "bytes"}
"""What paths begin with that lie in a build, a repository or a package, and what is no path."""
LINK = re.compile(r"!?\[[^\]]*\]\(([^)\s]+)\)")
QUOTED = re.compile(r"`([^`\n]+)`")
PATH = re.compile(r"(?:\./)?[a-z.][\w.-]*(?:/[\w.*-]+)+/?|[a-z]\w*/|[\w-]+\.(?:cpp|h|py|md|sh)")
INCLUDE = re.compile(r'^#include ["<](\w+)/', re.MULTILINE)
ARROW = re.compile(r"^\t(\w+)(?:\[.*?\])? --> (\w+(?: & \w+)*)$", re.MULTILINE)

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


def in_table(root: Path) -> Sees:
    """What each folder sees by the table with the rows "| `folder/` | what it holds | sees |"."""
    sees: Sees = {}
    for line in (root / TABLE).read_text().splitlines():
        cells = [cell.strip() for cell in line.strip("|").split("|")]
        folder = re.fullmatch(r"`(\w+)/`", cells[0])
        if folder and folder[1] in FOLDERS and len(cells) == 3:
            sees[folder[1]] = set(re.findall(r"`(\w+)/", cells[2]))
    return sees


def in_drawing(root: Path) -> Sees:
    """What each folder sees by the arrows of the first drawing."""
    drawing = (root / DRAWING).read_text().split("```mermaid\n")[1].split("```")[0]
    sees: Sees = {folder: set() for folder in FOLDERS}
    for source, targets in ARROW.findall(drawing):
        sees.setdefault(source, set()).update(targets.split(" & "))
    return sees


def in_sources(root: Path) -> Sees:
    """What each folder includes; the C headers of the platform lie in folders of their own names."""
    platform = {path.name for path in (root / "platform").iterdir() if path.is_dir()}
    sees: Sees = {}
    for folder in FOLDERS:
        texts = (path.read_text() for path in sorted((root / folder).rglob("*")) if path.suffix in (".cpp", ".h"))
        named = {name for text in texts for name in INCLUDE.findall(text)}
        sees[folder] = {"platform" if name in platform else name for name in named} & set(FOLDERS) - {folder}
    return sees


def disagreements(root: Path) -> Iterator[str]:
    actual = in_sources(root)
    for where, said in ((TABLE, in_table(root)), (DRAWING, in_drawing(root))):
        for folder in FOLDERS:
            if said.get(folder) != actual[folder]:
                shown = [" ".join(sorted(names)) or "nothing" for names in (said.get(folder, set()), actual[folder])]
                yield f"{where}: {folder} sees {shown[0]} there, and includes {shown[1]}"
    try:
        tuple(TopologicalSorter(actual).static_order())
    except CycleError as error:
        yield f"the folders include each other in a circle: {error.args[1]}"


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
    types = (root / "host/library/preparation.cpp").read_text()
    pages = "".join(path.read_text() for path in (root / "packaging/man").glob("*.conf.5"))
    for key in sorted(set(read)):
        if f'{{"{key}", k' not in types:
            yield f'host/library/preparation.cpp: the setting "{key}" has no type'
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
    faults += [*disagreements(root), *bad_pictures(root), *forgotten_commands(root), *forgotten_settings(root)]
    print("\n".join([*faults, f"{len(documents(root))} documents, {len(faults)} faults"]))
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
