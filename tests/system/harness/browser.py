"""A headless Chromium, driven through WebDriver by plain HTTP."""

from __future__ import annotations

import base64
import json
import re
import shutil
import subprocess
import urllib.request
from pathlib import Path
from typing import Any

MISSING = [name for name in ("chromium", "chromedriver") if shutil.which(name) is None]

# Nothing but loopback exists for it, so that a page that wants something from elsewhere shows a fault.
ARGUMENTS = [
    "--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--hide-scrollbars", "--no-first-run",
    "--disable-background-networking", "--disable-component-update", "--disable-sync", "--disable-extensions",
    "--host-resolver-rules=MAP * ~NOTFOUND , EXCLUDE 127.0.0.1",
]  # fmt: skip


class Browser:
    """One window. Used with "with", which ends the browser."""

    def __init__(self, profile: Path) -> None:
        self._log = (profile.parent / "chromedriver.log").open("w+")
        self._driver = subprocess.Popen(
            ["chromedriver", "--port=0"], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=self._log, text=True
        )
        try:
            self._base = f"http://127.0.0.1:{self._port()}"
            options = {"binary": shutil.which("chromium"), "args": [*ARGUMENTS, f"--user-data-dir={profile}"]}
            wanted = {"capabilities": {"alwaysMatch": {"browserName": "chrome", "goog:chromeOptions": options}}}
            self._session = self._call("POST", "/session", wanted)["sessionId"]
        except BaseException:
            self._end_driver()
            raise

    def _port(self) -> int:
        assert self._driver.stdout is not None
        for line in self._driver.stdout:
            if match := re.search(r"started successfully on port (\d+)", line):
                return int(match[1])
        raise AssertionError("chromedriver did not start")

    def _call(self, method: str, path: str, body: object = None) -> Any:
        data = json.dumps(body if body is not None else {}).encode() if method == "POST" else None
        request = urllib.request.Request(self._base + path, data, {"Content-Type": "application/json"}, method=method)
        try:
            with urllib.request.urlopen(request, timeout=60) as answer:
                return json.load(answer)["value"]
        except urllib.error.HTTPError as error:
            raise AssertionError(f"{path}: {error.read().decode()}") from None

    def __enter__(self) -> Browser:
        return self

    def __exit__(self, *_: object) -> None:
        try:
            self._call("DELETE", f"/session/{self._session}")
        finally:
            self._end_driver()

    def _end_driver(self) -> None:
        self._driver.terminate()
        self._driver.wait(20)
        self._log.close()

    def open(self, url: str) -> None:
        self._call("POST", f"/session/{self._session}/url", {"url": url})

    def run(self, script: str) -> Any:
        """What a script returns that runs beside the page, whatever the page may run itself."""
        return self._call("POST", f"/session/{self._session}/execute/sync", {"script": script, "args": []})

    def command(self, name: str, **parameters: object) -> Any:
        """A command of the browser's own protocol."""
        return self._call("POST", f"/session/{self._session}/goog/cdp/execute", {"cmd": name, "params": parameters})

    def show(self, width: int, *, dark: bool = False, height: int = 800) -> None:
        """How wide the window is, and which colours the person at it prefers."""
        self.command("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1, mobile=False)
        scheme = {"name": "prefers-color-scheme", "value": "dark" if dark else "light"}
        self.command("Emulation.setEmulatedMedia", features=[scheme])

    def screenshot(self, path: Path) -> None:
        path.write_bytes(base64.b64decode(self._call("GET", f"/session/{self._session}/screenshot")))
