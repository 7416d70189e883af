"""docs/fleet.md: its tables and plots from what was measured, and its text from bench/fleet.md."""

from __future__ import annotations

import json
import re
from pathlib import Path

from bench import fleet_aims, fleet_scenarios, pages
from bench.fleet_cells import count, hours, latency, percent, size
from bench.pages import table

SOURCE = Path(__file__).resolve().parent.parent
TEXT = SOURCE / "bench/fleet.md"
PAGE = SOURCE / "docs/fleet.md"
FIGURE = re.compile(r"\{\{(\w+)\}\}")
"""A number within a sentence of the text."""
SIZES = ("fleet 10^4", "fleet 10^6", "fleet 10^7")
WITHOUT_DIFFS = "full packages, a million devices"
RELEASE = 2
"""The index of the release by which spreading is told: the one on the eleventh day."""
MINUTE = 60
MISSING = "not measured yet"

Json = dict[str, object]


def spread(result: Json, version: int = RELEASE) -> list[str]:
    until = result["versions"][version]["seconds_until"]
    return [hours(until[share]) for share in ("50", "90", "99")]


def fleets(results: Json) -> str:
    lines = []
    for name in SIZES:
        if name not in results:
            lines.append([name.removeprefix("fleet "), MISSING, "", "", "", "", "", "", ""])
            continue
        result = results[name]
        caches, origin = result["caches"], result["origin"]
        share = fleet_scenarios.share_at_origin(result)
        lines.append([
            f"{result['devices']:,}", *(rate for place in (caches, origin) for rate in rates(place, result["seconds"])),
            f"{100 * (1 - share):.3f} %", percent(share), percent(origin["bytes"] / caches["bytes"]),
            f"{fleet_scenarios.peak(result):.2f}",
        ])  # fmt: skip
    heads = ["devices", "caches: requests/s", "bytes/s", "origin: requests/s", "bytes/s", "hit ratio",
             "origin's share of requests", "of bytes", "busiest minute / mean"]  # fmt: skip
    return table(heads, lines)


def rates(place: Json, seconds: float) -> list[str]:
    """Requests and bytes a second, as a mean of the whole time."""
    return [count(place["requests"] / seconds), size(place["bytes"] / seconds)]


def release_cost(result: Json, joined: int = 0) -> tuple[float, float]:
    """What the packages of one release are at the caches, without those of devices that join: requests, and bytes."""
    doings = result["doings"]
    releases = len(result["versions"]) - 1
    if doings["diffs"]:
        return doings["diffs"] / releases, doings["chain_bytes"] / releases
    updates = 1 - joined / doings["fulls"]
    return updates * doings["fulls"] / releases, updates * doings["full_bytes"] / releases


def releases(results: Json) -> str:
    lines = []
    joined = results[SIZES[1]]["doings"]["fulls"] if SIZES[1] in results else 0
    for name in (*SIZES, WITHOUT_DIFFS):
        if name not in results:
            lines.append([name.removeprefix("fleet "), MISSING, "", "", "", "", "", ""])
            continue
        result = results[name]
        requests, sent = release_cost(result, joined)
        documents = result["caches"]["bytes"] - result["doings"]["chain_bytes"] - result["doings"]["full_bytes"]
        lines.append([
            f"{result['devices']:,}", "full" if name == WITHOUT_DIFFS else "diff", count(requests), size(sent),
            size(result["caches"]["busiest_minute_bytes"] / MINUTE) + "/s",
            size(result["origin"]["busiest_minute_bytes"] / MINUTE) + "/s", size(documents / 30), ", ".join(spread(result)),
        ])  # fmt: skip
    heads = ["devices", "packages", "downloads", "bytes from the caches", "busiest minute, caches", "busiest minute, origin",
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
EVENTS = ("blackout", "blackout, a million devices", "blackout, timer daily, 6 h, fixed", "blackout, timer hourly, 1 min", "blackout, empty caches",
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
            f"{fleet_scenarios.peak(result):.2f}",
        ])  # fmt: skip
    heads = ["documents live", "took it before", "took it after", "90 % have the withdrawal's version after",
             "packages, a device", "busiest minute / mean"]  # fmt: skip
    return table(heads, lines)


def events(results: Json) -> str:
    lines = []
    for name in EVENTS:
        result = results[name]
        caches, doings = result["caches"], result["doings"]
        lines.append([
            name, f"{result['devices']:,}", f"{fleet_scenarios.peak(result):.2f}", count(caches["busiest_second"]),
            count(result["origin"]["busiest_minute"]), count(result["origin"]["busiest_second"]),
            percent((doings["unreachable"] + doings["without_document"] + doings["failed"]) / doings["runs"]), *spread(result)[:2],
        ])  # fmt: skip
    heads = ["what happens", "devices", "busiest minute / mean", "caches' busiest second", "origin's busiest minute",
             "origin's busiest second", "runs that failed", "50 %", "90 %"]  # fmt: skip
    return table(heads, lines)


def canary(results: Json) -> str:
    names = {
        "lifetime 10 min": "one document", "canary, promoted after a day": "two channels, 5 % on the canary",
        "canary, a million devices": "two channels, 5 % on the canary",
    }  # fmt: skip
    return table(
        ["channels", "devices", "origin's requests a day", "share"],
        [
            [text, f"{results[name]['devices']:,}", count(results[name]["origin"]["requests"] / 30),
             percent(fleet_scenarios.share_at_origin(results[name]))]
            for name, text in names.items()
        ],
    )


def reality(found: Json | None) -> str:
    if not found:
        return MISSING + "\n"
    return table(
        ["where", "what", "real", "model", "off", "within 2 %", "model by the script alone", "off"],
        [
            [row["where"], row["what"], f"{row['real']:,}", f"{row['model']:,}", f"{100 * row['off']:+.2f} %",
             "yes" if row["met"] else "**no**", f"{row['planned']:,}", f"{100 * (row['planned'] / row['real'] - 1):+.2f} %"]
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
                *(latency(row[share]) for share in ("p50", "p99", "p999")),
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
        f"the latest began {found['latest_seconds']:.2f} s after its moment; "
        f"load average of the machine: {found['load']:.1f}.\n"
    )


def aims(found: list[fleet_aims.Aim]) -> str:
    return table(
        ["what", "aim", "found", ""],
        [[aim.what, aim.limit, aim.found, "met" if aim.met else "**missed**"] for aim in found],
    )


def figures(results: Json) -> dict[str, str]:
    """Those of the sentences."""
    small, million, largest = (results.get(name) for name in SIZES)
    if not (small and million and largest):
        return {}
    each = million["caches"]["requests"] / million["devices"] / 30
    documents = 10 * 86400 / 600
    with_canary = results["canary, a million devices"]
    share = fleet_scenarios.share_at_origin(with_canary)
    return {
        "requests_each": f"{each:.1f}",
        "aim_of_small": f"{small['caches']['requests'] / 30 * fleet_aims.MOST_AT_ORIGIN:.0f}",
        "mean_minute_of_small": f"{small['caches']['mean_minute']:.0f}",
        "least_devices": f"{round(documents / fleet_aims.MOST_AT_ORIGIN / each, -4):,.0f}",
        "least_each": f"{round(documents / 10 / fleet_aims.MOST_AT_ORIGIN / each, -3):,.0f}",
        "least_with_canary": f"{round(with_canary['devices'] * share / fleet_aims.MOST_AT_ORIGIN, -4):,.0f}",
        "largest_rate": f"{largest['caches']['mean_minute'] / MINUTE:.0f}",
        "largest_release": size(release_cost(largest)[1]),
    }


def parts(results: Json, real: Json | None, loaded: Json | None) -> dict[str, str]:
    return {
        "fleets": fleets(results), "releases": releases(results), "timers": timers(results), "lifetimes": lifetimes(results),
        "withdrawals": withdrawals(results), "events": events(results), "canary": canary(results), "reality": reality(real),
        "reality_conditions": conditions_of_reality(real), "load": load(loaded), "load_conditions": conditions(loaded),
        "speed": speed(results), "aims": aims(fleet_aims.aims(results, real, loaded)),
    }  # fmt: skip


def kept(place: Path, name: str) -> Json | None:
    path = place / f"{name}.json"
    return json.loads(path.read_text()) if path.exists() else None


def write(place: Path, only_check: bool) -> bool:
    results = kept(place, "scenarios")
    if results is None:
        raise SystemExit(f"bench/fleet: {place}/scenarios.json is missing: run bench/fleet simulate")
    real, loaded = kept(place, "reality"), kept(place, "load")
    wanted = filled(TEXT.read_text(), results, parts(results, real, loaded))
    missed = [aim.what for aim in fleet_aims.aims(results, real, loaded) if not aim.met]
    print("\n".join(f"missed: {what}" for what in missed) or "all aims are met")
    if only_check:
        is_same = PAGE.read_text() == wanted
        print("the page agrees" if is_same else f"{PAGE}: the figures are not those of the measurements")
        return is_same and not missed
    from bench import fleet_plots

    PAGE.write_text(wanted)
    fleet_plots.draw(results, place)
    return not missed


def filled(text: str, results: Json, made: dict[str, str]) -> str:
    numbers = figures(results)
    text = FIGURE.sub(lambda match: numbers[match[1]] if numbers else MISSING, text)
    return pages.filled("fleet", text, made.__getitem__)
