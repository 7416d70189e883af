"""What stands in the cells of docs/fleet.md."""

from __future__ import annotations


def size(number: float) -> str:
    units = ["B", "kB", "MB", "GB", "TB", "PB"]
    while number >= 999.5 and len(units) > 1:
        number /= 1000
        del units[0]
    return f"{number:.3g} {units[0]}"


def count(number: float) -> str:
    return f"{number:,.0f}" if number >= 100 else f"{number:.3g}"


def percent(share: float) -> str:
    number = 100 * share
    return f"{number:.3f} %" if number < 1 else f"{number:.1f} %"


def hours(seconds: float | None) -> str:
    if seconds is None:
        return "not within the month"
    return f"{seconds / 3600:.1f} h" if seconds < 48 * 3600 else f"{seconds / 86400:.1f} d"


def latency(microseconds: float) -> str:
    milliseconds = microseconds / 1000
    return f"{milliseconds:.3g} ms" if milliseconds < 999.5 else f"{milliseconds / 1000:.3g} s"
