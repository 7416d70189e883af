"""A store on other machines: a web server that takes files by WebDAV and serves them to devices, and a way to it on
which everything can end at a chosen change."""

from __future__ import annotations

import http.client
import os
import signal
import threading
from dataclasses import dataclass, field
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path

from . import waiting
from .documents import Document
from .webserver import Nginx, free_port, placed

CHANGING = ("PUT", "DELETE", "MKCOL", "MOVE", "COPY")
MODULE = Path("/usr/lib/nginx/modules/ngx_http_dav_ext_module.so")

PUBLISHING = Document(Path(__file__).resolve().parents[3] / "docs/publishing.md")


class DavStore(Nginx):
    """Serves a directory with the server block that administrators are given, and takes files at another port, as the
    document says."""

    def __init__(self, template: Path, directory: Path, home: Path) -> None:
        directory.mkdir(parents=True, exist_ok=True)
        self.directory = directory
        self.writing = f"127.0.0.1:{free_port()}"
        super().__init__(template, directory, home)

    def _frame(self) -> str:
        return f"load_module {MODULE};\n{super()._frame()}"

    def _server_block(self, template: str, directory: Path) -> str:
        writing = PUBLISHING.code("nginx", "Object storage")
        return super()._server_block(template, directory) + placed(writing, self.writing, directory)

    def environment(self, netloc: str | None = None) -> dict[str, str]:
        """What makes the store rclone's remote "store:"."""
        return os.environ | {
            "RCLONE_CONFIG": "/nonexistent/rclone.conf",
            "RCLONE_CONFIG_STORE_TYPE": "webdav",
            "RCLONE_CONFIG_STORE_URL": f"http://{netloc or self.writing}",
            "RCLONE_CONFIG_STORE_VENDOR": "other",
            "RCLONE_RETRIES": "1",
            "RCLONE_LOW_LEVEL_RETRIES": "1",
            # One after the other, so that the changes of two runs are the same ones.
            "RCLONE_TRANSFERS": "1",
            "RCLONE_CHECKERS": "1",
        }


@dataclass
class Cut:
    """Where the process that writes is killed: at its change of this number, from 1, and when in it."""

    change: int
    moment: str  # "amid" its body, or "after" it

    def __str__(self) -> str:
        return f"{self.moment} change {self.change}"


@dataclass
class Way:
    """Passes requests on to a store, counts those that change it, and kills a process at one of them."""

    store: str
    cut: Cut | None = None
    pid: int = 0
    seen: list[str] = field(default_factory=list)
    changes: list[str] = field(default_factory=list)
    """The methods of requests that change the store."""
    sent: list[tuple[str, dict[str, str]]] = field(default_factory=list)
    hold: threading.Event | None = None
    """Requests wait for it, where there is one."""
    _lock: threading.Lock = field(default_factory=threading.Lock)

    def __post_init__(self) -> None:
        way = self

        class Handler(BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"

            def log_message(self, *arguments: object) -> None:
                pass

            def __getattr__(self, name: str) -> object:
                if name.startswith("do_"):
                    return lambda: way._pass(self)
                raise AttributeError(name)

        self._server = ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self._server.daemon_threads = True
        self.netloc = f"127.0.0.1:{self._server.server_port}"
        self._thread = threading.Thread(target=self._server.serve_forever, daemon=True)
        self._thread.start()

    def begin(self, cut: Cut | None) -> None:
        self.cut, self.pid, self.seen, self.changes, self.sent, self.hold = cut, 0, [], [], [], None

    def close(self) -> None:
        self._server.shutdown()
        self._server.server_close()
        self._thread.join()

    def _count(self, handler: BaseHTTPRequestHandler) -> str:
        """When in this request the process is to be killed; empty for the others."""
        with self._lock:
            self.seen.append(f"{handler.command} {handler.path}")
            self.sent.append((self.seen[-1], dict(handler.headers.items())))
            if handler.command not in CHANGING:
                return ""
            self.changes.append(handler.command)
            return self.cut.moment if self.cut and len(self.changes) == self.cut.change else ""

    def _kill(self) -> None:
        """Returns when the process is gone, whose end kills what it started."""
        os.kill(self.pid, signal.SIGKILL)
        waiting.until(lambda: waiting.has_ended(self.pid), f"process {self.pid} is gone", 30)

    def _pass(self, handler: BaseHTTPRequestHandler) -> None:
        moment = self._count(handler)
        if self.hold:
            assert self.hold.wait(60)
        body = handler.rfile.read(int(handler.headers.get("Content-Length") or 0))
        host, port = self.store.split(":")
        connection = http.client.HTTPConnection(host, int(port), timeout=60)
        headers = {name: value for name, value in handler.headers.items() if name.lower() not in ("host", "connection")}
        if moment == "amid" and body:
            connection.putrequest(handler.command, handler.path)
            for name, value in headers.items():
                connection.putheader(name, value)
            connection.endheaders(body[: len(body) // 2])
            self._kill()
            connection.close()
            handler.close_connection = True
            return
        connection.request(handler.command, handler.path, body, headers)
        answer = connection.getresponse()
        content = answer.read()
        connection.close()
        if moment:
            self._kill()
            handler.close_connection = True
            return
        handler.send_response(answer.status, answer.reason)
        for name, value in answer.getheaders():
            if name.lower() not in ("connection", "transfer-encoding", "content-length", "server", "date"):
                handler.send_header(name, value)
        handler.send_header("Content-Length", str(len(content)))
        handler.end_headers()
        if handler.command != "HEAD":
            handler.wfile.write(content)
