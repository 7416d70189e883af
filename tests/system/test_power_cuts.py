"""The power goes at a drawn moment of an operation, or of its recovery: the disk holds the old or the new, and goes on.

The disk remembers every write and flush. It is made again as it was after a part of them, with a drawn part of what
no flush had confirmed lost, and mounted as after a restart. `bench/proof power` does it as often as there is time for.
"""

from __future__ import annotations

import os
import random
from collections.abc import Iterator
from pathlib import Path

import pytest
from harness import power_cuts, power_operations, power_recovery, recorded_disk
from harness.power_cuts import Machine, Operation
from harness.power_careless import Careless, CarelessRecovery
from harness.recorded_disk import Cut

CUTS = 4
RECOVERIES = 3
SECOND_CUTS = 2


@pytest.fixture
def program(request: pytest.FixtureRequest) -> Path:
    found = request.config.getoption("--build-dir") / "tests/system/recording_disk"
    missing = recorded_disk.missing(found)
    if missing:
        pytest.skip(missing)
    return found


@pytest.fixture
def drawn() -> random.Random:
    """The same in every run that names the same TARN_SEED."""
    seed = int(os.environ.get("TARN_SEED", random.SystemRandom().randrange(1 << 32)))
    print(f"TARN_SEED={seed}")
    return random.Random(seed)


@pytest.fixture
def kind(drawn: random.Random) -> recorded_disk.Kind:
    return drawn.choice(recorded_disk.possible_kinds())


@pytest.fixture
def machine(program: Path, kind: recorded_disk.Kind, scratch: Path) -> Iterator[Machine]:
    made = Machine(kind, scratch)
    yield made
    made.close()


@pytest.mark.parametrize("operation", power_operations.OPERATIONS.values(), ids=power_operations.OPERATIONS.keys())
def test_after_a_power_cut_the_old_is_there_or_the_new_and_the_next_run_goes_on(
    operation: Operation, machine: Machine, program: Path, drawn: random.Random
) -> None:
    recording = power_cuts.record(operation, machine, program, drawn, restless=drawn.random() < 0.5)
    cuts = recorded_disk.some_cuts(recording.recorded, recording.begin, drawn, CUTS)
    tried, wrong = recording.try_cuts(cuts)
    assert tried == CUTS
    assert not wrong, f"{machine.partitions.kind.name}:\n" + "\n".join(wrong)


@pytest.mark.parametrize("_", range(RECOVERIES))
def test_after_a_second_power_cut_during_the_recovery_the_next_run_goes_on(
    _: int, machine: Machine, program: Path, drawn: random.Random
) -> None:
    operation = drawn.choice(power_operations.recovered())
    first = power_cuts.record(operation, machine, program, drawn, restless=drawn.random() < 0.5)
    [cut] = recorded_disk.some_cuts(first.recorded, first.begin, drawn, 1)
    tried, wrong = power_recovery.try_twice(first, cut, SECOND_CUTS, program, drawn, restless=drawn.random() < 0.5)
    assert tried
    assert not wrong, f"{operation.name}, {machine.partitions.kind.name}:\n" + "\n".join(wrong)


@pytest.fixture
def guesses_nothing(program: Path, scratch: Path) -> Iterator[Machine]:
    made = Machine(recorded_disk.KINDS["ext4, writeback"], scratch)
    yield made
    made.close()


def test_a_program_that_renames_before_it_syncs_is_caught(
    guesses_nothing: Machine, program: Path, drawn: random.Random
) -> None:
    recording = power_cuts.record(Careless(), guesses_nothing, program, drawn, restless=False)
    _, wrong = recording.try_cuts(recording.prefixes())
    assert any("neither old nor new" in text for text in wrong), wrong


def test_a_recovery_that_renames_before_it_syncs_is_caught(
    guesses_nothing: Machine, program: Path, drawn: random.Random
) -> None:
    first = power_cuts.record(CarelessRecovery(), guesses_nothing, program, drawn, restless=False)
    second = power_recovery.record_recovery(first, Cut(len(first.recorded)), program, None)
    _, wrong = second.try_cuts(second.prefixes())
    assert any("neither old nor new" in text for text in wrong), wrong
