"""What each step of an update comes to when it fails, is killed or hangs, as crash_table.json has it."""

from __future__ import annotations

from collections.abc import Iterator
from pathlib import Path

import pytest
from harness import call_faults
from harness.crashes import Crashes, table
from harness.syslog import Syslog

STEPS = (
    "document download", "package download", "signature check", "unpack", "space check", "patch", "script", "creation",
    "deletion", "hook before", "lock", "exchange", "sync", "record", "hook after", "tidy",
)  # fmt: skip

pytestmark = pytest.mark.skipif(not call_faults.is_possible(), reason="other programs cannot be traced here")


@pytest.fixture
def crashes(product: None, clean_device: None, tmp_path: Path) -> Iterator[Crashes]:
    if not Syslog.is_possible():
        pytest.skip("needs to listen at /dev/log, where somebody listens already")
    made = Crashes(tmp_path / "crashes")
    yield made
    made.close()


def test_the_table_has_a_row_for_each_step_and_each_way_to_stop() -> None:
    assert [(row.step, row.fault) for row in table()] == [
        (step, fault) for step in STEPS for fault in ("fails", "killed", "hangs")
    ]


def test_every_step_that_fails_is_killed_or_hangs_comes_to_what_the_table_says(crashes: Crashes) -> None:
    wrong = [told for row in table() if not row.slow and (told := crashes.judge(row))]
    assert not wrong, "\n".join(wrong)
