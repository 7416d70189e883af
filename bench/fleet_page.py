"""docs/fleet.md: its tables and plots from what was measured, and its text from bench/fleet.md."""

from __future__ import annotations

import json
import re
from pathlib import Path

from bench import fleet_scenarios

SOURCE = Path(__file__).resolve().parent.parent
TEXT = SOURCE / "bench/fleet.md"
PAGE = SOURCE / "docs/fleet.md"
PART = re.compile(r"(<!-- bench/fleet: (\w+) -->\n).*?(<!-- end -->)", re.DOTALL)
SIZES = ("fleet 10^4", "fleet 10^6", "fleet 10^7")
RELEASE = 2
"""The index of the release by which spreading is told: the one on the eleventh day."""
MINUTE = 60
MISSING = "not measured yet"

Json = dict[str, object]


def table(heads: list[str], lines: list[list[str]]) -> str:
    return "\n".join(f"| {' | '.join(cells)} |" for cells in (heads, ["---"] * len(heads), *lines)) + "\n"


def size(number: float) -> str:
    for unit in ("B", "kB", "MB", "GB", "TB"):
        if number < 1000:
            break
        number /= 1000
    return f"{number:.3g} {unit}"


def count(number: float) -> str:
    return f"{number:,.0f}" if number >= 100 else f"{number:.3g}"


def percent(share: float) -> str:
    number = 100 * share
    return f"{number:.3f} %" if number < 1 else f"{number:.1f} %"


def hours(seconds: float | None) -> str:
    if seconds is None:
        return "not within the month"
    return f"{seconds / 3600:.1f} h" if seconds < 48 * 3600 else f"{seconds / 86400:.1f} d"


def spread(result: Json, version: int = RELEASE) -> list[str]:
    until = result["versions"][version]["seconds_until"]
    return [hours(until[share]) for share in ("50", "90", "99")]


def fleets(results: Json) -> str:
    lines = []
    for name in SIZES:
        if name not in results:
            lines.append([name.removeprefix("fleet "), MISSING, "", "", "", "", ""])
            continue
        result = results[name]
        caches, origin = result["caches"], result["origin"]
        lines.append([
            f"{result['devices']:,}", count(caches["requests"] / 30), count(caches["mean_minute"] / MINUTE),
            f"{fleet_scenarios.peak(result):.2f}", percent(fleet_scenarios.share_at_origin(result)),
            percent(origin["bytes"] / caches["bytes"]), size(origin["bytes"]),
        ])  # fmt: skip
    heads = ["devices", "requests a day", "a second", "busiest minute / mean", "requests at the origin", "bytes at the origin",
             "origin's bytes in 30 days"]  # fmt: skip
    return table(heads, lines)


def release_cost(result: Json) -> tuple[float, float]:
    """What the packages of one release are at the caches: requests, and bytes."""
    doings = result["doings"]
    releases = len(result["versions"]) - 1
    return doings["diffs"] / releases, doings["chain_bytes"] / releases


def releases(results: Json) -> str:
    lines = []
    for name in SIZES:
        if name not in results:
            lines.append([name.removeprefix("fleet "), MISSING, "", "", "", "", ""])
            continue
        result = results[name]
        requests, sent = release_cost(result)
        documents = result["caches"]["bytes"] - result["doings"]["chain_bytes"] - result["doings"]["full_bytes"]
        lines.append([
            f"{result['devices']:,}", count(requests), size(sent), size(result["caches"]["busiest_minute_bytes"] / MINUTE) + "/s",
            size(result["origin"]["busiest_minute_bytes"] / MINUTE) + "/s", size(documents / 30), ", ".join(spread(result)),
        ])  # fmt: skip
    heads = ["devices", "downloads", "bytes from the caches", "busiest minute, caches", "busiest minute, origin",
             "documents a day", "50, 90, 99 % have it after"]  # fmt: skip
    return table(heads, lines)


def timers(results: Json) -> str:
    lines = []
    for text in TIMERS:
        result = results[f"timer {text}"]
        groups = {group["habit"]: group for group in result["groups"]}
        behind = groups["evenings"]
        lines.append([
            text, f"{result['caches']['requests'] / result['devices'] / 30:.2f}", f"{fleet_scenarios.peak(result):.2f}",
            *spread(result), percent(behind["week_long"] / behind["devices"]),
        ])  # fmt: skip
    heads = ["calendar, delay", "requests a device and day", "busiest minute / mean", "50 %", "90 %", "99 %",
             "evening machines without a run for a week"]  # fmt: skip
    return table(heads, lines)


TIMERS = ("daily, 6 h, fixed", "daily, 24 h, fixed", "daily, 24 h", "12 h, 12 h", "6 h, 6 h, fixed", "6 h, 6 h",
          "hourly, 30 min", "hourly, 1 h")  # fmt: skip
LIFETIMES = ("none", "10 s", "1 min", "10 min", "1 h", "10 min, shield")
EVENTS = ("blackout", "blackout, timer daily, 6 h, fixed", "blackout, timer hourly, 1 min", "blackout, empty caches",
          "blackout, empty caches, no lock", "origin down for a day", "caches out of reach for a day")  # fmt: skip


def lifetimes(results: Json) -> str:
    lines = []
    for life in LIFETIMES:
        result = results[f"lifetime {life}"]
        lines.append([
            life, count(result["origin"]["requests"] / 30), percent(fleet_scenarios.share_at_origin(result)),
            count(result["origin"]["busiest_minute"]), size(result["origin"]["bytes"] / 30),
        ])  # fmt: skip
    return table(["documents live", "origin's requests a day", "share", "origin's busiest minute", "origin's bytes a day"], lines)


WITHDRAWALS = {"10 s": "withdrawal, 10 s", "10 min": "withdrawal, 10 min", "1 h": "withdrawal, 1 h",
               "10 min, published to a canary of 5 %": "canary, withdrawn after 2 h"}  # fmt: skip


def withdrawals(results: Json) -> str:
    lines = []
    for text, name in WITHDRAWALS.items():
        result = results[name]
        (withdrawal,) = result["withdrawals"]
        devices = result["devices"]
        lines.append([
            text, percent(withdrawal["took_before"] / devices), percent(withdrawal["took_after"] / devices),
            hours(result["versions"][-1]["seconds_until"]["90"]), size(result["doings"]["chain_bytes"] / devices),
        ])  # fmt: skip
    heads = ["documents live", "took it before", "took it after", "90 % have the withdrawal's version after", "packages, a device"]
    return table(heads, lines)


def events(results: Json) -> str:
    lines = []
    for name in EVENTS:
        result = results[name]
        caches, doings = result["caches"], result["doings"]
        lines.append([
            name, f"{fleet_scenarios.peak(result):.2f}", count(caches["busiest_second"]),
            count(result["origin"]["busiest_minute"]), count(result["origin"]["busiest_second"]),
            percent((doings["unreachable"] + doings["without_document"] + doings["failed"]) / doings["runs"]), *spread(result)[:2],
        ])  # fmt: skip
    heads = ["what happens", "busiest minute / mean", "caches' busiest second", "origin's busiest minute",
             "origin's busiest second", "runs that failed", "50 %", "90 %"]  # fmt: skip
    return table(heads, lines)


def canary(results: Json) -> str:
    names = {"lifetime 10 min": "one document", "canary, promoted after a day": "two channels, 5 % on the canary"}
    return table(
        ["", "origin's requests a day", "share"],
        [
            [text, count(results[name]["origin"]["requests"] / 30), percent(fleet_scenarios.share_at_origin(results[name]))]
            for name, text in names.items()
        ],
    )


def reality(found: Json | None) -> str:
    if not found:
        return MISSING + "\n"
    return table(
        ["where", "what", "real", "model", "off", "within 2 %"],
        [
            [row["where"], row["what"], f"{row['real']:,}", f"{row['model']:,}", f"{100 * row['off']:+.2f} %",
             "yes" if row["met"] else "**no**"]
            for row in found["rows"]
        ],
    )  # fmt: skip


def load(found: Json | None) -> str:
    if not found:
        return MISSING + "\n"
    heads = ["server", "file", "connections", "requests/s", "bytes/s", "errors", "median", "99 %", "99.9 %",
             "processors: server, wrk"]  # fmt: skip
    return table(
        heads,
        [
            [
                row["by"], f"{row['what']}, {size(row['size'])}", f"{row['connections']:,}", f"{row['rate']:,.0f}",
                size(row["bytes"] / row["microseconds"] * 1e6), f"{row['errors'] + row['timeouts']:.0f}",
                *(f"{row[share] / 1000:.3g} ms" for share in ("p50", "p99", "p999")),
                f"{100 * row['server_share']:.0f} %, {100 * row['client_share']:.0f} %",
            ]
            for row in found["rows"]
        ],
    )  # fmt: skip


def conditions(found: Json | None) -> str:
    if not found:
        return ""
    machine = found["machine"]
    return (
        f"Machine: {machine['processors']} processors, {size(machine['memory_bytes'])} of memory; "
        f"load average before: {found['load_before']:.1f}; {found['seconds']} s for each line.\n"
    )


def speed(results: Json) -> str:
    measured = [results[name] for name in SIZES if name in results and "processor_seconds" in results[name]]
    return table(
        ["devices", "runs of devices", "processor time", "peak memory"],
        [
            [f"{one['devices']:,}", f"{one['doings']['runs']:,}", f"{one['processor_seconds']:.0f} s", size(one["peak_rss_bytes"])]
            for one in measured
        ],
    )


def conditions_of_reality(found: Json | None) -> str:
    if not found:
        return ""
    return (
        f"{found['runs']:,} runs of {found['devices']} devices in {found['seconds']} s, {len(found['failures'])} of them failed; "
        f"load average of the machine: {found['load']:.1f}.\n"
    )


def parts(results: Json, real: Json | None, loaded: Json | None) -> dict[str, str]:
    return {
        "fleets": fleets(results), "releases": releases(results), "timers": timers(results), "lifetimes": lifetimes(results),
        "withdrawals": withdrawals(results), "events": events(results), "canary": canary(results), "reality": reality(real),
        "reality_conditions": conditions_of_reality(real), "load": load(loaded), "load_conditions": conditions(loaded),
        "speed": speed(results),
    }  # fmt: skip


def kept(place: Path, name: str) -> Json | None:
    path = place / f"{name}.json"
    return json.loads(path.read_text()) if path.exists() else None


def write(place: Path, only_check: bool) -> bool:
    results = kept(place, "scenarios")
    if results is None:
        raise SystemExit(f"bench/fleet: {place}/scenarios.json is missing: run bench/fleet simulate")
    made = parts(results, kept(place, "reality"), kept(place, "load"))
    wanted = PART.sub(lambda match: match[1] + made[match[2]] + match[3], TEXT.read_text())
    if only_check:
        is_same = PAGE.read_text() == wanted
        print("the tables agree" if is_same else f"{PAGE}: the tables are not those of the measurements")
        return is_same
    from bench import fleet_plots

    PAGE.write_text(wanted)
    fleet_plots.draw(results, place)
    return True
