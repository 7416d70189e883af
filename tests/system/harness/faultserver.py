"""A web server whose faults stand in the path of the request.

/cut/N/REST       announces the whole file REST, sends N bytes of it and closes
/reset/N/REST     the same, but the connection is reset
/status/N/REST    answers with that status
/html/REST        answers 200 with a web page
/text/NAME/REST   answers 200 with the text that the test registered under NAME
/hang/REST        accepts the request and does not answer while the server runs
/gate/N/REST      sends N bytes, then waits until the test opens the gate
/endless/REST     sends bytes for as long as anybody takes them, of no announced length
/more/REST        tells the size of the file REST when only the size is asked for, and sends bytes without end
/drip/REST        sends a byte every tenth of a second, of no announced length
/redirect/REST    redirects to the address that the test set
Anything else is a file.
"""

from __future__ import annotations

import contextlib
import socket
import struct
import threading
from collections.abc import Iterator
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path
from urllib.parse import urlsplit

PAGE = b"<!DOCTYPE html><html><head><title>Sign in</title></head><body>Please sign in to this network.</body></html>\n"


class FaultServer(ThreadingHTTPServer):
    daemon_threads = True

    def __init__(self, directory: Path, host: str) -> None:
        super().__init__((host, 0), Handler)
        self.directory = directory
        self.netloc = f"{host}:{self.server_address[1]}"
        self.texts: dict[str, bytes] = {}
        self.redirect_target = ""
        self.gate = threading.Event()
        self.reached = threading.Event()
        self._log: list[tuple[str, dict[str, str]]] = []
        self._lock = threading.Lock()

    @property
    def url(self) -> str:
        return f"http://{self.netloc}"

    def note(self, line: str, headers: dict[str, str]) -> None:
        with self._lock:
            self._log.append((line, headers))

    def requests(self) -> list[str]:
        """The lines "method path" of all requests that have arrived."""
        with self._lock:
            return [line for line, _ in self._log]

    def headers(self) -> list[dict[str, str]]:
        """The headers of all requests that have arrived."""
        with self._lock:
            return [headers for _, headers in self._log]

    def handle_error(self, request: object, client_address: object) -> None:
        """Broken connections are what this server is for."""


class Handler(BaseHTTPRequestHandler):
    server: FaultServer

    def do_GET(self) -> None:
        self.server.note(f"{self.command} {self.path}", dict(self.headers))
        self.close_connection = True
        parts = urlsplit(self.path).path.lstrip("/").split("/")
        fault = getattr(self, f"fault_{parts[0]}", None)
        if fault is None:
            self.answer(self.read(parts))
        else:
            fault(parts[1:])

    do_HEAD = do_GET
    do_POST = do_GET
    do_PUT = do_GET

    def fault_cut(self, parts: list[str]) -> None:
        self.answer(self.read(parts[1:]), sent=int(parts[0]))

    def fault_reset(self, parts: list[str]) -> None:
        self.answer(self.read(parts[1:]), sent=int(parts[0]))
        # With no time to linger the kernel answers the close with a reset.
        self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.connection.close()

    def fault_status(self, parts: list[str]) -> None:
        self.answer(b"", status=int(parts[0]))

    def fault_html(self, _: list[str]) -> None:
        self.answer(PAGE, kind="text/html")

    def fault_text(self, parts: list[str]) -> None:
        self.answer(self.server.texts[parts[0]])

    def fault_hang(self, _: list[str]) -> None:
        self.server.reached.set()
        self.server.gate.wait()

    def fault_gate(self, parts: list[str]) -> None:
        content, sent = self.read(parts[1:]), int(parts[0])
        self.answer(content, sent=sent)
        self.wfile.flush()
        self.server.reached.set()
        self.server.gate.wait()
        with contextlib.suppress(OSError):
            self.wfile.write((content or b"")[sent:])

    def fault_endless(self, _: list[str]) -> None:
        self.send_without_end(b"x" * 65536, 0)

    def fault_more(self, parts: list[str]) -> None:
        if self.command == "HEAD":
            self.answer(self.read(parts))
        else:
            self.fault_endless(parts)

    def fault_drip(self, _: list[str]) -> None:
        self.send_without_end(b"x", 0.1)

    def send_without_end(self, block: bytes, pause: float) -> None:
        self.send_response(200)
        self.end_headers()
        self.server.reached.set()
        with contextlib.suppress(OSError):
            while not self.server.gate.wait(pause):
                self.wfile.write(block)

    def fault_redirect(self, _: list[str]) -> None:
        self.send_response(302)
        self.send_header("Location", self.server.redirect_target)
        self.send_header("Content-Length", "0")
        self.end_headers()

    def read(self, parts: list[str]) -> bytes | None:
        path = self.server.directory.joinpath(*parts)
        return path.read_bytes() if path.is_file() else None

    def answer(
        self, content: bytes | None, status: int = 200, sent: int | None = None, kind: str = "application/octet-stream"
    ) -> None:
        if content is None:
            content, status = b"", 404
        self.send_response(status)
        self.send_header("Content-Type", kind)
        self.send_header("Content-Length", str(len(content)))
        self.send_header("Connection", "close")
        self.end_headers()
        if self.command != "HEAD":
            self.wfile.write(content[:sent])

    def log_message(self, format: str, *arguments: object) -> None:  # noqa: A002 - the base class's name
        """Requests are noted by the server."""


@contextlib.contextmanager
def serving(directory: Path, host: str = "127.0.0.1") -> Iterator[FaultServer]:
    server = FaultServer(directory, host)
    thread = threading.Thread(target=server.serve_forever, kwargs={"poll_interval": 0.05})
    thread.start()
    try:
        yield server
    finally:
        server.gate.set()
        server.shutdown()
        thread.join()
        server.server_close()
