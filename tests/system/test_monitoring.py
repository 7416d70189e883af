"""What looks at a fleet: alert rules and a dashboard, on what real machines tell and a real Prometheus collects."""

from __future__ import annotations

import json
import re
import subprocess
import time
from collections.abc import Iterator
from dataclasses import replace
from pathlib import Path

import pytest
from harness import trees, waiting
from harness.device import DATABASE, DOCUMENT, STATUS, Device
from harness.fleet import Machine, Machines, Prometheus
from harness.publisher import Publisher

SOURCE = Path(__file__).resolve().parents[2]
RULES = SOURCE / "examples/monitoring/tarndbud-rules.yml"
RULE_TESTS = SOURCE / "tests/monitoring/alerts_test.yml"
DASHBOARD = SOURCE / "examples/monitoring/tarndbud-dashboard.json"
MACHINES = 300
DAY = 86400
TEXTFILE = 'node_textfile_mtime_seconds{file="/var/lib/prometheus/node-exporter/tarndbud.prom"} 0'


def alerts() -> set[str]:
    return set(re.findall(r"- alert: (\w+)", RULES.read_text()))


def quickened() -> str:
    """The rules with a second in the place of the time for which an alert must hold; promtool tests those times."""
    text, changes = re.subn(r"for: \w+", "for: 1s", RULES.read_text())
    assert changes == len(alerts())
    return text


def promtool(*arguments: str | Path) -> subprocess.CompletedProcess[str]:
    return subprocess.run(["promtool", *map(str, arguments)], capture_output=True, text=True)


def queries() -> list[tuple[str, str]]:
    """Of every panel: its title, and each query with its variables as for all databases."""
    found = []
    for panel in json.loads(DASHBOARD.read_text())["panels"]:
        found += [(panel["title"], target["expr"].replace("$database", ".*")) for target in panel["targets"]]
    return found


def test_the_rules_fire_and_clear_as_their_tests_say() -> None:
    checked = promtool("check", "rules", RULES)
    assert checked.returncode == 0, checked.stdout + checked.stderr
    tested = promtool("test", "rules", RULE_TESTS)
    assert tested.returncode == 0, tested.stdout + tested.stderr


def test_every_alert_has_a_test_in_which_it_fires_and_one_in_which_it_does_not() -> None:
    text = RULE_TESTS.read_text()
    for alert in alerts():
        assert re.search(rf"alertname: {alert}\n\s+exp_alerts:\n", text), f"{alert} is not seen firing"
        assert re.search(rf"alertname: {alert}, exp_alerts: \[\]", text), f"{alert} is not seen clear"


@pytest.mark.parametrize("alert", sorted(alerts()))
def test_a_rule_that_is_wrong_fails_its_tests(alert: str, tmp_path: Path) -> None:
    """Each rule in turn never fires, and then fires at once."""
    (tmp_path / "examples/monitoring").mkdir(parents=True)
    (tmp_path / "tests/monitoring").mkdir(parents=True)
    tests = tmp_path / RULE_TESTS.relative_to(SOURCE)
    header, *groups = re.split(r"(?=  - name: )", RULE_TESTS.read_text())
    tests.write_text(header + "".join(group for group in groups if f"alertname: {alert}" in group))
    head, rule, tail = re.split(rf"(- alert: {alert}\n.*?)(?=      - alert:|  - name:|\Z)", RULES.read_text(), flags=re.DOTALL)
    never = re.sub(r"expr: (\|\n.*?|[^\n]*\n)(?=        for:)", "expr: vector(1) == 0\n", rule, flags=re.DOTALL)
    at_once = re.sub(r"for: \w+", "for: 0s", rule)
    for wrong in (never, at_once):
        assert wrong != rule
        (tmp_path / RULES.relative_to(SOURCE)).write_text(head + wrong + tail)
        assert promtool("test", "rules", tests).returncode != 0, wrong


def test_the_dashboard_is_one_that_can_be_imported() -> None:
    dashboard = json.loads(DASHBOARD.read_text())
    panels = dashboard["panels"]
    for member in ("id", "title"):
        assert len({panel[member] for panel in panels}) == len(panels), member
    places = [[panel["gridPos"][side] for side in "xywh"] for panel in panels]
    cells = [(column, row) for x, y, w, h in places for column in range(x, x + w) for row in range(y, y + h)]
    assert len(set(cells)) == len(cells), "panels overlap"
    assert max(column for column, _ in cells) < 24
    variables = {variable["name"] for variable in dashboard["templating"]["list"]}
    used = set(re.findall(r"\$\{?(\w+)", json.dumps(panels)))
    assert used <= variables, used - variables
    for panel in panels:
        assert panel["description"], panel["title"]


def test_metrics_of_rules_and_dashboard_are_those_of_real_machines(told: str, connected: Device) -> None:
    connected.run_ok("hold", DATABASE, "2")
    told += connected.run_ok("metrics").stdout
    names = set(re.findall(r"\b(?:tarndbud|node_textfile)_[a-z_]+\b", RULES.read_text() + DASHBOARD.read_text()))
    assert len(names) > 10
    for name in names:
        assert re.search(rf"^{name}[{{ ]", told, re.MULTILINE), name


def lose_release(device: Device, publisher: Publisher, tree: Path) -> None:
    """Installs a version, and offers another whose package is missing."""
    trees.write_random_tree(tree, 1, count=3, size=1000)
    publisher.publish(tree, DATABASE, "--level", "1")
    device.update(DATABASE)
    trees.write_tree(tree, {"other": b"other"})
    publisher.publish(tree, DATABASE, "--level", "1")
    publisher.package(DATABASE, 2).unlink()


def test_only_a_hold_without_a_version_leaves_a_machine_without_runs_and_without_the_servers_document(
    connected: Device, publisher: Publisher, tmp_path: Path
) -> None:
    lose_release(connected, publisher, tmp_path / "tree")
    last_run = STATUS / DATABASE / "last_run.json"
    for hold, status in (((), 0), (("1",), 0), (("2",), 1)):
        connected.run_ok("hold", DATABASE, *hold)
        connected.forget_document()
        last_run.unlink(missing_ok=True)
        assert connected.run("update").status == status
        assert (last_run.exists(), DOCUMENT.exists()) == (bool(hold), bool(hold)), hold


@pytest.fixture
def told(connected: Device, publisher: Publisher, tmp_path: Path) -> str:
    """What a real machine tells whose update has failed, with what node_exporter adds for the file."""
    lose_release(connected, publisher, tmp_path / "tree")
    connected.forget_document()
    assert connected.run("update", DATABASE).status == 1
    return connected.run_ok("metrics").stdout + TEXTFILE + "\n"


def healthy(lines: str, number: int) -> Machine:
    """A machine of a fleet in which all is well: a fifth have not yet what was published an hour ago."""
    now = time.time()
    version = 6 if number % 5 == 0 else 7
    values = {
        "tarndbud_installed_version": version,
        "tarndbud_offered_version": version,
        "tarndbud_data_timestamp_seconds": now - 3600 * (1 + number % 24),
        "tarndbud_data_age_seconds": 3600 * (1 + number % 24),
        "tarndbud_last_run_success": 1,
        "tarndbud_last_run_exit_status": 0,
        "tarndbud_last_run_timestamp_seconds": now - 60 * (number % 600),
        "tarndbud_last_run_duration_seconds": 1 + number % 17,
        "tarndbud_document_timestamp_seconds": now - 60 * (number % 50),
        "tarndbud_volume_free_bytes": 5e10,
        "tarndbud_volume_size_bytes": 1e11,
        "node_textfile_mtime_seconds": now,
    }
    return Machine(lines, values, downloads=100 + number)


# What goes wrong on which machine, by the alert that it raises.
TROUBLE = {
    "TarndbudUpdateFails": (1, {"tarndbud_last_run_success": 0}, "download"),
    "TarndbudPackageRefused": (2, {"tarndbud_last_run_success": 0}, "package_refused"),
    "TarndbudDataOld": (3, {"tarndbud_data_timestamp_seconds": time.time() - 30 * DAY}, ""),
    "TarndbudBehindServer": (4, {"tarndbud_offered_version": 9}, ""),
    "TarndbudServerBehind": (5, {"tarndbud_above_offered": 1, "tarndbud_offered_version": 3}, ""),
    "TarndbudNotInstalled": (6, {"tarndbud_installed": 0}, ""),
    "TarndbudVolumeMissing": (7, {"tarndbud_volume_available": 0}, ""),
    "TarndbudVolumeFull": (8, {"tarndbud_volume_free_bytes": 5e9}, ""),
    "TarndbudNothingRuns": (9, {"tarndbud_last_run_timestamp_seconds": time.time() - 5 * DAY}, ""),
    "TarndbudServerSilent": (11, {"tarndbud_document_timestamp_seconds": time.time() - 5 * DAY}, ""),
    "TarndbudMetricsOld": (12, {"node_textfile_mtime_seconds": time.time() - DAY}, ""),
}
SICK = range(100, 120)
"""Machines that a bad release makes fail: more than one in twenty."""


@pytest.fixture
def fleet(told: str) -> Iterator[Machines]:
    made = Machines([healthy(told, number) for number in range(MACHINES)])
    yield made
    made.close()


@pytest.fixture
def prometheus(fleet: Machines, tmp_path: Path) -> Iterator[Prometheus]:
    server = Prometheus(tmp_path / "prometheus", fleet, quickened())
    yield server
    server.close()


def name_of(number: int) -> str:
    return f"machine{number:03}"


def make_trouble(fleet: Machines) -> None:
    for number, values, category in TROUBLE.values():
        machine = fleet.machines[number]
        fleet.machines[number] = replace(machine, values=machine.values | values, category=category)
    for number in SICK:
        machine = fleet.machines[number]
        values = machine.values | {"tarndbud_last_run_success": 0}
        fleet.machines[number] = replace(machine, values=values, category="refused_by_check")


def test_alerts_fire_for_the_right_machines_and_clear_and_the_dashboard_shows_them(
    told: str, fleet: Machines, prometheus: Prometheus
) -> None:
    waiting.until(lambda: len(fleet.scraped) == MACHINES, "every machine was asked", 120)
    waiting.until(lambda: prometheus.value('count(up == 1) or vector(0)') == MACHINES, "all answers are there", 120)
    time.sleep(3)  # for alerts that would be wrong to have their second
    assert prometheus.firing() == {}

    make_trouble(fleet)
    expected = {alert: {name_of(number)} for alert, (number, _, _) in TROUBLE.items()}
    expected["TarndbudUpdateFails"] |= {name_of(number) for number in SICK}
    expected |= {"TarndbudFleetFails": {DATABASE}, "TarndbudFleetRefuses": {DATABASE}}
    assert expected.keys() == alerts()
    waiting.until(lambda: prometheus.firing() == expected, "every alert fires, and no other", 120)

    assert prometheus.label_values("database", "tarndbud_scheduled") == [DATABASE]
    for title, query in queries():
        assert prometheus.query(query), f"{title}: {query}"
    shown = dict(queries())
    assert prometheus.value(shown["Machines"]) == MACHINES
    assert prometheus.value(shown["Failing"]) == len(SICK) + 2
    assert prometheus.value(shown["Later than offered"]) == 1
    assert prometheus.value(shown["Up to date"]) == pytest.approx((MACHINES - 1) / MACHINES)
    published = TROUBLE["TarndbudDataOld"][1]["tarndbud_data_timestamp_seconds"]
    assert prometheus.value(shown["Oldest data"]) == pytest.approx(time.time() - published, abs=600)
    versions = {row["metric"]["version"]: int(row["value"][1]) for row in prometheus.query(shown["Versions in the field"])}
    assert versions == {"6": MACHINES // 5, "7": MACHINES - MACHINES // 5}
    categories = {row["metric"]["category"]: int(row["value"][1]) for row in prometheus.query(shown["Failures by category"])}
    assert categories == {"download": 1, "package_refused": 1, "refused_by_check": len(SICK)}
    (behind,) = prometheus.query(shown["Machines that the server is behind of"])
    assert behind["metric"]["instance"] == name_of(5)
    assert prometheus.value(shown["Downloads"]) > 0

    for number in range(MACHINES):
        fleet.machines[number] = healthy(told, number)
    waiting.until(lambda: prometheus.firing() == {}, "every alert clears", 120)
