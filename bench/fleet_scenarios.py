"""The scenarios of bench/fleet.json, simulated by the program fleet_model."""

from __future__ import annotations

import json
import os
import re
import subprocess
import tempfile
from collections.abc import Callable
from pathlib import Path

PARAMETERS = Path(__file__).resolve().parent / "fleet.json"
UNITS = {"ms": 0.001, "s": 1, "min": 60, "h": 3600, "d": 86400}
DURATION = re.compile(r"-?\d+(?:ms|s|min|h|d)(?: \d+(?:ms|s|min|h|d))*")

Json = dict[str, object]


def seconds(text: str) -> float:
    """The seconds of "10d 9h" or "-1d"."""
    sign = -1 if text.startswith("-") else 1
    return sign * sum(float(number) * UNITS[unit] for number, unit in re.findall(r"(\d+)([a-z]+)", text))


def in_seconds(value: object) -> object:
    """The same with durations as numbers."""
    if isinstance(value, dict):
        return {name: in_seconds(item) for name, item in value.items()}
    if isinstance(value, list):
        return [in_seconds(item) for item in value]
    return seconds(value) if isinstance(value, str) and DURATION.fullmatch(value) else value


def merged(base: Json, changes: Json) -> Json:
    """Objects are merged member by member; anything else is replaced."""
    result = dict(base)
    for name, value in changes.items():
        old = result.get(name)
        result[name] = merged(old, value) if isinstance(old, dict) and isinstance(value, dict) else value
    return result


def scenarios(is_brief: bool) -> dict[str, Json]:
    described = json.loads(PARAMETERS.read_text())
    last = described["brief"] if is_brief else {}
    return {
        name: in_seconds(merged(merged(described["base"], changes), last))
        for name, changes in described["scenarios"].items()
    }


def simulate(build: Path, parameters: Json) -> Json:
    """What fleet_model prints for these parameters, and what it took."""
    with tempfile.NamedTemporaryFile("w", suffix=".json") as file, tempfile.TemporaryFile("w+") as said:
        json.dump(parameters, file)
        file.flush()
        program = subprocess.Popen([str(build / "bench/fleet_model"), file.name], stdout=said)
        _, status, used = os.wait4(program.pid, 0)
        program.returncode = os.waitstatus_to_exitcode(status)
        if program.returncode != 0:
            raise SystemExit(f"bench/fleet: fleet_model ended with {program.returncode}")
        said.seek(0)
        result = json.load(said)
    result["processor_seconds"] = round(used.ru_utime + used.ru_stime, 1)
    result["peak_rss_bytes"] = used.ru_maxrss * 1024
    return result


def without_unused(name: str, result: Json) -> Json:
    """Leaves out the series that no plot shows."""
    for where in ("caches", "origin", "shield"):
        for series in ("hourly", "hourly_bytes", "detail") if where != "caches" else ("hourly", "hourly_bytes"):
            result.get(where, {}).pop(series, None)
    for number, version in enumerate(result["versions"]):
        if number != 2 or not name.startswith("timer "):
            version.pop("reached_each_ten_minutes")
    return result


def share_at_origin(result: Json) -> float:
    return result["origin"]["requests"] / result["caches"]["requests"]


def peak(result: Json) -> float:
    """The busiest minute at the caches by the mean of all minutes."""
    return result["caches"]["busiest_minute"] / result["caches"]["mean_minute"]


def run(build: Path, is_brief: bool, names: list[str], keep: Callable[[Json], None]) -> None:
    """All scenarios, or those whose names begin with one of these; each result is kept at once, by its name."""
    for name, parameters in scenarios(is_brief).items():
        if names and not any(name.startswith(wanted) for wanted in names):
            continue
        result = without_unused(name, simulate(build, parameters))
        keep({name: result})
        print(
            f"{name:36} origin {100 * share_at_origin(result):8.4f} %, busiest minute {peak(result):5.2f} times the mean, "
            f"{result['processor_seconds']:.1f} s of processor time",
            flush=True,
        )
