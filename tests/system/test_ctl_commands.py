"""The administrator's commands beyond an update: repair, forced versions, volumes, readers, measurements."""

from __future__ import annotations

import json
import os
import re
import signal
import subprocess
from pathlib import Path

import pytest
from harness import programs, trees, waiting
from harness.device import DATABASE, DOCUMENT, RUN, STATUS, Device
from harness.faultserver import PAGE, FaultServer
from harness.publisher import Publisher
from harness.volumes import Volumes

SAMPLE = re.compile(
    r'(?P<name>[a-zA-Z_:][a-zA-Z0-9_:]*)(?:\{(?P<labels>(?:[a-zA-Z_]\w*="(?:[^"\\\n]|\\[\\"n])*",?)*)\}) (?P<value>\S+)'
    r"|(?P<bare>[a-zA-Z_:][a-zA-Z0-9_:]*) (?P<bare_value>\S+)"
)


def publish(publisher: Publisher, tree: Path, seed: int) -> Path:
    publisher.publish(trees.write_random_tree(tree, seed, count=20, size=1000), DATABASE)
    return tree


def install(device: Device, publisher: Publisher, tree: Path) -> Path:
    publish(publisher, tree, 1)
    device.run_ok("update", DATABASE)
    return tree


def measurements(text: str) -> dict[str, float]:
    """Reads the text form strictly: help and type once and before the samples, which stand together."""
    values: dict[str, float] = {}
    family, seen = "", set()
    lines = text.split("\n")
    assert lines.pop() == ""
    for line in lines:
        if line.startswith("# HELP "):
            family = line.split(" ", 3)[2]
            assert family not in seen
            assert line.split(" ", 3)[3]
            seen.add(family)
        elif line.startswith("#"):
            assert line == f"# TYPE {family} {'counter' if family.endswith('_total') else 'gauge'}"
        else:
            match = SAMPLE.fullmatch(line)
            assert match, line
            assert (match["name"] or match["bare"]) == family
            series = line.rsplit(" ", 1)[0]
            assert series not in values
            values[series] = float(match["value"] or match["bare_value"])
    return values


def test_fix_repairs_exactly_what_is_damaged(connected: Device, publisher: Publisher, tmp_path: Path) -> None:
    tree = install(connected, publisher, tmp_path / "tree")
    assert connected.run_ok("fix", DATABASE).stdout == f"{DATABASE}: intact, version 1\n"
    damaged = next(path for path in sorted(connected.installed(DATABASE).rglob("*")) if path.is_file())
    damaged.write_bytes(b"damaged")
    assert connected.run("check", DATABASE).status == 4
    result = json.loads(connected.run_ok("fix", "--json").stdout)
    assert result == [{"id": DATABASE, "result": "repaired", "version": 1}]
    trees.assert_same(tree, connected.installed(DATABASE))
    connected.run_ok("check", DATABASE)


def test_force_install_brings_an_older_version_and_update_the_newest(
    connected: Device, publisher: Publisher, tmp_path: Path
) -> None:
    # Numbers that no port holds.
    versions = {7000001: tmp_path / "first", 7000002: tmp_path / "second"}
    for version, tree in versions.items():
        trees.write_random_tree(tree, version, count=20, size=1000)
        publisher.publish(tree, DATABASE, "--data-version", str(version))
    connected.run_ok("update", DATABASE)
    told = connected.run_ok("force-install", DATABASE, "-1").stdout
    assert '"update" installs a later version when the server has one' in told
    assert connected.version(DATABASE) == 7000001
    trees.assert_same(versions[7000001], connected.installed(DATABASE))
    connected.run_ok("update", DATABASE)
    assert connected.version(DATABASE) == 7000002
    trees.assert_same(versions[7000002], connected.installed(DATABASE))


def test_a_fix_brings_a_forced_version_back_while_it_is_held(
    connected: Device, publisher: Publisher, tmp_path: Path
) -> None:
    for version in (7000001, 7000002):
        tree = trees.write_tree(tmp_path / str(version), {"a": str(version).encode()})
        publisher.publish(tree, DATABASE, "--data-version", str(version))
    connected.run_ok("update", DATABASE)
    connected.run_ok("hold", DATABASE)
    told = connected.run_ok("force-install", DATABASE, "-1", "--even-held").stdout
    assert 'as the database is held, "fix" installs version 7000001 again should it find damage' in told
    (connected.installed(DATABASE) / "a").write_bytes(b"damaged")
    connected.run_ok("fix", DATABASE)
    assert (connected.installed(DATABASE) / "a").read_bytes() == b"7000001"


def test_a_forced_version_names_the_link_that_was_made_of_the_servers(
    connected: Device, publisher: Publisher, tmp_path: Path
) -> None:
    install(connected, publisher, tmp_path / "tree")
    publisher.link_to(DATABASE, "http://127.0.0.1:9/1/x_1")
    connected.run_ok("refresh")
    result = connected.run("force-install", DATABASE, "3")
    assert result.status == 1
    assert "http://327.0.0.3:9/3/x_3" in result.stderr
    assert len(result.stderr.splitlines()) == 1


def test_refresh_ends_the_rule_of_a_captive_portals_page(
    connected: Device, publisher: Publisher, tmp_path: Path
) -> None:
    tree = tmp_path / "tree"
    publish(publisher, tree, 1)
    DOCUMENT.parent.mkdir(parents=True, exist_ok=True)
    DOCUMENT.write_bytes(PAGE)
    result = connected.run("update", DATABASE)
    assert result.status == 1
    assert 'run "tarndbudctl refresh"' in result.stderr
    assert json.loads(connected.run_ok("refresh", "--json").stdout) == {"dropped": True}
    connected.run_ok("update", DATABASE)
    trees.assert_same(tree, connected.installed(DATABASE))


def test_refresh_waits_for_whoever_fetches_the_document(faulty: Device, faults: FaultServer) -> None:
    faulty.netloc = f"{faults.netloc}/hang"
    faulty.configure()
    fetching = faulty.start("status")
    assert faults.reached.wait(60)
    refresh = faulty.start("refresh")
    waiting.until(lambda: waiting.has_open(refresh.pid, RUN / "fresh_info.lock"), "refresh waits")
    assert not refresh.has_ended()
    assert DOCUMENT.exists()
    faults.gate.set()
    fetching.wait()
    assert refresh.wait().status == 0
    assert not DOCUMENT.exists()


def test_read_holds_off_a_replacement_and_ends_as_its_command(
    connected: Device, publisher: Publisher, tmp_path: Path
) -> None:
    first = install(connected, publisher, tmp_path / "first")
    second = publish(publisher, tmp_path / "second", 2)
    connected.run_ok("refresh")
    fifo = tmp_path / "fifo"
    os.mkfifo(fifo)
    reader = connected.start("read", DATABASE, "--", "sh", "-c", "read -r word < $0; exit 42", str(fifo))
    with fifo.open("w") as gate:
        update = connected.start("update", DATABASE)
        waiting.until(lambda: waiting.has_open(update.pid, RUN / f"using_{DATABASE}.lock"), "the update waits")
        assert not update.has_ended()
        trees.assert_same(first, connected.installed(DATABASE))
        gate.write("go\n")
    assert reader.wait().status == 42
    assert update.wait().status == 0
    trees.assert_same(second, connected.installed(DATABASE))
    with connected.locked(f"using_{DATABASE}.lock"):
        assert connected.run("read", DATABASE, "--timeout", "0", "--", "touch", str(tmp_path / "ran")).status == 75
    assert not (tmp_path / "ran").exists()


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGKILL])
def test_a_command_under_read_ends_with_it(
    connected: Device, publisher: Publisher, tmp_path: Path, number: signal.Signals
) -> None:
    install(connected, publisher, tmp_path / "tree")
    told = tmp_path / "told"
    os.mkfifo(told)
    reader = connected.start("read", DATABASE, "--", "sh", "-c", "echo $$ > $0; exec sleep 600", str(told))
    command = int(told.read_text())
    os.kill(reader.pid, number)
    assert reader.wait(20).status == (128 + number if number == signal.SIGTERM else -number)
    waiting.until(lambda: not Path(f"/proc/{command}").exists(), "the command has ended, too")
    assert not connected.is_locked(f"using_{DATABASE}.lock")


def test_the_databases_follow_their_volume(
    connected: Device, publisher: Publisher, volumes: Volumes, tmp_path: Path
) -> None:
    tree = install(connected, publisher, tmp_path / "tree")
    first, second = connected.volume, volumes.make("directory")
    assert first is not None
    connected.list_volumes(first, second)
    result = json.loads(connected.run_ok("volume", "unmounting", str(first), "--json").stdout)
    assert result == {"result": "moved", "volume": str(second)}
    connected.volume = second
    trees.assert_same(tree, connected.installed(DATABASE))
    connected.run_ok("check", DATABASE)
    connected.list_volumes(second)
    connected.run_ok("volume", "unmounting", str(second))
    assert json.loads(connected.run_ok("volume", "show", "--json").stdout)["volume"] is None
    connected.run_ok("update", DATABASE)
    connected.run_ok("volume", "mounted", str(second))
    trees.assert_same(tree, connected.installed(DATABASE))
    connected.run_ok("check", DATABASE)


def test_metrics_tell_versions_ages_sizes_and_the_last_result(
    connected: Device, publisher: Publisher, tmp_path: Path
) -> None:
    install(connected, publisher, tmp_path / "tree")
    output = tmp_path / "tarndbud.prom"
    assert connected.run_ok("metrics", "--output", str(output)).stdout == ""
    values = measurements(output.read_text())
    database = f'{{database="{DATABASE}"}}'
    run = f'{{database="{DATABASE}",operation="update"}}'
    assert values[f"tarndbud_installed_version{database}"] == 1
    assert values[f"tarndbud_offered_version{database}"] == 1
    assert values[f"tarndbud_installed_bytes{database}"] == 20 * 1000
    assert 0 <= values[f"tarndbud_data_age_seconds{database}"] < 600
    assert values[f"tarndbud_last_run_success{run}"] == 1
    package = publisher.package(DATABASE, 1).stat().st_size
    assert values[f"tarndbud_last_run_downloaded_bytes{run}"] == package + DOCUMENT.stat().st_size
    assert values["tarndbud_volume_available"] == 1
    publish(publisher, tmp_path / "tree", 2)
    publisher.package(DATABASE, 2).unlink()
    connected.run_ok("refresh")
    assert connected.run("update", DATABASE).status == 1
    values = measurements(connected.run_ok("metrics").stdout)
    assert values[f"tarndbud_last_run_success{run}"] == 0
    assert values[f"tarndbud_offered_version{database}"] == 2
    assert (STATUS / DATABASE / "last_run.json").exists()


def test_metrics_are_what_prometheus_reads(connected: Device, publisher: Publisher, tmp_path: Path) -> None:
    install(connected, publisher, tmp_path / "tree")
    metrics = connected.run_ok("metrics").stdout
    check = ["promtool", "check", "metrics"]
    assert subprocess.run(check, input=metrics, capture_output=True, text=True).stderr == ""
    twice = subprocess.run(check, input=metrics + metrics, capture_output=True, text=True)
    assert twice.returncode != 0
