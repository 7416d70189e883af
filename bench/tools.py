"""Running and timing the stock tools."""

from __future__ import annotations

import os
import subprocess
import time
from collections.abc import Callable


def shell(script: str, **variables: object) -> None:
    environment = {**os.environ, **{name: str(value) for name, value in variables.items()}}
    subprocess.run(["/bin/bash", "-euc", script], check=True, env=environment, stdout=subprocess.DEVNULL)


def timed(action: Callable[[], object]) -> float:
    begin = time.monotonic()
    action()
    return time.monotonic() - begin
