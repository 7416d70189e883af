"""The model of fleets: its parameters, the page that its results made, and the real client beside it."""

from __future__ import annotations

import json
import os
import subprocess
import sys
from pathlib import Path

import pytest

SOURCE = Path(__file__).resolve().parents[2]
FLEET = SOURCE / "bench/fleet"
sys.path.insert(0, str(SOURCE))

from bench import fleet_page, fleet_scenarios  # noqa: E402


@pytest.fixture
def build(request: pytest.FixtureRequest) -> Path:
    found = Path(request.config.getoption("--build-dir")).resolve()
    if not (found / "bench/fleet_model").exists():
        pytest.skip("this build has no benchmarks")
    return found


def fleet(build: Path, *arguments: str | Path) -> subprocess.CompletedProcess[str]:
    command = [str(FLEET), "--build-dir", str(build), *map(str, arguments)]
    return subprocess.run(command, capture_output=True, text=True, check=False)


@pytest.mark.parametrize(("text", "expected"), [("6h", 21600), ("10d 9h", 896400), ("-1d", -86400), ("100ms", 0.1)])
def test_durations_of_the_parameters_are_seconds(text: str, expected: float) -> None:
    assert fleet_scenarios.in_seconds({"at": [text]}) == {"at": [pytest.approx(expected)]}


def test_names_and_numbers_of_the_parameters_stay() -> None:
    assert fleet_scenarios.in_seconds({"name": "evenings", "channel": "1", "share": 0.5}) == {
        "name": "evenings", "channel": "1", "share": 0.5,
    }  # fmt: skip


def test_a_scenario_changes_what_it_names_and_nothing_else() -> None:
    base = {"timer": {"period": 1, "delay": 2}, "habits": [1, 2]}
    assert fleet_scenarios.merged(base, {"timer": {"delay": 3}, "habits": [3]}) == {
        "timer": {"period": 1, "delay": 3}, "habits": [3],
    }  # fmt: skip
    assert base["timer"] == {"period": 1, "delay": 2}


def test_the_timer_and_the_cache_of_the_model_are_those_that_are_shipped() -> None:
    base = json.loads(fleet_scenarios.PARAMETERS.read_text())["base"]
    timer = (SOURCE / "packaging/systemd/tarndbud-update.timer").read_text().splitlines()
    assert base["timer"]["period"] == "6h"
    assert "OnCalendar=00/6:00" in timer
    assert f"RandomizedDelaySec={base['timer']['delay']}" in timer
    assert f"FixedRandomDelay={'yes' if base['timer']['fixed_delay'] else 'no'}" in timer
    assert f"Persistent={'yes' if base['timer']['persistent'] else 'no'}" in timer
    proxy = (SOURCE / "packaging/nginx/tarndbud-cache.conf").read_text()
    assert f"proxy_cache_valid 200 {base['caches']['document_seconds'] // 60}m;" in proxy
    assert "proxy_cache_lock on;" in proxy


def test_every_scenario_can_be_simulated(build: Path, tmp_path: Path) -> None:
    result = fleet(build, "--brief", "--keep", tmp_path, "simulate")
    assert result.returncode == 0, result.stderr
    kept = json.loads((tmp_path / "scenarios.json").read_text())
    assert kept.keys() == fleet_scenarios.scenarios(is_brief=True).keys()
    assert all(found["doings"]["runs"] > 0 for found in kept.values())
    assert "| 1,000 |" in fleet_page.parts(kept, None, None)["fleets"]


def test_the_page_has_the_figures_that_were_measured(build: Path) -> None:
    result = fleet(build, "check")
    assert result.returncode == 0, result.stdout + result.stderr


def test_the_model_agrees_with_the_real_client(clean_device: None, build: Path, tmp_path: Path) -> None:
    if os.environ["TARN_SANDBOX"] != "overlay":
        pytest.skip("needs to mount the directories of each device")
    result = fleet(build, "--brief", "--keep", tmp_path, "reality")
    assert result.returncode == 0, result.stdout + result.stderr
    kept = json.loads((tmp_path / "reality.json").read_text())
    assert kept["runs"] == 60
    assert [(row["where"], row["what"]) for row in kept["rows"]] == [
        ("caches", "requests"), ("caches", "bytes"), ("origin", "requests"), ("origin", "bytes"),
    ]  # fmt: skip
    assert all(row["real"] > 0 for row in kept["rows"])


def test_a_parameter_that_is_misspelt_is_named(build: Path, tmp_path: Path) -> None:
    parameters = next(iter(fleet_scenarios.scenarios(is_brief=True).values()))
    file = tmp_path / "parameters.json"
    file.write_text(json.dumps({**parameters, "timer": {"dealy": 5}}))
    result = subprocess.run(
        [build / "bench/fleet_model", file], capture_output=True, text=True, check=False
    )
    assert (result.returncode, result.stderr) == (1, "fleet_model: timer.dealy is unknown\n")
