"""Every system call of every operation fails once, or is its last: what is there is one version, and the next is exact.

Each run takes a few of one slice of all faults, another slice each time. TARN_SEED=N takes that of N again, TARN_CASES
names cases instead as a failure tells them, with ";" between them, and `bench/proof faults` takes slice after slice.
"""

from __future__ import annotations

import os
import random
from collections.abc import Iterator
from pathlib import Path

import pytest
from harness import call_faults
from harness.call_faults import Case
from harness.sweep import Sweep

SLICES = 64
TRIED = 70
"""As many as take less than half a minute."""

pytestmark = pytest.mark.skipif(not call_faults.is_possible(), reason="other programs cannot be traced here")


@pytest.fixture
def sweep(product: None, clean_device: None, tmp_path: Path) -> Iterator[Sweep]:
    made = Sweep(tmp_path / "sweep")
    yield made
    made.close()


def chosen(sweep: Sweep) -> list[Case]:
    named = os.environ.get("TARN_CASES")
    if named:
        return [Case.of(text) for text in named.split(";")]
    seed = int(os.environ.get("TARN_SEED", random.SystemRandom().randrange(1 << 32)))
    print(f"TARN_SEED={seed}")
    return call_faults.slice_of(sweep.cases(), seed, SLICES)[:TRIED]


def test_a_fault_at_any_system_call_leaves_one_version_and_the_next_run_is_exact(sweep: Sweep) -> None:
    cases = chosen(sweep)
    sweep.try_all(cases)
    found = sweep.found.values()
    wrong = [case for one in found for case in one.wrong]
    assert not wrong, "\n".join(wrong)
    # Programs that wait for one another do not make the same number of calls each time.
    assert sum(one.tried for one in found) > len(cases) * 0.8


def test_the_slices_together_are_all_faults(sweep: Sweep) -> None:
    cases = sweep.cases()
    slices = [call_faults.slice_of(cases, number, SLICES) for number in range(SLICES)]
    assert sorted(map(str, cases)) == sorted(str(case) for one in slices for case in one)
    assert all({case.operation for case in one} == set(sweep.operations) for one in slices)
    assert {case.fault for case in cases} == {*call_faults.ERRORS, "short", "kill"}
