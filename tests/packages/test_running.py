"""The lines of docs/operations.md do on an installed machine what stands beside them."""

from __future__ import annotations

from harness import trees
from machine import PROJECT, Machine
from places import DATA, DATABASE, FILE, OPERATIONS, TREE, configuration, downloads, installed, publish_a_change, status


def follow(machine: Machine, heading: str) -> str:
    return machine.do(OPERATIONS.code("sh", heading))


def test_the_document_installs_and_configures_what_is_there_already(machine: Machine) -> None:
    follow(machine, "Installing")
    assert f"{DATABASE}: up to date, version 1000" in machine.do(configuration())


def test_a_further_version_comes_by_a_patch(machine: Machine) -> None:
    version = publish_a_change(machine)
    package = f"{DATABASE}_d{version}.tarn"
    assert "vcdiff" in machine.do(f"tarndbudpub inspect /srv/tarndbud/packages/{DATABASE}/{package}").lower()
    before = downloads(machine)
    machine.do("tarndbudctl update")
    assert downloads(machine)[len(before) :] == [package]
    trees.assert_same(machine.path(TREE), machine.path(installed()))


def test_monitoring_tells_the_version(machine: Machine) -> None:
    machine.do("mkdir -p /var/lib/prometheus/node-exporter")
    follow(machine, "Monitoring")
    metrics = machine.path("/var/lib/prometheus/node-exporter/tarndbud.prom").read_text()
    assert f'tarndbud_installed_version{{database="{DATABASE}"}} {status(machine)["installed_version"]}\n' in metrics
    machine.do("rm -r /var/lib/prometheus")


def test_a_database_is_read_under_its_lock(machine: Machine) -> None:
    assert follow(machine, "Reading safely").split() == sorted(path.name for path in machine.path(TREE).iterdir())


def test_damage_is_found_and_repaired(machine: Machine) -> None:
    machine.path(installed() / FILE).write_bytes(b"damaged")
    check, _, repair = OPERATIONS.blocks("sh", "Repairing")[0].partition("\n")
    assert machine.try_to(check).status == 4
    version = status(machine)["installed_version"]
    assert f"{DATABASE}: repaired, now version {version}" in machine.do(repair)
    trees.assert_same(machine.path(TREE), machine.path(installed()))
    machine.do(check)


def test_the_other_commands_of_the_document_run(machine: Machine) -> None:
    machine.do(f"cp /etc/tarndbudpub/release.pub {PROJECT}/release2.pub")
    for heading in ("Scheduling", "Rotating keys", "Hooks", "Moving volumes"):
        follow(machine, heading)
    assert status(machine)["volume"] == str(DATA)
