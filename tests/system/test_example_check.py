"""The example of a hook that checks a version gives a verdict only where it looked at the data."""

from __future__ import annotations

import os
import signal
from collections.abc import Sequence
from pathlib import Path

import pytest
from harness import programs, trees

CHECK = Path(__file__).resolve().parents[2] / "examples/check"
ACCEPTED, REFUSED, NO_VERDICT = 0, 1, -signal.SIGKILL
ROWS = 500
MISLEADING = ("a%41.sqlite", "a#b.sqlite", "a?mode=memory.sqlite", "-x.sqlite", "b[1]*.sqlite", "a b\\t.sqlite", "sub/ü.sqlite")


class Hook:
    """The example as it is called before a version is installed, with programs of ours before those of the machine."""

    def __init__(self, place: Path) -> None:
        self.directory = place / "new files"
        self.directory.mkdir()
        self._changes = place / "changes"
        self._programs = place / "programs"
        self._programs.mkdir()

    def add(self, name: str) -> Path:
        trees.write_database(self.directory / name, ROWS)
        return self.directory / name

    def damage(self, name: str) -> None:
        path = self.add(name)
        path.write_bytes(path.read_bytes()[:4096] + b"damage" * 1000)

    def replace(self, program: str, script: str) -> None:
        path = self._programs / program
        path.write_text(f"#!/bin/sh\n{script}\n")
        path.chmod(0o755)

    def run(self, names: Sequence[str]) -> programs.Result:
        self._changes.write_bytes(b"delete=gone.sqlite\0put=text\0" + b"".join(f"put={name}\0".encode() for name in names))
        return programs.run(
            CHECK,
            "check",
            env={
                "PATH": f"{self._programs}:{os.environ['PATH']}",
                "LC_ALL": "C",
                "DATABASE": "zones",
                "VERSION": "7",
                "DIRECTORY": str(self.directory),
                "CHANGES": str(self._changes),
            },
        )


@pytest.fixture
def hook(tmp_path: Path) -> Hook:
    return Hook(tmp_path)


def test_sound_files_are_accepted_and_a_damaged_file_is_refused_by_its_name(hook: Hook) -> None:
    hook.add("first.sqlite")
    hook.add("last.sqlite")
    assert hook.run(()).status == ACCEPTED
    assert hook.run(("first.sqlite", "last.sqlite")).status == ACCEPTED
    hook.damage("last.sqlite")
    (hook.directory / "text.sqlite").write_bytes(b"not a database" * 1000)
    for name in ("last.sqlite", "text.sqlite"):
        result = hook.run(("first.sqlite", name))
        assert (result.status, result.stderr) == (REFUSED, f"{name} of zones 7 is damaged\n")


@pytest.mark.parametrize("name", MISLEADING)
def test_a_file_is_looked_at_whatever_its_name(hook: Hook, name: str) -> None:
    hook.add(name)
    result = hook.run((name,))
    assert (result.status, result.stderr) == (ACCEPTED, "")
    hook.damage(name)
    before = trees.contents(hook.directory)
    result = hook.run((name,))
    assert (result.status, result.stderr) == (REFUSED, f"{name} of zones 7 is damaged\n")
    assert trees.contents(hook.directory) == before, "other files were made"


def test_no_file_is_accepted_unseen_for_a_newline_in_its_name(hook: Hook) -> None:
    hook.damage("a\nb.sqlite")
    assert hook.run(("a\nb.sqlite",)).status == NO_VERDICT


def test_nothing_is_written_beside_a_file_in_wal_mode(hook: Hook) -> None:
    programs.run_ok("sqlite3", hook.add("a.sqlite"), "PRAGMA journal_mode=WAL")
    before = os.stat(hook.directory).st_mtime_ns
    assert hook.run(("a.sqlite",)).status == ACCEPTED
    assert os.listdir(hook.directory) == ["a.sqlite"]
    assert os.stat(hook.directory).st_mtime_ns == before


@pytest.mark.parametrize("end", ("exit 1", "exit 127", "kill -KILL $$"))
@pytest.mark.parametrize("program", ("tr", "sed", "sqlite3"))
def test_there_is_no_verdict_where_a_program_fails(hook: Hook, program: str, end: str) -> None:
    hook.damage("a.sqlite")
    hook.replace(program, end)
    assert hook.run(("a.sqlite",)).status == NO_VERDICT


def test_there_is_no_verdict_without_the_tool(hook: Hook, monkeypatch: pytest.MonkeyPatch, tmp_path: Path) -> None:
    monkeypatch.setenv("PATH", str(tmp_path))
    for program in ("tr", "sed"):
        hook.replace(program, f'exec /usr/bin/{program} "$@"')
    assert hook.run(()).status == NO_VERDICT


@pytest.mark.parametrize(
    "failure",
    (
        "exit 5",  # SQLITE_BUSY
        "exit 7",  # SQLITE_NOMEM
        "exit 10",  # SQLITE_IOERR
        "exit 14",  # SQLITE_CANTOPEN
        "echo 'Error: out of memory' >&2; exit 1",
        "echo '*** in database main ***'; kill -KILL $$",
        "echo '*** in database main ***'; echo 'Page 36: unable to get the page. error code=7'",
        "exit 0",
    ),
)
def test_there_is_no_verdict_where_sqlite_says_nothing_about_the_data(hook: Hook, failure: str) -> None:
    hook.add("a.sqlite")
    hook.replace("sqlite3", failure)
    assert hook.run(("a.sqlite",)).status == NO_VERDICT


def test_there_is_no_verdict_on_a_file_that_is_not_there(hook: Hook) -> None:
    assert hook.run(("a.sqlite",)).status == NO_VERDICT
    assert os.listdir(hook.directory) == []
