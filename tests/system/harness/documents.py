"""The project's documents, whose code blocks are followed by tests."""

from __future__ import annotations

import re
from dataclasses import dataclass
from pathlib import Path


@dataclass(frozen=True)
class Step:
    """A block of commands, and what the document says that they print: the block of text that comes next, if any."""

    heading: str
    commands: str
    shown: str | None


class Document:
    def __init__(self, path: Path) -> None:
        self._text = path.read_text()

    def headings(self) -> list[str]:
        return re.findall(r"^## (.*)$", self._text, re.MULTILINE)

    def section(self, heading: str) -> str:
        return self._text.split(f"\n## {heading}\n")[1].split("\n## ")[0]

    def introduction(self, language: str) -> str:
        """The code of a language before the first section."""
        return "".join(blocks(language, self._text.split("\n## ")[0]))

    def blocks(self, language: str, heading: str) -> list[str]:
        """The code blocks of a language in a section."""
        return blocks(language, self.section(heading))

    def steps(self, heading: str, language: str = "sh") -> list[Step]:
        """The commands of a section, in the order of the document."""
        return steps(heading, self.section(heading), language)

    def code(self, language: str, heading: str) -> str:
        return "".join(self.blocks(language, heading))


def blocks(language: str, text: str) -> list[str]:
    return re.findall(rf"^```{language}\n(.*?)^```$", text, re.MULTILINE | re.DOTALL)


def steps(heading: str, section: str, language: str) -> list[Step]:
    """The blocks of a language, each with the block of "text" that is the next block of the section."""
    found = re.findall(r"^```(\w*)\n(.*?)^```$", section, re.MULTILINE | re.DOTALL)
    following = [*found[1:], ("", "")]
    return [
        Step(heading, commands, output if next_kind == "text" else None)
        for (kind, commands), (next_kind, output) in zip(found, following)
        if kind == language
    ]
