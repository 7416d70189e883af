"""Removing the packages keeps what the documents say, and purging leaves nothing but the data."""

from __future__ import annotations

from footprint import Footprint
from machine import Machine
from places import RECORDS, SETTINGS, status
from test_upgrading import PACKAGES, settings

# What an administrator made by following the documents, and takes away without any package's help.
MADE_BY_HAND = (
    "/etc/nginx/sites-enabled/tarndbud.conf /etc/tarndbudpub /etc/systemd/system/volume*.mount"
    " /etc/systemd/system/local-fs.target.wants"
)
DATA = ("/srv/*", "/volume[12]", "/volume[12]/*")
OF_THE_SYSTEM = (
    "/etc/.pwd.lock", "/etc/ld.so.cache", "/root/tarndbud*", "/tmp/*", "/var/cache/apt/*", "/var/cache/ldconfig/*",
    "/var/lib/apt/*", "/var/lib/dpkg/*", "/var/lib/nginx*", "/var/lib/systemd/*", "/var/log/*", "/run*",
)  # fmt: skip
"""What the package manager, the service manager and the web server write about their own work."""
EDITED = "/etc/systemd/system/tarndbud-update.timer.d/override.conf"
"""What `systemctl edit tarndbud-update.timer` writes."""


def data(machine: Machine) -> str:
    """The digest of each file of the databases, and of all else that belongs to nobody but the administrator."""
    places = "$(ls -d /srv/databases /srv/tarndbud /volume[12] 2>/dev/null)"
    found = machine.do(f"find {places} -type f -exec sha256sum {{}} + | sort")
    assert "/@database/autoupdate/" in found, "no database is installed, so none can be lost"
    return found


def kept(machine: Machine) -> str:
    records = machine.do(f"find {RECORDS} -type f -name version.json -exec sha256sum {{}} + | sort")
    return settings(machine) + records + machine.do(f"cat {EDITED}") + data(machine)


def test_removing_keeps_settings_records_and_data(machine: Machine) -> None:
    machine.do(f"mkdir -p $(dirname {EDITED}); printf '[Timer]\\nRandomizedDelaySec=1h\\n' >{EDITED}")
    before, was = kept(machine), status(machine)
    assert machine.do("systemctl is-enabled tarndbud-update.timer") == "enabled\n"
    machine.do(f"apt-get remove {PACKAGES}")
    assert machine.try_to("command -v tarndbudctl").status == 1
    assert kept(machine) == before
    if machine.is_booted:
        active = machine.do("systemctl list-units --no-legend --plain --state=active 'tarndbud-*' | cut -d' ' -f1")
        assert [unit for unit in active.split() if not unit.startswith("tarndbud-volume@")] == []
    machine.do("apt-get install ./build/packages/*.deb")
    assert machine.try_to("systemctl is-enabled tarndbud-update.timer").stdout == "disabled\n"
    assert kept(machine) == before
    assert status(machine) == was
    machine.do("tarndbudctl check")


def test_purging_leaves_nothing_but_the_data(machine: Machine, before: Footprint) -> None:
    databases = data(machine)
    machine.do(f"apt-get purge {PACKAGES}")
    assert data(machine) == databases
    machine.do(f"rm -rf {MADE_BY_HAND}")
    after = Footprint.of(machine.root)
    assert before.changes(after, DATA + OF_THE_SYSTEM) == []
    traces = [path for path in after.entries if "tarn" in path or "data_update" in path]
    assert [path for path in traces if not path.startswith(("/srv/", "/var/log/", "/root/tarndbud"))] == []
    assert machine.do(f"ls -d /run/data_update {SETTINGS} 2>/dev/null || true") == ""
