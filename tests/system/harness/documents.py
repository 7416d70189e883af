"""The project's documents, whose code blocks are followed by tests."""

from __future__ import annotations

import re
from pathlib import Path


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

    def code(self, language: str, heading: str) -> str:
        return "".join(self.blocks(language, heading))


def blocks(language: str, text: str) -> list[str]:
    return re.findall(rf"^```{language}\n(.*?)^```$", text, re.MULTILINE | re.DOTALL)
