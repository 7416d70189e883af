"""A server is set up by docs/publishing.md alone, and a device by docs/operations.md."""

from __future__ import annotations

from harness import trees
from machine import PROJECT, Machine
from places import DATABASE, OPERATIONS, RECORDS, SETTINGS, TREE, configuration, installed, publishing, status


def test_the_document_sets_up_a_server(machine: Machine) -> None:
    for heading in ("Installing", "The key", "The web server"):
        machine.do(publishing(heading))
    if not machine.is_booted:
        machine.do("nginx -s reload")
    machine.do(publishing("The first publication"))
    assert f'"{DATABASE}"' in machine.do("wget -qO- 'http://updates.example.org:8080/database_info/1?os=orv'")


def test_installing_starts_and_schedules_nothing(machine: Machine) -> None:
    machine.do(OPERATIONS.code("sh", "Installing"))
    units = machine.do("systemctl list-unit-files --no-legend 'tarndbud-*'").split("\n")
    states = {line.split()[0]: line.split()[1] for line in units if line}
    assert states == {
        "tarndbud-init.service": "disabled",
        "tarndbud-update.service": "static",
        "tarndbud-update.timer": "disabled",
        "tarndbud-volume@.service": "disabled",
    }
    if machine.is_booted:
        assert machine.do("systemctl list-units --no-legend 'tarndbud-*'") == ""


def test_what_is_installed_is_roots_and_written_by_nobody_else(machine: Machine) -> None:
    names = machine.do("dpkg-query --listfiles libtarnplatform1 libtarndbud1 tarndbud tarndbudpub").split("\n")
    names += machine.do(f"find {SETTINGS} {RECORDS} /var/cache/data_update").split("\n")
    for name in names:
        path = machine.path(name)
        if name.startswith("/") and not path.is_symlink():
            status = path.stat()
            assert (status.st_uid, status.st_mode & 0o022) == (0, 0), name


def test_the_document_sets_up_a_device(machine: Machine) -> None:
    machine.do(f"cp /etc/tarndbudpub/release.pub {PROJECT}")
    shown = machine.do(configuration())
    schedule = OPERATIONS.code("shell", "Scheduling").splitlines()[0]
    # Where no systemd runs there is nothing to start now.
    machine.do(schedule if machine.is_booted else schedule.replace("enable --now", "enable"))
    assert f"{DATABASE}: installed version 1000" in shown
    assert status(machine)["up_to_date"] is True
    trees.assert_same(machine.path(TREE), machine.path(installed()))
    enabled = machine.do("systemctl is-enabled tarndbud-init.service tarndbud-update.timer")
    assert enabled.split() == ["enabled", "enabled"]
