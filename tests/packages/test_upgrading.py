"""A newer version of the packages takes the place of the installed one."""

from __future__ import annotations

from machine import Machine
from places import SETTINGS, status

PACKAGES = "libtarnplatform1 libtarndbud1 libtarndbud-dev libtarnplatform-dev tarndbud tarndbudpub"
MAKE_NEWER = r"""
mkdir newer
for package in PACKAGES; do
	rm -rf unpacked
	dpkg-deb --raw-extract build/packages/${package}_*.deb unpacked
	sed -i 's/1\.0\.0/1.0.1/g' unpacked/DEBIAN/control
	find unpacked/usr/share/tarndbud/settings -type f -exec sh -c 'echo "# a newer default" >> "$1"' - {} \; 2>/dev/null ||
		true
	dpkg-deb --build unpacked newer/$package.deb
done
"""


def settings(machine: Machine) -> str:
    return machine.do(f"cd {SETTINGS} && find . -type f -exec sha256sum {{}} + | sort")


def test_an_upgrade_keeps_settings_data_and_schedule(machine: Machine) -> None:
    machine.do(f"echo limit_rate = 900m >> {SETTINGS}/data_update/wgetrc")
    before, was = settings(machine), status(machine)
    machine.do(MAKE_NEWER.replace("PACKAGES", PACKAGES))
    machine.do("apt-get install ./newer/*.deb")
    versions = machine.do(f"dpkg-query --show --showformat='${{Version}} ' {PACKAGES}").split()
    assert set(versions) == {"1.0.1"}
    assert settings(machine) == before
    assert status(machine) == was
    machine.do("tarndbudctl check")
    if machine.is_booted:
        assert machine.do("systemctl is-active tarndbud-update.timer") == "active\n"


def test_a_setting_that_was_removed_comes_back_with_the_next_version(machine: Machine) -> None:
    before = settings(machine)
    machine.do(f"cp {SETTINGS}/volumes.conf kept && rm {SETTINGS}/volumes.conf")
    machine.do("apt-get install --reinstall ./newer/tarndbud.deb")
    assert "# a newer default" in machine.path(f"{SETTINGS}/volumes.conf").read_text()
    machine.do(f"cp kept {SETTINGS}/volumes.conf")
    assert settings(machine) == before
