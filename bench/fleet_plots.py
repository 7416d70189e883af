"""The plots of docs/fleet.md."""

from __future__ import annotations

from pathlib import Path

from matplotlib import pyplot

from bench.plots import OTHER, OURS, finish, save

LIMIT = "#c1443c"
DAY = 1440
CURVES = ("daily, 6 h, fixed", "daily, 24 h", "6 h, 6 h, fixed", "6 h, 6 h", "hourly, 1 h")

Json = dict[str, object]


def draw(results: Json, place: Path) -> None:
    if "fleet 10^6" in results:
        days(results["fleet 10^6"], place / "days.svg")
    spreading(results, place / "spreading.svg")
    stampedes(results, place / "stampedes.svg")
    lifetimes(results, place / "lifetimes.svg")


def days(result: Json, path: Path) -> None:
    caches = result["caches"]
    figure, axes = pyplot.subplots()
    minutes = caches["detail"]
    axes.plot([at / DAY for at in range(len(minutes))], minutes, color=OURS, linewidth=0.6, label="requests in each minute")
    for times, color in ((1, OTHER), (3, LIMIT)):
        axes.axhline(times * caches["mean_minute"], color=color, label="mean of the month" if times == 1 else "3 times the mean")
    finish(axes, ("days; the release comes at 9 o'clock of the second", "requests a minute"))
    axes.xaxis.set_major_formatter(lambda value, _: f"{value:g}")
    axes.yaxis.set_major_formatter(lambda value, _: f"{value:,.0f}")
    save(figure, path)


def spreading(results: Json, path: Path) -> None:
    figure, axes = pyplot.subplots()
    for name in CURVES:
        version = results[f"timer {name}"]["versions"][2]
        share, shares = 0.0, []
        for reached in version["reached_each_ten_minutes"][: 3 * 144]:
            share += 100 * reached / version["followers"]
            shares.append(share)
        axes.plot([at / 6 for at in range(len(shares))], shares, label=name)
    finish(axes, ("hours since the release", "% of devices that have it"))
    axes.legend(title="calendar, delay", loc="lower right")
    save(figure, path)


def stampedes(results: Json, path: Path) -> None:
    figure, axes = pyplot.subplots()
    for name in ("blackout, timer daily, 6 h, fixed", "blackout"):
        caches = results[name]["caches"]
        minutes = [count / caches["mean_minute"] for count in caches["detail"]]
        label = "daily, 6 h, fixed" if "," in name else "6 h, 6 h"
        axes.plot([at / 60 for at in range(len(minutes))], minutes, linewidth=0.8, label=label)
    axes.axhline(3, color=LIMIT, label="3 times the mean")
    finish(axes, ("hours; all devices are off from hour 9 to 21", "times the mean of the month"))
    save(figure, path)


def lifetimes(results: Json, path: Path) -> None:
    names = ("none", "10 s", "1 min", "10 min", "1 h")
    shares = [100 * r["origin"]["requests"] / r["caches"]["requests"] for r in (results[f"lifetime {name}"] for name in names)]
    figure, axes = pyplot.subplots()
    axes.bar(names, shares, color=OURS)
    axes.set_yscale("log")
    axes.set_xlabel("life of a document in the caches")
    axes.set_ylabel("% of requests that reach the origin")
    axes.yaxis.set_major_formatter(lambda value, _: f"{value:g}")
    for at, share in enumerate(shares):
        axes.annotate(f"{share:.2f}", (at, share), ha="center", va="bottom")
    save(figure, path)
