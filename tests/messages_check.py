#!/usr/bin/python3
"""Holds the tables of docs/messages.md against the messages in the sources.

usage: messages_check.py [CHECKOUT]

Every text in the sources that can reach an administrator as an error or a warning has a row in one of the tables, and
every row has its text in the sources; a row has one message, its category, and an exit code that fits the category. A
text is taken for a message unless where it stands says otherwise: help, results on standard output, log lines below a
warning, queries, and the texts of NO_MESSAGES.
Exit status: 0 all right, 1 not.
"""

from __future__ import annotations

import re
import sys
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path

TABLES = "docs/messages.md"
FOLDERS = ("archive", "base", "dataupdate", "decoder", "host", "kit", "platform", "publisher")

# What is given to these calls, or initialises these constants, is no complaint.
QUIET_CALLS = {
    "Add", "Answer", "DeclareDatabases", "DeclareTimeout", "Say", "Show", "Tell", "add_flag", "add_option",
    "add_subcommand", "app", "footer", "set_version_flag", "static_assert", "step", "steps",
}  # fmt: skip
QUIET_CONSTANTS = {
    "kDocumentCache", "kDocumentType", "kEncoding", "kFixed", "kFooter", "kHints",
    "kMagic", "kMaker", "kOthers", "kPackageCache", "kPackageType", "kRules", "kSettings",
    "kSignatureDomain",
}  # fmt: skip
# The help of commands, advice that follows a message, and what is only help.
QUIET_ENDINGS = ("Command", "Help", "Hint", "Meanings")
QUIET_PRIORITIES = {"LOG_INFO", "LOG_NOTICE", "LOG_DEBUG"}
QUERY = re.compile(r"(SELECT|PRAGMA|INSERT|UPDATE|DELETE|CREATE) ")

# Parts of results, of what is read or written, and of messages that have a row under their other words.
NO_MESSAGES = {
    "?os=orv&dlid=",
    "Replacing files",
    "Computing digests",
    "Having it checked",
    "more than 100 h left",
    " min left",
    "ActiveState=active",
    "SubState=running",
    "--property=ActiveState,SubState,NextElapseUSecRealtime",
    "in the future",
    "up to date",
    "above offered",
    "beyond budget",
    "perhaps too little",
    "too little",
    "- (no volume)",
    "not installed",
    "updated from version ",
    "went back",
    "went back from version ",
    " is whole and signed by ",
    " are in ",
    "the full package of version ",
    "more value",
    "rows not compared: ",
    " (compared by content, for want of a key)",
    "has a new definition",
    ", executable now",
    ", no longer executable",
    "row id",
    "a text of ",
    "Data updates",
    "a blob of ",
    "Would carry ",
    "Would write ",
    "Would delete ",
    "the default code table",
    "the code table",
}

# What these sources say is what pages for people say, as long as they complain of nothing.
PAGES = re.compile(r"publisher/site/(?:\w*pages?|page_parts|changes_view|plot|style)\.cpp")
COMPLAINT = re.compile(r"\b(?:throw|warn)\b")

# The exit codes that rows of each category may have.
FAILURES = (
    "failure", "download", "files may be a mixture", "interrupted", "lock unusable", "locked", "low space",
    "no suitable volume", "no verdict", "not writable", "package refused", "package unusable", "refused by check",
    "undecodable", "unknown database", "volumes unknown", "wrong configuration",
)  # fmt: skip
EXIT_CODES = {"warning": "0", **dict.fromkeys(("log", "notice", "part", "result"), "–")}
EXIT_CODES.update(dict.fromkeys(FAILURES, r"[1-9]\d*"))

TOKEN = re.compile(
    r"""//[^\n]*|/\*.*?\*/|R"\((?P<raw>.*?)\)"|"(?P<text>(?:[^"\\\n]|\\.)*)"|'(?:[^'\\\n]|\\.)+'"""
    r"""|\#[^\n]*|\w+|<<|\s+|.""",
    re.DOTALL,
)
CONVERSION = re.compile(r"%[-+ #0]*\d*(?:\.\d+)?(?:hh|h|ll|l|j|z|t)?[diuoxXsfgc%]")
TWO_WORDS = re.compile(r"[a-z]{2,} (?:\S+ )*[A-Za-z]{2,}")


@dataclass(frozen=True)
class Literal:
    """A text in a source file, joined from those that follow each other."""

    where: str
    text: str
    quiet: bool


@dataclass
class Scope:
    name: str
    first: str = ""


class Scanner:
    """Finds the texts of one file and judges each by what it stands in."""

    def __init__(self, path: Path, name: str) -> None:
        self._path = path
        self._name = name
        self._tokens: list[str] = []
        self._scopes: list[Scope] = []
        self._statement: list[str] = []

    def literals(self) -> Iterator[Literal]:
        pending: list[str] = []
        line = begin = 1
        content = self._path.read_text()
        for match in TOKEN.finditer(content):
            token = match.group()
            raw, text = match.group("raw"), match.group("text")
            if raw is not None or text is not None:
                begin = begin if pending else line
                pending.append(raw if raw is not None else unescaped(text))
            elif token.strip() and not token.startswith(("//", "/*")):
                if pending:
                    yield self._literal("".join(pending), begin)
                    pending = []
                self._take(token)
            line += token.count("\n")

    def _literal(self, text: str, line: int) -> Literal:
        literal = Literal(f"{self._name}:{line}", text, self._is_quiet(text))
        self._take('"')
        return literal

    def _take(self, token: str) -> None:
        if token == "(":
            self._scopes.append(Scope(self._tokens[-1] if self._tokens else ""))
        elif token == "{":
            self._scopes.append(Scope(self._assigned()))
        elif token in ")}" and self._scopes:
            self._scopes.pop()
        elif self._scopes and not self._scopes[-1].first:
            self._scopes[-1].first = token
        self._statement = [] if token in ";{}" else [*self._statement, token]
        self._tokens.append(token)

    def _assigned(self) -> str:
        """The name that an initialiser after the last token belongs to."""
        names = [token for token in self._tokens[-6:] if token not in "[]="]
        return names[-1] if self._tokens and self._tokens[-1] == "=" and names else ""

    def _is_quiet(self, text: str) -> bool:
        if QUERY.match(text) or text in NO_MESSAGES or is_quiet_constant(self._assigned()):
            return True
        if "<<" in self._statement and not {"err", "cerr"} & set(self._statement):
            return True
        return any(
            scope.name in QUIET_CALLS
            or is_quiet_constant(scope.name)
            or (scope.name in ("TARN_LOG", "syslog") and scope.first in QUIET_PRIORITIES)
            for scope in self._scopes
        )


def is_quiet_constant(name: str) -> bool:
    return name in QUIET_CONSTANTS or (name.startswith("k") and name.endswith(QUIET_ENDINGS))


def unescaped(text: str) -> str:
    return re.sub(r"\\(.)", lambda match: {"n": " ", "t": " ", "0": " "}.get(match.group(1), match.group(1)), text)


def plain(text: str) -> str:
    """Words alone, since quotation marks and the like differ between a format and what is shown."""
    return " ".join(re.findall(r"[\w/.%+-]+", text.replace("\\", ""))).strip(". ")


def fragments(text: str) -> list[str]:
    """The parts of a message between its variables."""
    return [plain(part) for part in CONVERSION.split(text) if plain(part)]


def literals(root: Path) -> list[Literal]:
    paths = (path for folder in FOLDERS for path in sorted((root / folder).rglob("*")) if path.suffix in (".cpp", ".h"))
    return [
        literal
        for path in paths
        if not is_page(path, root)
        for literal in Scanner(path, str(path.relative_to(root))).literals()
    ]


def is_page(path: Path, root: Path) -> bool:
    return PAGES.fullmatch(str(path.relative_to(root))) is not None and not COMPLAINT.search(path.read_text())


@dataclass(frozen=True)
class Row:
    """A line of a table; the cells are as written."""

    number: int
    message: str
    category: str
    exit_code: str

    def faults(self) -> Iterator[str]:
        code = EXIT_CODES.get(self.category)
        if code is None:
            yield f"{TABLES}:{self.number}: no category: {self.category}"
        elif not re.fullmatch(code, self.exit_code):
            yield f"{TABLES}:{self.number}: {self.category} with the exit code {self.exit_code}"


def rows(root: Path) -> Iterator[Row]:
    for number, line in enumerate((root / TABLES).read_text().splitlines(), 1):
        if line.startswith("| `"):
            _, message, category, exit_code, *_ = (cell.strip() for cell in re.split(r"(?<!\\)\|", line))
            yield Row(number, message.strip("`").replace("\\|", "|"), category, exit_code)


def holds(text: str, part: str) -> bool:
    return f" {part} " in f" {text} "


def says_much(text: str) -> bool:
    """Whether a text has words enough to be known by; "of" stands in many messages."""
    return TWO_WORDS.search(text) is not None


def main(arguments: list[str]) -> int:
    root = Path(arguments[0]) if arguments else Path(__file__).resolve().parent.parent
    table = list(rows(root))
    messages = [plain(part) for row in table for part in row.message.split("…") if plain(part)]
    all_texts = literals(root)
    texts = {literal.text for literal in all_texts}
    known = {part for literal in all_texts for part in fragments(literal.text)}
    faults = [fault for row in table for fault in row.faults()]
    faults += [
        f'{literal.where}: no row in {TABLES} for "{part}"'
        for literal in all_texts
        if not literal.quiet
        for part in fragments(literal.text)
        if says_much(part) and not any(holds(message, part) for message in messages)
    ]
    faults += [
        f'{TABLES}: nothing in the sources says "{message}"'
        for message in messages
        if not any(holds(message, part) and says_much(part) >= says_much(message) for part in known)
    ]
    faults += [f'no text in the sources is "{text}", which is exempt' for text in sorted(NO_MESSAGES - texts)]
    print("\n".join(faults + [f"{len(table)} messages in the tables, {len(faults)} faults"]))
    return 1 if faults or not table else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
