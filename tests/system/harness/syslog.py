"""Stands in for the syslog daemon: takes in what programs log."""

from __future__ import annotations

import os
import re
import socket
import threading
from pathlib import Path

SOCKET = Path("/dev/log")
GIVEN_UP = " Diff update fail, try full update: "
SENTINEL = b"<0>everything sent before this has arrived"


class Syslog:
    def __init__(self) -> None:
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(str(SOCKET))
        SOCKET.chmod(0o666)
        self._lines: list[tuple[int, str]] = []
        self._drained = threading.Event()
        self._thread = threading.Thread(target=self._receive, daemon=True)
        self._thread.start()

    @staticmethod
    def is_possible() -> bool:
        return not os.path.lexists(SOCKET)

    def _receive(self) -> None:
        while data := self._socket.recv(1 << 16):
            if data == SENTINEL:
                self._drained.set()
                continue
            match = re.match(rb"<(\d+)>\w+ +\d+ [\d:]+ (.*)", data, re.DOTALL)
            if match:
                text = match[2].decode(errors="replace").rstrip("\0\n")
                self._lines.append((int(match[1]) & 7, text))

    def _send(self, data: bytes) -> None:
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.sendto(data, str(SOCKET))

    def lines(self) -> list[tuple[int, str]]:
        """Priority and text, the program's name at its front, of everything logged so far."""
        self._drained.clear()
        self._send(SENTINEL)
        assert self._drained.wait(30)
        return list(self._lines)

    def refusals(self) -> list[str]:
        """Why diff updates were given up for full ones, each as the one warning of its update says it."""
        warnings = (text for priority, text in self.lines() if priority == 4)
        return [text.partition(GIVEN_UP)[2] for text in warnings if GIVEN_UP in text]

    def close(self) -> None:
        self._send(b"")
        self._thread.join(30)
        self._socket.close()
        SOCKET.unlink()
