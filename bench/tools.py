"""Running and timing the stock tools, and ours beside them."""

from __future__ import annotations

import json
import os
import subprocess
import tempfile
import time
from collections.abc import Callable
from pathlib import Path

from harness.publisher import Publisher


def shell(script: str, **variables: object) -> None:
    environment = {**os.environ, **{name: str(value) for name, value in variables.items()}}
    subprocess.run(["/bin/bash", "-euc", script], check=True, env=environment, stdout=subprocess.DEVNULL)


def timed(action: Callable[[], object]) -> float:
    begin = time.monotonic()
    action()
    return time.monotonic() - begin


def our_phases(build: Path, publisher: Publisher, name: str, volume: Path) -> dict[str, float]:
    """Updates a database by the library to what is offered, and tells the seconds of each phase, and the files."""
    install = volume / "@database/autoupdate" / name
    with tempfile.NamedTemporaryFile("w+") as entry:
        json.dump(publisher.entry(name), entry)
        entry.flush()
        command = [build / "bench/phase_bench", name, entry.name, volume, install]
        return json.loads(subprocess.run(list(map(str, command)), check=True, capture_output=True, text=True).stdout)
