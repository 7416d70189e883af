"""How many requests the examples of update server and caching proxy answer, and what limits them.

wrk asks from the same machine, so that it shares the processors with the servers; its part of the processor time is
told beside theirs.
"""

from __future__ import annotations

import json
import os
import random
import resource
import shutil
import subprocess
from contextlib import closing
from dataclasses import dataclass
from pathlib import Path

from bench.fleet_servers import CachingProxy, UpdateServer

WRK = "wrk"
WORKERS = 2
TICKS = os.sysconf("SC_CLK_TCK")
# Every request has the id of another device, as a fleet's have. The last lines are read by this module.
SCRIPT = """
local path = "%s"
local query = %s
math.randomseed(1)
function request()
	if query then
		return wrk.format("GET", path .. string.format("?os=orv&dlid=%%016x&db_list[zones]=1", math.random(0, 2^31)))
	end
	return wrk.format("GET", path)
end
function done(summary, latency, requests)
	local errors = summary.errors
	io.write(string.format(
		'\\nRESULT {"requests":%%d,"bytes":%%d,"microseconds":%%d,"errors":%%d,"timeouts":%%d,' ..
		'"p50":%%d,"p90":%%d,"p99":%%d,"p999":%%d,"most":%%d}\\n',
		summary.requests, summary.bytes, summary.duration,
		errors.connect + errors.read + errors.write + errors.status, errors.timeout,
		latency:percentile(50), latency:percentile(90), latency:percentile(99), latency:percentile(99.9), latency.max))
end
"""


@dataclass(frozen=True)
class Load:
    seconds: int
    connections: tuple[int, ...]

    @staticmethod
    def full() -> Load:
        return Load(20, (100, 1000, 4000))

    @staticmethod
    def brief() -> Load:
        return Load(1, (20,))


FILES = {"document": ("database_info/1", 4_000), "diff package": ("packages/zones/zones_d2.tarn", 20_000),
         "full package": ("packages/zones/zones_v2.tarn", 1_000_000)}  # fmt: skip


def make_repository(place: Path) -> Path:
    """Files of the sizes of documents and packages; web servers do not look into them."""
    chance = random.Random(1)
    for name, size in FILES.values():
        path = place / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(chance.randbytes(size))
    return place


class ProcessorTime:
    """Seconds of processor time that processes of a name take, their children included, while a block runs."""

    def __init__(self, name: str) -> None:
        self._name = name
        self.seconds = 0.0

    def _now(self) -> float:
        total = 0
        for stat in Path("/proc").glob("[0-9]*/stat"):
            try:
                name, _, rest = stat.read_text().partition("(")[2].rpartition(")")
            except OSError:  # It has ended meanwhile.
                continue
            if name == self._name:
                total += sum(map(int, rest.split()[11:13]))
        return total / TICKS

    def __enter__(self) -> ProcessorTime:
        self._before = self._now()
        return self

    def __exit__(self, *_: object) -> None:
        self.seconds = self._now() - self._before


def ask(url: str, path: str, connections: int, seconds: int, place: Path) -> dict[str, float]:
    script = place / "wrk.lua"
    script.write_text(SCRIPT % (f"/{path}", "true" if path.startswith("database_info") else "false"))
    command = [WRK, "--threads", "2", "--connections", str(connections), "--duration", f"{seconds}s", "--timeout", "30s",
               "--script", str(script), url]  # fmt: skip
    with ProcessorTime("nginx") as servers, ProcessorTimeOfChild() as client:
        said = subprocess.run(command, check=True, capture_output=True, text=True).stdout
    result = json.loads(next(line for line in said.splitlines() if line.startswith("RESULT ")).removeprefix("RESULT "))
    processors = os.cpu_count() or 1
    result["server_share"] = servers.seconds / (seconds * processors)
    result["client_share"] = client.seconds / (seconds * processors)
    return result


class ProcessorTimeOfChild:
    """The same of processes that have begun and ended in the block."""

    seconds = 0.0

    def __enter__(self) -> ProcessorTimeOfChild:
        self._before = os.times()
        return self

    def __exit__(self, *_: object) -> None:
        now = os.times()
        self.seconds = now.children_user + now.children_system - self._before.children_user - self._before.children_system


def measure(url: str, by: str, load: Load, place: Path) -> list[dict[str, object]]:
    rows = []
    for what, (path, size) in FILES.items():
        for connections in load.connections:
            result = ask(url, path, connections, load.seconds, place)
            rate = result["requests"] / (result["microseconds"] / 1e6)
            rows.append({"by": by, "what": what, "size": size, "connections": connections, "rate": rate, **result})
            print(
                f"{by:14} {what:13} {connections:6} connections: {rate:9.0f} requests/s, {result['errors']:.0f} errors, "
                f"99 % within {result['p99'] / 1000:.1f} ms",
                flush=True,
            )
    return rows


def run(place: Path, is_brief: bool) -> dict[str, object]:
    if shutil.which(WRK) is None:
        raise SystemExit("bench/fleet load: wrk is missing: apt-get install wrk")
    load = Load.brief() if is_brief else Load.full()
    raise_limit()
    before = os.getloadavg()[0]
    root = make_repository(place / "repository")
    with closing(UpdateServer(root, place / "origin", WORKERS)) as origin:
        rows = measure(origin.url, "update server", load, place)
        with closing(CachingProxy(origin, place / "proxy", WORKERS)) as proxy:
            rows += measure(proxy.url, "caching proxy", load, place)
    return {"rows": rows, "seconds": load.seconds, "load_before": before, "machine": machine()}


def raise_limit() -> None:
    """Thousands of connections are as many descriptors, of the client as of the server."""
    most = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))


def machine() -> dict[str, object]:
    memory = next(line for line in Path("/proc/meminfo").read_text().splitlines() if line.startswith("MemTotal:"))
    return {"processors": os.cpu_count(), "memory_bytes": int(memory.split()[1]) * 1024}

