"""Every system call of every operation meets every fault that it can meet, and is the last one, each once."""

from __future__ import annotations

import subprocess
import time

from bench.proofs import Row, Trial
from harness import call_faults
from harness.call_faults import Case
from harness.crashes import Crashes, table
from harness.sweep import Found, Sweep

SLICES = 64
BRIEF = 2
"""Of each operation."""
TABLE = "each step that fails, is killed or hangs comes to what the crash table says"
PROMISE = "whichever system call fails or is the last: the old version or the new one, and the next run is exact"


def prove(trial: Trial) -> list[Row]:
    """As many slices as there is time for, from the one on that the seed names."""
    deadline = time.monotonic() + trial.seconds
    subprocess.run(["cmake", "--install", str(trial.build)], check=True, stdout=subprocess.DEVNULL)
    if not call_faults.is_possible():
        trial.say("other programs cannot be traced here, so no call can be made to fail")
        return [Row(PROMISE, 0, "faults", [])]
    crashes = crash_row(trial)
    sweep = Sweep(trial.scratch / "sweep", say=trial.say)
    try:
        return [crashes, *tried(trial, sweep, deadline)]
    finally:
        sweep.close()


def crash_row(trial: Trial) -> Row:
    rows = [row for row in table() if not (trial.brief and row.slow)]
    crashes = Crashes(trial.scratch / "crashes")
    try:
        wrong = [told for told in map(crashes.judge, rows) if told]
    finally:
        crashes.close()
    trial.say(f"{len(rows)} rows of the crash table, {len(wrong)} wrong")
    return Row(TABLE, len(rows), "steps", wrong, where="chain, full package")


def tried(trial: Trial, sweep: Sweep, deadline: float) -> list[Row]:
    cases = sweep.cases()
    total = {name: sum(case.operation == name for case in cases) for name in sweep.operations}
    trial.say(f"{len(cases)} faults in {SLICES} slices")
    whole = 0
    for number in range(SLICES):
        chosen = call_faults.slice_of(cases, trial.seed + number, SLICES)
        chosen = [case for name in sweep.operations for case in few(chosen, name)] if trial.brief else chosen
        whole += sweep.try_all(chosen, deadline) == len(chosen)
        wrong = sum(len(found.wrong) for found in sweep.found.values())
        trial.say(f"slice {(trial.seed + number) % SLICES} of {SLICES}, {wrong} wrong")
        if trial.brief or time.monotonic() > deadline:
            break
    return [row(name, found, total[name], whole) for name, found in sweep.found.items()]


def few(cases: list[Case], operation: str) -> list[Case]:
    return [case for case in cases if case.operation == operation][:BRIEF]


def row(name: str, found: Found, total: int, whole: int) -> Row:
    extra = {
        "total": total, "swept, %": round(100 * found.tried / total, 1), "slices": whole, "slices in all": SLICES,
        "operation failed or was killed": found.failed, "call not made this time": found.unmet,
    }  # fmt: skip
    return Row(PROMISE, found.tried, "faults", found.wrong, where=name, extra=extra)
