"""The packages on a machine of their own, which the tests take through its life in the order of their files.

Run by scripts/try-packages. Each test builds on what the ones before it have left, as an administrator would.
"""

from __future__ import annotations

from collections.abc import Iterator
from pathlib import Path

import pytest
from footprint import Footprint
from machine import Booted, Machine

ORDER = ("test_setting_up", "test_running", "test_developing", "test_systemd", "test_upgrading", "test_removing")


def pytest_addoption(parser: pytest.Parser) -> None:
    parser.addoption("--root", type=Path, required=True, help="the root of the machine")
    parser.addoption("--boot", choices=("auto", "always", "never"), default="auto")


def pytest_collection_modifyitems(items: list[pytest.Item]) -> None:
    items.sort(key=lambda item: ORDER.index(item.path.stem))


def booted(root: Path, must: bool) -> tuple[Machine, str]:
    """A machine that has been booted, or one that has not and the reason."""
    machine = Booted(root)
    try:
        machine.begin()
    except (AssertionError, OSError) as error:
        machine.end()
        if must:
            raise
        return Machine(root), str(error).splitlines()[0]
    return machine, ""


@pytest.fixture(scope="session")
def machine_or_reason(request: pytest.FixtureRequest) -> Iterator[tuple[Machine, str]]:
    root, boot = request.config.getoption("--root"), request.config.getoption("--boot")
    machine, reason = (Machine(root), "--no-boot") if boot == "never" else booted(root, boot == "always")
    if not machine.is_booted:
        machine.begin()
    try:
        yield machine, reason
    finally:
        machine.end()


@pytest.fixture(scope="session")
def machine(machine_or_reason: tuple[Machine, str], before: Footprint) -> Machine:
    return machine_or_reason[0]


@pytest.fixture(scope="session")
def systemd(machine_or_reason: tuple[Machine, str], machine: Machine) -> Machine:
    """A machine in which systemd runs."""
    if not machine.is_booted:
        pytest.skip(f"needs systemd to run in the trial's machine: {machine_or_reason[1]}")
    return machine


@pytest.fixture(scope="session")
def before(machine_or_reason: tuple[Machine, str]) -> Footprint:
    """The machine's files before the packages came."""
    return Footprint.of(machine_or_reason[0].root)
