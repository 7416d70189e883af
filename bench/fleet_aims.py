"""What fleets, the model and the servers are to keep, and what was found of it."""

from __future__ import annotations

from dataclasses import dataclass

from bench import fleet_scenarios

MOST_AT_ORIGIN = 0.001
MOST_OF_MEAN = 3
MOST_SECONDS, MOST_BYTES = 600, 4_000_000_000
LEAST_RUNS, MOST_OFF = 2000, 0.02
FLEETS = {
    "fleet 10^6": "a million devices",
    "fleet 10^7": "ten million devices",
    "blackout, a million devices": "a million devices after a blackout",
}

Json = dict[str, object]


@dataclass(frozen=True)
class Aim:
    what: str
    limit: str
    found: str
    met: bool


def of_fleet(what: str, result: Json) -> list[Aim]:
    share, peak = fleet_scenarios.share_at_origin(result), fleet_scenarios.peak(result)
    return [
        Aim(f"{what}: requests that reach the origin", f"below {100 * MOST_AT_ORIGIN:g} %", f"{100 * share:.3f} %",
            share < MOST_AT_ORIGIN),
        Aim(f"{what}: busiest minute / mean", f"at most {MOST_OF_MEAN}", f"{peak:.2f}", peak <= MOST_OF_MEAN),
    ]  # fmt: skip


def of_model(result: Json) -> list[Aim]:
    took, most = result["processor_seconds"], result["peak_rss_bytes"]
    return [
        Aim("simulating ten million devices: processor time", f"at most {MOST_SECONDS} s", f"{took:.0f} s", took <= MOST_SECONDS),
        Aim("simulating ten million devices: memory", f"below {MOST_BYTES / 1e9:g} GB", f"{most / 1e9:.2f} GB", most < MOST_BYTES),
    ]


def of_reality(found: Json) -> list[Aim]:
    worst = max(abs(row["off"]) for row in found["rows"])
    by_plan = max(abs(row["planned"] / row["real"] - 1) for row in found["rows"])
    return [
        Aim("the model beside the real client: runs", f"at least {LEAST_RUNS:,}", f"{found['runs']:,}", found["runs"] >= LEAST_RUNS),
        Aim("the model beside the real client: requests and bytes", "within 2 %", f"{100 * worst:.2f} %",
            all(row["met"] for row in found["rows"])),
        Aim("the same, by the moments of the script", "within 2 %", f"{100 * by_plan:.2f} %", by_plan <= MOST_OFF),
        Aim("the model beside the real client: runs that failed", "none", str(len(found["failures"])), not found["failures"]),
    ]  # fmt: skip


def of_load(found: Json) -> list[Aim]:
    errors = int(sum(row["errors"] + row["timeouts"] for row in found["rows"]))
    asked = int(sum(row["requests"] for row in found["rows"]))
    return [Aim("servers under load: requests that failed", "none", f"{errors:,} of {asked:,}", errors == 0)]


def aims(results: Json, real: Json | None, loaded: Json | None) -> list[Aim]:
    """Of what has been measured; what has not is missed."""
    found: list[Aim] = []
    for name, what in FLEETS.items():
        found += of_fleet(what, results[name]) if name in results else [missing(what)]
    largest = results.get("fleet 10^7")
    found += of_model(largest) if largest else [missing("simulating ten million devices")]
    found += of_reality(real) if real else [missing("the model beside the real client")]
    return found + (of_load(loaded) if loaded else [missing("servers under load")])


def missing(what: str) -> Aim:
    return Aim(what, "", "not measured", met=False)
