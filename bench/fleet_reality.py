"""The model held against the real client: the same script for both, and what reached proxy and update server.

Each device has directories of its own, which are mounted over the client's fixed paths for the time of a run. The web
servers are those of the examples, and what the publisher published beforehand appears at its time by a change of a
link, so that neither takes processor time from the runs.

An hour of a device is a few seconds here. The client's own hour cannot be changed, so the age of its document is
multiplied before each run.
"""

from __future__ import annotations

import os
import shutil
import statistics
import subprocess
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from contextlib import ExitStack, closing
from dataclasses import dataclass, field
from pathlib import Path

from harness import programs
from harness.device import DATABASE, Device
from harness.publisher import Publisher

from bench import fleet_scenarios
from bench.fleet_script import BRIEF_RUNS, CANARY_SHARE, Script, Shop, fill, make_script
from bench.fleet_servers import CachingProxy, UpdateServer

SOURCE = Path(__file__).resolve().parent.parent
VOLUME = Path("/fleet-volume")
MOUNTS = {
    "lib": "/var/lib/data_update",
    "cache": "/var/cache/data_update",
    "run": "/run/data_update",
    "etc": "/usr/tarn/etc/data_update",
    "volume": str(VOLUME),
}
DOCUMENT_HOUR = 8
"""Seconds for which a device keeps its document, in place of an hour."""
PROXY_SECONDS = 5
AT_ONCE = 8
TOLERANCE = 0.02


@dataclass(frozen=True)
class Ended:
    """When the client began, when it had the document if it asked for it, its exit status, and what it said."""

    began: float
    asked: float | None
    status: int
    said: str


class Devices:
    """Directories of many devices, and runs over them."""

    def __init__(self, script: Script, place: Path, netloc: str, key: Path) -> None:
        self._place = place
        self._fetched: dict[int, float] = {}
        self._turns = [threading.Lock() for _ in script.channels]
        self.lags: list[float] = []
        """From the beginning of a run to the end of its request for the document."""
        self._template = Device(VOLUME, netloc)
        Device.reset(SOURCE / "packaging/conf")
        for path in MOUNTS.values():
            Path(path).mkdir(parents=True, exist_ok=True)
        self._template.list_volumes(VOLUME)
        self._template.trust(key)
        self._template.add_database(DATABASE)
        for number, channel in enumerate(script.channels):
            self._make(number, channel)

    def _make(self, number: int, channel: str) -> None:
        home = self._place / str(number)
        for name in MOUNTS:
            (home / name).mkdir(parents=True)
        shutil.copytree(MOUNTS["etc"], home / "etc", dirs_exist_ok=True)
        settings = home / "etc/data_update.conf"
        settings.write_text(settings.read_text().replace('"db_ver": "1"', f'"db_ver": "{channel}"'))

    def run(self, number: int) -> Ended:
        """Waits for an earlier run of the device."""
        with self._turns[number]:
            return self._run(number)

    def _run(self, number: int) -> Ended:
        home = self._place / str(number)
        mounts = " && ".join(f'mount --bind "{home / name}" "{path}"' for name, path in MOUNTS.items())
        document = home / "cache/database_info.json"
        self._age(number, document)
        begin = time.time()
        ended = subprocess.run(
            ["unshare", "--mount", "--propagation", "private", "sh", "-c", f"{mounts} && exec {programs.CTL} update"],
            stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False,
        )  # fmt: skip
        asked = None
        if document.exists() and document.stat().st_mtime >= begin - 0.01:
            asked = self._fetched[number] = document.stat().st_mtime
            self.lags.append(asked - begin)
        return Ended(begin, asked, ended.returncode, ended.stderr)

    def _age(self, number: int, document: Path) -> None:
        if number in self._fetched and document.exists():
            now = time.time()
            dated = now - (now - self._fetched[number]) * 3600 / DOCUMENT_HOUR
            os.utime(document, (dated, dated))


@dataclass
class Executed:
    runs: list[tuple[float, float | None, int]] = field(default_factory=list)
    """When each began, when it had the document if it asked for it, and which device it was."""
    late: list[float] = field(default_factory=list)
    failures: list[str] = field(default_factory=list)
    begin: float = 0
    shown: list[float] = field(default_factory=list)


def execute(script: Script, shop: Shop, devices: Devices) -> Executed:
    """Does everything at its time; publications happen in the same order among the runs."""
    done = Executed(begin=time.time() + 1)
    first = next(at for at, publication in enumerate(shop.publications) if publication["at"] >= 0)
    shop.show(first - 1)
    steps: list[tuple[float, int, int]] = [(run.at, 1, run.device) for run in script.runs]
    steps += [(shop.publications[at]["at"], 0, at) for at in range(first, len(shop.publications))]

    def one(at: float, device: int) -> None:
        ended = devices.run(device)
        done.runs.append((ended.began - done.begin, ended.asked and ended.asked - done.begin, device))
        done.late.append(ended.began - done.begin - at)
        if ended.status != 0:
            done.failures.append(f"device {device} at {at:.1f} s: {ended.status}: {ended.said.strip()}")

    with ThreadPoolExecutor(AT_ONCE) as pool:
        pending = []
        for at, is_run, what in sorted(steps):
            time.sleep(max(done.begin + at - time.time(), 0))
            if is_run:
                pending.append(pool.submit(one, at, what))
            else:
                shop.show(what)
                done.shown.append(time.time() - done.begin)
        for future in pending:
            future.result()
    return done


def parameters_for(script: Script, shop: Shop, done: Executed) -> dict[str, object]:
    """
    The same for the model, with the moments at which things were really done: starting a client takes a while, a longer
    one on a busy machine. A document's age was multiplied when the run began, so that is when it counts for a run that
    asked for none. The model decides by itself what is asked for at these moments.
    """
    described = next(iter(fleet_scenarios.scenarios(is_brief=False).values()))
    publications = [dict(publication) for publication in shop.publications]
    late = [publication for publication in publications if publication["at"] >= 0]
    for publication, at in zip(late, done.shown, strict=True):
        publication["at"] = at
    runs = sorted((asked or began, device) for began, asked, device in done.runs)
    return fleet_scenarios.merged(
        described,
        {
            "devices": script.devices,
            "length": max(runs[-1][0], script.seconds) + 10,
            "joining_share": 0,
            "device_document_seconds": DOCUMENT_HOUR,
            "caches": {"count": 1, "document_seconds": PROXY_SECONDS, "fetch": 0.002},
            "document": {"empty_diff_bytes": shop.empty_diff_bytes},
            "channels": [{"name": "1", "share": 1 - CANARY_SHARE}, {"name": "canary", "share": CANARY_SHARE}],
            "channel_of": script.channels,
            "publications": publications,
            "script": [[round(at, 3), device] for at, device in runs],
            "begin_milliseconds": round(done.begin * 1000) % 1000,
        },
    )


def as_planned(script: Script, shop: Shop, done: Executed) -> Executed:
    """What would have been done on a machine where everything happens at its moment."""
    shown = [float(publication["at"]) for publication in shop.publications if publication["at"] >= 0]
    return Executed([(run.at, None, run.device) for run in script.runs], begin=done.begin, shown=shown)


def counted(server: UpdateServer) -> dict[str, int]:
    answered = server.answered()
    return {"requests": len(answered), "bytes": sum(sent for _, _, sent in answered)}


def compare(
    real: dict[str, dict[str, int]], model: dict[str, object], planned: dict[str, object], slack: dict[str, int]
) -> list[dict[str, object]]:
    """With some slack in numbers, where a single request is more than the tolerance."""
    rows = []
    for where in ("caches", "origin"):
        for what in ("requests", "bytes"):
            measured, expected = real[where][what], model[where][what]
            off = expected / measured - 1
            is_met = abs(off) <= TOLERANCE or abs(expected - measured) <= slack[what]
            rows.append({
                "where": where, "what": what, "real": measured, "model": expected, "off": off, "met": is_met,
                "planned": planned[where][what],
            })  # fmt: skip
    return rows


def run(build: Path, place: Path, count: int) -> dict[str, object]:
    script = make_script(count)
    subprocess.run(["cmake", "--install", str(build)], check=True, stdout=subprocess.DEVNULL)
    shop = Shop(place, Publisher(place / "publisher"), place / "tree")
    with ExitStack() as stack:
        origin = stack.enter_context(closing(UpdateServer(shop.root, place / "origin")))
        proxy = stack.enter_context(
            closing(CachingProxy(origin, place / "proxy", document_life=f"{PROXY_SECONDS}s"))
        )
        shop.publisher.base = proxy.url
        fill(shop, script.seconds)
        devices = Devices(script, place / "devices", proxy.netloc, shop.publisher.public_key)
        done = execute(script, shop, devices)
        real = {"caches": counted(proxy), "origin": counted(origin)}
    if not devices.lags:
        raise SystemExit(f"bench/fleet reality: no run has got a document: {done.failures[0]}")
    parameters = parameters_for(script, shop, done)
    largest = max(int(publication.get("full_bytes", 0)) for publication in shop.publications)
    slack = {"requests": 2, "bytes": largest} if count < BRIEF_RUNS else {"requests": 0, "bytes": 0}
    planned = parameters_for(script, shop, as_planned(script, shop, done))
    rows = compare(
        real, fleet_scenarios.simulate(build, parameters), fleet_scenarios.simulate(build, planned), slack
    )
    shutil.rmtree(place / "devices")
    return {
        "runs": len(done.runs), "devices": script.devices, "seconds": round(script.seconds), "rows": rows,
        "failures": done.failures, "latest_seconds": round(max(done.late), 2), "load": os.getloadavg()[0],
        "median_lag_seconds": round(statistics.median(devices.lags), 3),
        "parameters": parameters,
    }  # fmt: skip
