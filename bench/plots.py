"""Plots of what bench/run measured."""

from __future__ import annotations

from collections.abc import Callable
from pathlib import Path

import matplotlib

matplotlib.use("svg")
from matplotlib import pyplot  # noqa: E402

MIB = 1 << 20
OURS, OTHER = "#2a6f97", "#b8b8b8"
OPERATIONS = ("install", "full update", "diff update of 20 %", "diff update of 1 %", "check")
# Text stays text, and the same data give the same bytes.
matplotlib.rcParams.update({
    "svg.fonttype": "none", "svg.hashsalt": "tarndbud", "font.size": 10, "axes.spines.top": False, "axes.spines.right": False,
    "legend.frameon": False, "figure.figsize": (7.2, 3.6), "figure.constrained_layout.use": True,
})  # fmt: skip

Record = dict[str, object]
Value = Callable[[Record], float]


def draw(rows: list[Record], points: list[Record], place: Path) -> None:
    bars(rows, place / "updates.svg")
    held(rows, place / "readers.svg")
    seconds: Value = lambda point: point["seconds"]
    memory: Value = lambda point: point["peak_rss_bytes"] / MIB
    files: Value = lambda point: point["files"]
    size: Value = lambda point: point["bytes"] / MIB
    lines(points, "files", files, seconds, ("files", "seconds"), place / "files-seconds.svg")
    lines(points, "files", files, memory, ("files", "peak memory, MiB"), place / "files-memory.svg")
    lines(points, "bytes", size, seconds, ("MiB of data in 8 files", "seconds"), place / "bytes-seconds.svg")
    lines(points, "bytes", size, memory, ("MiB of data in 8 files", "peak memory, MiB"), place / "bytes-memory.svg")
    lengths(points, place / "chains.svg")


def save(figure: pyplot.Figure, path: Path) -> None:
    figure.savefig(path, metadata={"Date": None})
    pyplot.close(figure)


def bars(rows: list[Record], path: Path) -> None:
    """Our time of an update beside the stock tools'."""
    chosen = [row for row in rows if row["measure"] == "chain" and row["unit"] == "s"]
    figure, axes = pyplot.subplots(figsize=(7.2, 0.32 * len(chosen) + 1.2))
    names = [row["what"].split(" (")[0] for row in chosen]
    places = range(len(chosen))
    axes.barh([at + 0.2 for at in places], [row["peer"] for row in chosen], 0.4, color=OTHER, label="stock tools")
    axes.barh([at - 0.2 for at in places], [row["ours"] for row in chosen], 0.4, color=OURS, label="tarndbudctl update")
    axes.set_yticks(list(places), names)
    axes.invert_yaxis()
    axes.set_xlabel("seconds")
    axes.legend()
    save(figure, path)


def held(rows: list[Record], path: Path) -> None:
    chosen = [row for row in rows if row["measure"] == "readers"]
    figure, axes = pyplot.subplots(figsize=(7.2, 0.32 * len(chosen) + 1.2))
    places = list(range(len(chosen)))
    axes.barh(places, [row["ours"] for row in chosen], 0.5, color=OURS, label="held off")
    axes.scatter([row["peer"] for row in chosen], places, marker="|", s=160, color="black", label="aim")
    axes.set_yticks(places, [row["what"].replace("readers held off, ", "").split(" (")[0] for row in chosen])
    axes.invert_yaxis()
    axes.set_xlabel("milliseconds")
    axes.legend()
    save(figure, path)


def lines(points: list[Record], series: str, x: Value, y: Value, labels: tuple[str, str], path: Path) -> None:
    figure, axes = pyplot.subplots()
    for operation in OPERATIONS:
        chosen = sorted((p for p in points if p["series"] == series and p["operation"] == operation), key=x)
        axes.plot([x(point) for point in chosen], [y(point) for point in chosen], marker="o", label=operation)
    finish(axes, labels)
    save(figure, path)


def lengths(points: list[Record], path: Path) -> None:
    chosen = sorted(
        (point for point in points if point["chain"] > 0 and point["operation"] == "diff update"), key=lambda point: point["chain"]
    )
    figure, axes = pyplot.subplots()
    axes.plot([p["chain"] for p in chosen], [p["seconds"] for p in chosen], marker="o", color=OURS, label="diff update")
    finish(axes, ("diff packages in the chain", "seconds"))
    save(figure, path)


def finish(axes: pyplot.Axes, labels: tuple[str, str]) -> None:
    axes.set_xlabel(labels[0])
    axes.set_ylabel(labels[1])
    axes.set_xlim(left=0)
    axes.set_ylim(bottom=0)
    axes.xaxis.set_major_formatter(lambda value, _: f"{value:,.0f}")
    axes.legend()
