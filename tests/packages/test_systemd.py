"""The units do their work under a running systemd, as docs/operations.md says."""

from __future__ import annotations

import re
from pathlib import Path

from harness import programs, trees, waiting
from machine import Machine
from places import DATA, DATABASE, OPERATIONS, TREE, downloads, installed, publish_a_change, status

EXPOSURE = 3.5
"""What systemd thinks of the service's confinement, from 0 (none of the machine) to 10 (all of it)."""
VOLUME_UNIT = "tarndbud-volume@{}.service"
MOUNT = """[Unit]
Description=Volume
[Mount]
What=/srv/{0}.img
Where=/{0}
Options=loop
[Install]
WantedBy=local-fs.target
"""
VOLUMES = ("volume1", "volume2")


def property_of(machine: Machine, unit: str, name: str) -> str:
    return machine.do(f"systemctl show --property={name} --value {unit}").strip()


def journal(machine: Machine, selection: str) -> list[str]:
    return machine.do(f"journalctl --sync && journalctl --output=cat --no-pager {selection}").splitlines()


def run_update(machine: Machine) -> list[str]:
    """Lets the service update, which must succeed; what it and its programs logged."""
    cursor = machine.do("journalctl --lines=0 --show-cursor").rpartition("-- cursor: ")[2].strip()
    machine.do("systemctl start tarndbud-update.service")
    assert property_of(machine, "tarndbud-update.service", "Result") == "success"
    return journal(machine, f"--after-cursor='{cursor}' -t tarndbudctl -t database-hook")


def test_the_timer_has_a_moment_of_its_own(systemd: Machine) -> None:
    assert "tarndbud-update.timer" in systemd.do(OPERATIONS.code("shell", "Scheduling"))
    assert property_of(systemd, "tarndbud-update.timer", "RandomizedDelayUSec") == "6h"
    assert property_of(systemd, "tarndbud-update.timer", "FixedRandomDelay") == "no"
    assert property_of(systemd, "tarndbud-update.timer", "NextElapseUSecRealtime") != ""
    assert property_of(systemd, "tarndbud-init.service", "ActiveState") == "active"


def test_the_directory_of_locks_is_roots(systemd: Machine) -> None:
    assert systemd.do("stat --format='%a %U:%G' /run/data_update") == "755 root:root\n"
    for name in ("update_any", "fresh_info", "config"):
        assert systemd.do(f"stat --format='%a %U:%G' /run/data_update/{name}.lock") == "600 root:root\n"


def test_the_service_updates_by_patch_and_runs_the_hook(systemd: Machine) -> None:
    version = publish_a_change(systemd)
    before = downloads(systemd)
    logged = run_update(systemd)
    assert downloads(systemd)[len(before) :] == [f"{DATABASE}_d{version}.tarn"]
    trees.assert_same(systemd.path(TREE), systemd.path(installed()))
    assert f"pre change of {DATABASE}: 1 files" in logged
    assert f"post change of {DATABASE}: 1 files" in logged


def test_the_journal_has_the_lines_to_watch_for(systemd: Machine) -> None:
    lines = journal(systemd, "-t tarndbudctl")
    for line in (f"Update {DATABASE} completed and succeed", f"Fix {DATABASE} completed and succeed"):
        assert f"`{line}`" in OPERATIONS.section("Monitoring")
        assert any(line in logged for logged in lines), line


def test_the_service_is_confined(systemd: Machine) -> None:
    shown = systemd.do("systemd-analyze security --no-pager tarndbud-update.service")
    level = re.search(r"Overall exposure level for tarndbud-update.service: ([0-9.]+)", shown)
    assert level and float(level[1]) <= EXPOSURE, shown.splitlines()[-1]


def make_volumes(machine: Machine) -> None:
    for name in VOLUMES:
        machine.path(f"/etc/systemd/system/{name}.mount").write_text(MOUNT.format(name))
        machine.do(f"truncate --size=64M /srv/{name}.img && mkfs.ext4 -q -F /srv/{name}.img")
    machine.do(f"systemctl daemon-reload && systemctl enable --now {' '.join(f'{name}.mount' for name in VOLUMES)}")
    machine.do(f"tarndbudctl volume unmounting {DATA} && sed -i '\\,^directory {DATA},d' /usr/tarn/etc/volumes.conf")


def test_databases_leave_a_volume_before_it_is_unmounted(systemd: Machine) -> None:
    make_volumes(systemd)
    assert status(systemd)["volume"] == "/volume1"
    systemd.do(OPERATIONS.code("shell", "Moving volumes"))
    assert property_of(systemd, "volume1.mount", "ActiveState") == "inactive"
    assert status(systemd)["volume"] == "/volume2"
    version = publish_a_change(systemd)
    run_update(systemd)
    assert status(systemd)["installed_version"] == version
    systemd.do(f"tarndbudctl check && diff -r {TREE} {installed(Path('/volume2'))}")


def begin_to_unmount(machine: Machine, volume: str) -> programs.Running:
    """Has a reader hold on, and systemd stop the mount of the volume that is in use; the reader."""
    unit = VOLUME_UNIT.format(volume)
    machine.do(f"systemctl start {volume}.mount && systemctl enable --now {unit} && mkfifo /root/hold")
    reader = machine.start(f"tarndbudctl read {DATABASE} -- sh -c 'echo read > /root/hold; read end < /root/hold'")
    machine.do(f"read begun < /root/hold; systemctl stop --no-block {volume}.mount")
    waiting.until(lambda: property_of(machine, unit, "ActiveState") == "deactivating", "the databases are to move")
    return reader


def end_reading(machine: Machine, reader: programs.Running) -> None:
    machine.do("echo end > /root/hold; rm /root/hold")
    assert reader.wait().status == 0


def test_the_unmounting_waits_for_a_reader(systemd: Machine) -> None:
    systemd.do("systemctl start volume1.mount")
    reader = begin_to_unmount(systemd, "volume2")
    unit = VOLUME_UNIT.format("volume2")
    waiting.until(lambda: any("Fail to lock" in line for line in journal(systemd, f"-u {unit}")), "a try has ended")
    assert property_of(systemd, unit, "ActiveState") == "deactivating"
    assert property_of(systemd, "volume2.mount", "ActiveState") == "active"
    end_reading(systemd, reader)
    systemd.do("systemctl stop volume2.mount")
    assert property_of(systemd, "volume2.mount", "ActiveState") == "inactive"
    assert status(systemd)["volume"] == "/volume1"
    systemd.do("tarndbudctl check")


def test_waiting_for_a_reader_can_be_given_up(systemd: Machine) -> None:
    reader = begin_to_unmount(systemd, "volume1")
    given_up = f"systemctl kill {VOLUME_UNIT.format('volume1')}"
    assert f"`{given_up}`" in OPERATIONS.section("Moving volumes")
    systemd.do(f"{given_up} && systemctl stop volume1.mount")
    assert property_of(systemd, "volume1.mount", "ActiveState") == "inactive"
    end_reading(systemd, reader)
    systemd.do("systemctl reset-failed && systemctl start volume1.mount && tarndbudctl check")
    assert status(systemd)["volume"] == "/volume1"


def test_a_restart_of_the_machine_leaves_databases_and_schedule_as_they_were(systemd: Machine) -> None:
    systemd.do("systemctl enable --now tarndbud-volume@volume1.service volume1.mount")
    systemd.restart()
    assert status(systemd)["volume"] == "/volume1"
    systemd.do(f"tarndbudctl check && test -e /run/data_update/using_{DATABASE}.lock")
    assert property_of(systemd, "tarndbud-update.timer", "ActiveState") == "active"
    assert property_of(systemd, VOLUME_UNIT.format("volume1"), "ActiveState") == "active"
    assert systemd.do("systemctl --failed --no-legend") == ""
