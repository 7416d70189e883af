"""A newer version of the packages takes the place of the installed one."""

from __future__ import annotations

from pathlib import Path

import pytest
from harness import debian
from machine import PROJECT, Machine
from places import SETTINGS, status

PACKAGES = "libtarnplatform1 libtarndbud1 libtarndbud-dev libtarnplatform-dev tarndbud tarndbudpub"
SHIPPED = Path("/") / debian.SHIPPED


def make_newer(machine: Machine, number: int) -> str:
    """A later version of all packages, with other settings; the directory that has it."""
    directory = f"{PROJECT}/newer{number}"
    machine.path(directory).mkdir()
    for name in PACKAGES.split():
        built = next(machine.path(f"{PROJECT}/build/packages").glob(f"{name}_*.deb"))
        debian.repacked(built, f"1.0.{number}", debian.with_other_settings(number), machine.path(directory))
    return directory


def versions(machine: Machine) -> set[str]:
    shown = machine.do(f"dpkg-query --show --showformat='${{Version}} ${{db:Status-Abbrev}}\\n' {PACKAGES}")
    return {line.strip() for line in shown.splitlines()}


def settings(machine: Machine) -> str:
    return machine.do(f"cd {SETTINGS} && find . -type f -exec sha256sum {{}} + | sort")


def test_an_upgrade_keeps_settings_data_and_schedule(machine: Machine) -> None:
    machine.do(f"echo limit_rate = 900m >> {SETTINGS}/data_update/wgetrc")
    before, was = settings(machine), status(machine)
    newer = make_newer(machine, 2)
    machine.do(f"apt-get install {newer}/*.deb")
    assert versions(machine) == {"1.0.2 ii"}
    assert "# A default of version 2" in machine.path(SHIPPED / "volumes.conf").read_text()
    assert settings(machine) == before
    assert status(machine) == was
    machine.do("tarndbudctl check")
    if machine.is_booted:
        assert machine.do("systemctl is-active tarndbud-update.timer") == "active\n"


def test_a_setting_that_was_removed_comes_back_with_the_next_version(machine: Machine) -> None:
    before = settings(machine)
    machine.do(f"cp {SETTINGS}/volumes.conf kept && rm {SETTINGS}/volumes.conf")
    machine.do("apt-get install --reinstall ./newer2/tarndbud_*.deb")
    assert "# A default of version 2" in machine.path(f"{SETTINGS}/volumes.conf").read_text()
    machine.do(f"cp kept {SETTINGS}/volumes.conf")
    assert settings(machine) == before


def test_what_a_killed_upgrade_left_is_no_setting(machine: Machine) -> None:
    before = settings(machine)
    machine.do(f"echo cut off > {SHIPPED}/gone.conf.dpkg-new && echo old > {SHIPPED}/data_update/gone.conf.dpkg-tmp")
    machine.do("apt-get install --reinstall ./newer2/tarndbud_*.deb")
    assert settings(machine) == before
    machine.do(f"rm {SHIPPED}/gone.conf.dpkg-new {SHIPPED}/data_update/gone.conf.dpkg-tmp")


@pytest.mark.parametrize(
    ("number", "moment"),
    [
        (4, "status: libtarndbud1:.* half-installed"),
        (6, "status: tarndbud:.* half-installed"),
        (8, "processing: configure: tarndbud$"),
    ],
)
def test_an_upgrade_that_was_killed_is_finished(machine: Machine, number: int, moment: str) -> None:
    """As long as it is not finished the device goes on with its work."""
    newer = make_newer(machine, number)
    machine.path(SETTINGS / debian.ADDED).write_text("the administrator's\n")
    before, was = settings(machine), status(machine)
    killer = f'grep --quiet --max-count=1 "{moment}" && kill -KILL $PPID'
    killed = machine.try_to(f"dpkg --status-logger='{killer}' --install {newer}/*.deb")
    assert killed.status in (-9, 137), str(killed)
    machine.do("tarndbudctl check")
    assert status(machine) == was
    # Fails where a package was cut off itself, or needs another that was to come later.
    machine.try_to("dpkg --configure --pending")
    machine.do(f"dpkg --install {newer}/*.deb")
    assert versions(machine) == {f"1.0.{number} ii"}
    assert machine.do("dpkg --audit") == ""
    assert settings(machine) == before
    # The version that is removed at last does not know it.
    machine.path(SETTINGS / debian.ADDED).unlink()
