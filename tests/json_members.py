"""Holds the tables of docs/json.md against what the sources write into the JSON of the commands."""

from __future__ import annotations

import re
from collections.abc import Iterator
from pathlib import Path

PAGE = "docs/json.md"
SOURCES = {
    "host/commands/check.cpp": ("tarndbudctl check",),
    "host/commands/fix.cpp": ("tarndbudctl fix and force-install",),
    "host/commands/force_install.cpp": ("tarndbudctl fix and force-install",),
    "host/commands/hold.cpp": ("tarndbudctl hold and unhold",),
    "host/commands/init.cpp": ("tarndbudctl init and volume",),
    "host/commands/operation.cpp": ("tarndbudctl update and import", "tarndbudctl fix and force-install"),
    "host/commands/plan.cpp": ("tarndbudctl plan",),
    "host/commands/refresh.cpp": ("tarndbudctl schedule and refresh",),
    "host/commands/report.cpp": ("Objects of tarndbudctl for databases",),
    "host/commands/report.h": ("Objects of tarndbudctl for databases",),
    "host/commands/schedule.cpp": ("tarndbudctl schedule and refresh",),
    "host/commands/update.cpp": ("tarndbudctl update and import",),
    "host/commands/volume.cpp": ("tarndbudctl init and volume",),
    "host/commands/volume_events.cpp": ("tarndbudctl init and volume",),
    "host/library/volume_content.cpp": ("tarndbudctl init and volume",),
    "host/terminal/progress_file.cpp": ("tarndbudctl status",),
    "host/terminal/text.cpp": ("tarndbudctl status",),
    "publisher/changes/changes_json.cpp": ("tarndbudpub changes",),
    "publisher/commands/diff_table.cpp": ("tarndbudpub inspect",),
    "publisher/commands/export_command.cpp": ("tarndbudpub export",),
    "publisher/commands/key_commands.cpp": ("tarndbudpub fingerprint",),
    "publisher/commands/mirror_command.cpp": ("tarndbudpub-mirror",),
    "publisher/commands/package_commands.cpp": ("tarndbudpub inspect",),
    "publisher/commands/publish_commands.cpp": ("tarndbudpub publish and withdraw",),
    "publisher/commands/repository_commands.cpp": ("tarndbudpub promote, rollout, prune and check-repo",),
    "publisher/commands/site_command.cpp": ("tarndbudpub site",),
}
"""By each source that writes what a command prints, the sections of the page that describe it."""
FOLDERS = ("host/commands", "host/terminal", "publisher/changes", "publisher/commands")
"""Each source in these that writes members has to be one of those."""

# Not printed are "sections[id]["auto_update"]", a setting; an entry of the server's document; how a text is built.
ASSIGNED = re.compile(r'(?<!\])\b(?!builder\b|entry\b)\w+\["(\w+)"\] =\s|(?<!const )Json::Value& \w+ = \w+\["(\w+)"\];')
OBJECT = re.compile(r"\bJsonObject\(\s*\{")
MEMBER_OF_OBJECT = re.compile(r'\{"(\w+)",')
PRINTED = re.compile(r'\bprint\("(\w+)"|\\"(\w+)\\" :')
RESULT = re.compile(r'\b(?:MakeResult|Describe)\(([^,;]+),|\bFail\([^;]*(, "\w+")\);|const char\* result = ("\w+")')
QUOTED = re.compile(r'"([^"]+)"')


def up_to_end(text: str, begin: int) -> str:
    """From a position behind an opening parenthesis to the one that closes it."""
    depth = 1
    for match in re.compile(r'"(?:[^"\\]|\\.)*"|[()]').finditer(text, begin):
        depth += {"(": 1, ")": -1}.get(match[0], 0)
        if depth == 0:
            return text[begin : match.start()]
    return text[begin:]


def named(pattern: re.Pattern[str], text: str) -> Iterator[str]:
    """What is in the group that took part in each match."""
    return (next(filter(None, match.groups())) for match in pattern.finditer(text))


def members_of(text: str) -> set[str]:
    objects = "".join(up_to_end(text, match.end()) for match in OBJECT.finditer(text))
    return {*named(ASSIGNED, text), *named(MEMBER_OF_OBJECT, objects), *named(PRINTED, text)}


def results_of(text: str) -> set[str]:
    return {word for argument in named(RESULT, text) for word in QUOTED.findall(argument)}


def in_tables(section: str, first_cell: str) -> list[str]:
    """The first cells of the rows of a section's tables that begin with this cell."""
    tables = re.findall(rf"^\| {first_cell} \|.*\n\|---.*\n((?:\|.*\n)+)", section, re.MULTILINE)
    return re.findall(r"^\| `([^`]+)` \|", "".join(tables), re.MULTILINE)


def disagreements(root: Path) -> Iterator[str]:
    parts = re.split(r"^## (.*)\n", (root / PAGE).read_text(), flags=re.MULTILINE)
    sections = dict(zip(parts[1::2], parts[2::2]))
    texts = {name: (root / name).read_text() for name in SOURCES}
    for what, cell, names_in in (("member", "member", members_of), ("result", "`result`", results_of)):
        for heading in sorted({*sections, *(heading for headings in SOURCES.values() for heading in headings)}):
            told = set(in_tables(sections.get(heading, ""), cell))
            own = [texts[name] for name, headings in SOURCES.items() if heading in headings]
            written = {name for text in own for name in names_in(text)}
            for name in sorted(written - told):
                yield f'{PAGE}: the section "{heading}" lacks the {what} "{name}", which a source writes'
            for name in sorted(told - written):
                yield f'{PAGE}: the section "{heading}" has the {what} "{name}", which no source writes'


def unknown_sources(root: Path) -> Iterator[str]:
    for path in (path for folder in FOLDERS for path in sorted((root / folder).glob("*.cpp"))):
        name = str(path.relative_to(root))
        if name not in SOURCES and members_of(path.read_text()):
            yield f"{name}: writes members of JSON, and tests/json_members.py names no section of {PAGE} for it"


def faults(root: Path) -> Iterator[str]:
    yield from disagreements(root)
    yield from unknown_sources(root)
