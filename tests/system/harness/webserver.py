"""A real web server over a publisher's directory."""

from __future__ import annotations

import http.client
import re
import socket
import ssl
import subprocess
import time
from pathlib import Path

SENTINEL = "/-/everything-before-this-is-in-the-log"

FRAME = Path(__file__).resolve().parents[3] / "scripts/nginx-loopback.conf"


def free_port() -> int:
    """In which no version from 1000 on occurs: the publisher warns of a version that its URL contains as well."""
    with socket.create_server(("127.0.0.1", 0)) as probe:
        port = int(probe.getsockname()[1])
        return free_port() if "100" in str(port) else port


def placed(block: str, netloc: str, directory: Path) -> str:
    """A server block at another address, over another directory."""
    for name, value in (("listen", netloc), ("root", directory)):
        block, changes = re.subn(rf"{name} \S+;", f"{name} {value};", block)
        assert changes == 1, name
    return block


class Nginx:
    """Serves a directory on a free loopback port, with the server block that administrators are given."""

    def __init__(self, template: Path, directory: Path, home: Path) -> None:
        self._home = home
        home.mkdir(parents=True, exist_ok=True)
        self.netloc = f"127.0.0.1:{free_port()}"
        server = home / "server.conf"
        server.write_text(self._server_block(template.read_text(), directory))
        frame = self._frame().replace("@HOME@", str(home)).replace("@SERVER@", str(server))
        (home / "nginx.conf").write_text(frame)
        self._start()

    def _start(self) -> None:
        home = self._home
        self._process = subprocess.Popen(
            ["/usr/sbin/nginx", "-p", str(home), "-c", str(home / "nginx.conf"), "-e", str(home / "error.log")],
            stdin=subprocess.DEVNULL,
        )
        self._wait_until_it_answers()

    def _frame(self) -> str:
        return FRAME.read_text()

    def _wait_until_it_answers(self) -> None:
        deadline = time.monotonic() + 30
        host, port = self.netloc.split(":")
        while True:
            self._assert_running()
            try:
                socket.create_connection((host, int(port)), 30).close()
                return
            except ConnectionRefusedError:
                assert time.monotonic() < deadline, "nginx does not listen"
                time.sleep(0.01)

    def _assert_running(self) -> None:
        assert self._process.poll() is None, (self._home / "error.log").read_text()

    def _server_block(self, template: str, directory: Path) -> str:
        return placed(template, self.netloc, directory)

    @property
    def url(self) -> str:
        return f"http://{self.netloc}"

    def _connect(self) -> http.client.HTTPConnection:
        return http.client.HTTPConnection(self.netloc, timeout=30)

    def requests(self) -> list[str]:
        """The lines "status bytes path" of all requests answered so far."""
        self._assert_running()
        connection = self._connect()
        connection.request("GET", SENTINEL)
        connection.getresponse().read()
        connection.close()
        lines = (self._home / "access.log").read_text().splitlines()
        return [line for line in lines if SENTINEL not in line]

    def packages(self) -> list[str]:
        """The packages fetched whole so far, in order: "v<version>" for a full one, "d<version>" for a diff, and
        "d<version>w<version>" for an empty diff by a withdrawal."""
        return re.findall(r"^200 \d+ /packages/\w+/\w+_([vd]\d+(?:w\d+)?)\.tarn$", "\n".join(self.requests()), re.MULTILINE)

    def close(self) -> None:
        self._process.terminate()
        self._process.wait(30)


class TlsNginx(Nginx):
    """Serves by HTTPS, with a certificate that is its own authority."""

    def __init__(self, template: Path, directory: Path, home: Path) -> None:
        home.mkdir(parents=True, exist_ok=True)
        self.certificate, self._key = home / "certificate.pem", home / "key.pem"
        command = ["openssl", "req", "-x509", "-newkey", "ed25519", "-noenc", "-days", "2", "-subj", "/CN=localhost"]
        command += ["-addext", "subjectAltName=IP:127.0.0.1", "-keyout", str(self._key), "-out", str(self.certificate)]
        subprocess.run(command, check=True, capture_output=True)
        super().__init__(template, directory, home)

    def _server_block(self, template: str, directory: Path) -> str:
        listen = f"listen {self.netloc}"
        certificate = f"ssl_certificate {self.certificate}; ssl_certificate_key {self._key};"
        return super()._server_block(template, directory).replace(f"{listen};", f"{listen} ssl; {certificate}")

    @property
    def url(self) -> str:
        return f"https://{self.netloc}"

    def _connect(self) -> http.client.HTTPConnection:
        trusting = ssl.create_default_context(cafile=str(self.certificate))
        return http.client.HTTPSConnection(self.netloc, timeout=30, context=trusting)
