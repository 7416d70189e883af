"""Pages whose tables are made from measurements: between marks in a text, "<!-- bench/TOOL: NAME -->" and "<!-- end -->"."""

from __future__ import annotations

import re
from collections.abc import Callable


def table(heads: list[str], lines: list[list[str]]) -> str:
    return "\n".join(f"| {' | '.join(cells)} |" for cells in (heads, ["---"] * len(heads), *lines)) + "\n"


def filled(tool: str, text: str, made: Callable[[str], str]) -> str:
    """The text with the part of each name made again."""
    part = re.compile(rf"(<!-- bench/{tool}: (\w+) -->\n).*?(<!-- end -->)", re.DOTALL)
    return part.sub(lambda match: match[1] + made(match[2]) + match[3], text)
