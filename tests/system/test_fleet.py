"""The model of fleets: its parameters, the page that its results made, and the real client beside it."""

from __future__ import annotations

import json
import os
import subprocess
import sys
from collections.abc import Callable
from pathlib import Path

import pytest

SOURCE = Path(__file__).resolve().parents[2]
FLEET = SOURCE / "bench/fleet"
sys.path.insert(0, str(SOURCE))

from bench import fleet_aims, fleet_page, fleet_scenarios  # noqa: E402

KEPT = SOURCE / "docs/fleet"


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


def test_the_page_has_the_figures_that_were_measured_and_they_meet_the_aims(build: Path) -> None:
    result = fleet(build, "check")
    assert result.returncode == 0, result.stdout + result.stderr


def test_a_page_with_another_figure_is_told(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    page = tmp_path / "fleet.md"
    text = fleet_page.PAGE.read_text()
    monkeypatch.setattr(fleet_page, "PAGE", page)
    for table_or_sentence in ("| 2,000 |", "340 times a second"):
        assert table_or_sentence in text
        page.write_text(text.replace(table_or_sentence, table_or_sentence.replace("0", "1", 1)))
        assert not fleet_page.write(KEPT, only_check=True)
    page.write_text(text)
    assert fleet_page.write(KEPT, only_check=True)


def measured(name: str) -> dict[str, object]:
    return json.loads((KEPT / f"{name}.json").read_text())


def test_the_same_parameters_give_the_figures_that_were_kept(build: Path) -> None:
    name = "fleet 10^4"
    found = fleet_scenarios.simulate(build, fleet_scenarios.scenarios(is_brief=False)[name])
    kept = measured("scenarios")[name]
    assert all(found["caches"][member] == value for member, value in kept["caches"].items() if member != "detail")
    assert found["origin"]["requests"] == kept["origin"]["requests"]
    assert found["doings"] == kept["doings"]


@pytest.mark.parametrize(
    ("spoil", "missed"),
    [
        (lambda fleets, _real, _load: fleets["fleet 10^7"]["origin"].update(requests=10**9), "ten million devices: requests"),
        (lambda fleets, _real, _load: fleets["fleet 10^6"]["caches"].update(busiest_minute=10**6), "a million devices: busiest"),
        (lambda fleets, _real, _load: fleets["fleet 10^7"].update(peak_rss_bytes=4 * 10**9), "simulating ten million devices: memory"),
        (lambda fleets, _real, _load: fleets.pop("fleet 10^7"), "ten million devices"),
        (lambda _fleets, real, _load: real["rows"][0].update(met=False), "requests and bytes"),
        (lambda _fleets, real, _load: real["rows"][0].update(planned=0), "moments of the script"),
        (lambda _fleets, real, _load: real.update(runs=1999), "runs"),
        (lambda _fleets, _real, load: load["rows"][0].update(errors=1), "requests that failed"),
    ],
    ids=["share", "peak", "memory", "not measured", "agreement", "by plan", "runs", "errors"],
)  # fmt: skip
def test_a_figure_beyond_an_aim_is_told(spoil: Callable[..., object], missed: str) -> None:
    kept = [measured(name) for name in ("scenarios", "reality", "load")]
    assert all(aim.met for aim in fleet_aims.aims(*kept))
    spoil(*kept)
    assert any(missed in aim.what for aim in fleet_aims.aims(*kept) if not aim.met)


def test_the_examples_answer_every_request_under_load(clean_device: None, build: Path, tmp_path: Path) -> None:
    if os.environ["TARN_SANDBOX"] != "overlay":
        pytest.skip("needs a network of its own")
    result = fleet(build, "--brief", "--keep", tmp_path, "load")
    assert result.returncode == 0, result.stdout + result.stderr
    rows = json.loads((tmp_path / "load.json").read_text())["rows"]
    assert {(row["by"], row["what"]) for row in rows} == {
        (by, what) for by in ("update server", "caching proxy") for what in ("document", "diff package", "full package")
    }
    assert all(row["requests"] > 0 and row["errors"] + row["timeouts"] == 0 for row in rows)


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
