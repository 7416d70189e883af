"""Other users of the machine."""

from __future__ import annotations

from pathlib import Path

import pytest

from . import programs


def run_as_other(*arguments: str | Path, cwd: Path | None = None) -> programs.Result:
    """Runs a program as an ordinary user; the test is skipped where there is none."""
    result = programs.run("/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", *arguments, cwd=cwd)
    if "setpriv: " in result.stderr:
        pytest.skip("needs another user, and this namespace has one only")
    return result
