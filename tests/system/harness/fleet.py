"""A few hundred machines, as a real Prometheus sees them: each has an address of its own, where it tells what a real
machine's "tarndbudctl metrics" wrote, with other values."""

from __future__ import annotations

import json
import re
import subprocess
import threading
import time
import urllib.error
import urllib.parse
import urllib.request
from dataclasses import dataclass, field
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path

from . import waiting
from .webserver import free_port

SCRAPE_SECONDS = 2
SAMPLE = re.compile(r"^(?P<name>\w+)(?:\{(?P<labels>.*)\})? (?P<value>\S+)$", re.MULTILINE)


@dataclass
class Machine:
    """What a machine tells: the lines of a real one, in which names get other values."""

    lines: str
    values: dict[str, float] = field(default_factory=dict)
    category: str = ""
    began: float = field(default_factory=time.monotonic)
    downloads: float = 0
    """Bytes a second."""

    def text(self) -> str:
        values = self.values | {
            "tarndbud_downloaded_bytes_total": 1000 + self.downloads * int(time.monotonic() - self.began),
        }
        kept = [self._line(line, values) for line in self.lines.splitlines()]
        return "\n".join(line for line in kept if line) + "\n"

    def _line(self, line: str, values: dict[str, float]) -> str:
        sample = SAMPLE.match(line)
        if not sample:
            return line
        name = sample["name"]
        if name == "tarndbud_last_run_failure":
            return re.sub(r'category="[^"]*"', f'category="{self.category}"', line) if self.category else ""
        return f"{line[: sample.start('value')]}{values[name]:.15g}" if name in values else line


class Machines:
    """Serves /<number> for each machine."""

    def __init__(self, machines: list[Machine]) -> None:
        self.machines = machines
        self.scraped: set[int] = set()
        fleet = self

        class Handler(BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"

            def log_message(self, *arguments: object) -> None:
                pass

            def do_GET(self) -> None:
                number = int(self.path.strip("/").partition("?")[0])
                content = fleet.machines[number].text().encode()
                self.send_response(200)
                self.send_header("Content-Type", "text/plain; version=0.0.4")
                self.send_header("Content-Length", str(len(content)))
                self.end_headers()
                self.wfile.write(content)
                fleet.scraped.add(number)

        self._server = ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self._server.daemon_threads = True
        self.netloc = f"127.0.0.1:{self._server.server_port}"
        threading.Thread(target=self._server.serve_forever, daemon=True).start()

    def targets(self) -> str:
        return json.dumps(
            [
                {"targets": [self.netloc], "labels": {"__metrics_path__": f"/{number}", "instance": f"machine{number:03}"}}
                for number in range(len(self.machines))
            ]
        )

    def close(self) -> None:
        self._server.shutdown()
        self._server.server_close()


class Prometheus:
    """A real server over the machines, with alert rules."""

    def __init__(self, home: Path, machines: Machines, rules: str) -> None:
        home.mkdir(parents=True)
        (home / "machines.json").write_text(machines.targets())
        (home / "rules.yml").write_text(rules)
        (home / "prometheus.yml").write_text(
            f"global: {{scrape_interval: {SCRAPE_SECONDS}s, evaluation_interval: 1s}}\n"
            "rule_files: [rules.yml]\n"
            "scrape_configs: [{job_name: machines, file_sd_configs: [{files: [machines.json]}]}]\n"
        )
        self.url = f"http://127.0.0.1:{free_port()}"
        self._log = (home / "log").open("w")
        self._process = subprocess.Popen(
            ["prometheus", f"--config.file={home}/prometheus.yml", f"--storage.tsdb.path={home}/data",
             f"--web.listen-address={self.url.removeprefix('http://')}"],
            stdin=subprocess.DEVNULL, stdout=self._log, stderr=self._log,
        )  # fmt: skip
        waiting.until(self._is_ready, "Prometheus is ready", 120)

    def _is_ready(self) -> bool:
        assert self._process.poll() is None, Path(self._log.name).read_text()
        try:
            return urllib.request.urlopen(f"{self.url}/-/ready", timeout=10).status == 200
        except (urllib.error.URLError, TimeoutError, ConnectionError):
            return False

    def _ask(self, path: str, **parameters: str) -> object:
        url = f"{self.url}/api/v1/{path}?{urllib.parse.urlencode(parameters)}"
        try:
            with urllib.request.urlopen(url, timeout=60) as answer:
                return json.load(answer)["data"]
        except urllib.error.HTTPError as error:
            raise AssertionError(f"{parameters}: {error.read().decode()}") from None

    def query(self, expression: str) -> list[dict[str, object]]:
        return self._ask("query", query=expression)["result"]

    def value(self, expression: str) -> float:
        (result,) = self.query(expression)
        return float(result["value"][1])

    def label_values(self, label: str, series: str) -> list[str]:
        return self._ask(f"label/{label}/values", **{"match[]": series})

    def firing(self) -> dict[str, set[str]]:
        """The alerts that fire now, and for which machines; for the whole fleet, the database."""
        found: dict[str, set[str]] = {}
        for alert in self._ask("alerts")["alerts"]:
            labels = alert["labels"]
            if alert["state"] == "firing":
                found.setdefault(labels["alertname"], set()).add(labels.get("instance", labels.get("database")))
        return found

    def close(self) -> None:
        self._process.terminate()
        self._process.wait(60)
        self._log.close()
