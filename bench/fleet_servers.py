"""The web servers of the measurements: the shipped server blocks, on loopback."""

from __future__ import annotations

import re
from pathlib import Path

from harness.webserver import Nginx

SOURCE = Path(__file__).resolve().parent.parent
EXAMPLES = SOURCE / "packaging/nginx"
CONNECTIONS = 16384


class UpdateServer(Nginx):
    """The example of an update server; with workers as Debian configures them, but for more connections."""

    def __init__(self, directory: Path, home: Path, workers: int = 0) -> None:
        self._workers = workers
        super().__init__(self._example(), directory, home)

    def _example(self) -> Path:
        return EXAMPLES / "tarndbud.conf"

    def _frame(self) -> str:
        frame = super()._frame()
        if not self._workers:
            return frame
        # The log of millions of requests is left to memory and thrown away.
        for old, new in (
            ("master_process off;", f"worker_processes {self._workers}; worker_rlimit_nofile {2 * CONNECTIONS};"),
            ("events { }", f"events {{ worker_connections {CONNECTIONS}; }}"),
            ("access_log @HOME@/access.log requests;", "access_log off; sendfile on; tcp_nopush on;"),
        ):
            assert old in frame, old
            frame = frame.replace(old, new)
        return frame

    def answered(self) -> list[tuple[str, int, int]]:
        """Path, status and bytes of the body of each request."""
        lines = (line.split(" ") for line in self.requests())
        return [(path.partition("?")[0], int(status), int(sent)) for status, sent, path in lines]


class CachingProxy(UpdateServer):
    """The example of a caching proxy in front of an update server."""

    def __init__(self, origin: Nginx, home: Path, workers: int = 0, document_life: str = "") -> None:
        self._origin = origin
        self._document_life = document_life
        super().__init__(home / "cache", home, workers)

    def _example(self) -> Path:
        return EXAMPLES / "tarndbud-cache.conf"

    def _server_block(self, template: str, directory: Path) -> str:
        changes = {
            r"listen \S+;": (f"listen {self.netloc};", 1),
            r"proxy_pass \S+;": (f"proxy_pass {self._origin.url};", 2),
            r"proxy_cache_path \S+": (f"proxy_cache_path {directory}", 1),
        }
        if self._document_life:
            changes[r"proxy_cache_valid 200 \S+;"] = (f"proxy_cache_valid 200 {self._document_life};", 1)
        for old, (new, wanted) in changes.items():
            template, count = re.subn(old, new, template)
            assert count == wanted, old
        return template
