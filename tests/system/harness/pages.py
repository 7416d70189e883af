"""Static pages: what they hold and link to, and a server that serves them."""

from __future__ import annotations

import http.server
import re
import threading
from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import dataclass, field
from functools import partial
from html.parser import HTMLParser
from pathlib import Path
from urllib.parse import unquote, urldefrag, urljoin, urlsplit

POLICY = re.compile(rb'<meta http-equiv="Content-Security-Policy"[^>]*>')
VOID = ("meta", "link", "path")


@dataclass
class Parsed:
    """One page, as any reader of HTML without scripts finds it."""

    elements: list[tuple[str, dict[str, str]]] = field(default_factory=list)
    text: str = ""

    def of(self, element: str, attribute: str) -> list[str]:
        return [attributes[attribute] for name, attributes in self.elements if name == element and attribute in attributes]

    @property
    def links(self) -> list[str]:
        return [*self.of("a", "href"), *self.of("link", "href")]

    @property
    def ids(self) -> list[str]:
        return [attributes["id"] for _, attributes in self.elements if "id" in attributes]


class _Parser(HTMLParser):
    def __init__(self) -> None:
        super().__init__()
        self.page = Parsed()
        self._open: list[str] = []

    def handle_starttag(self, tag: str, attrs: list[tuple[str, str | None]]) -> None:
        self.page.elements.append((tag, {name: value or "" for name, value in attrs}))
        self._open.append(tag)

    def handle_startendtag(self, tag: str, attrs: list[tuple[str, str | None]]) -> None:
        assert tag in VOID or tag == "circle", f"<{tag} /> is not closed in HTML"
        self.page.elements.append((tag, {name: value or "" for name, value in attrs}))

    def handle_endtag(self, tag: str) -> None:
        assert self._open.pop() == tag, f"</{tag}> closes something else"

    def handle_data(self, data: str) -> None:
        self.page.text += data


def parse(path: Path) -> Parsed:
    parser = _Parser()
    parser.feed(path.read_text())
    parser.close()
    assert parser._open == [], f"{path}: left open {parser._open}"
    return parser.page


def dead_links(root: Path) -> list[str]:
    """Links of all pages below a directory that lead to no file, or to no element of a page."""
    pages = {path: parse(path) for path in sorted(root.rglob("*.html"))}
    assert pages
    dead = []
    for path, page in pages.items():
        for link in page.links:
            if urlsplit(link).scheme:
                continue
            place, fragment = urldefrag(urljoin(path.as_uri(), link))
            target = Path(unquote(urlsplit(place).path))
            if not target.is_file() or (fragment and target.suffix == ".html" and fragment not in pages[target].ids):
                dead.append(f"{path.relative_to(root)}: {link}")
    return dead


class _Handler(http.server.SimpleHTTPRequestHandler):
    def do_GET(self) -> None:
        if not self.path.startswith("/bare/"):
            super().do_GET()
            return
        path = Path(self.directory) / unquote(urlsplit(self.path).path.removeprefix("/bare/"))
        if not path.is_file():  # what an attack asks for
            self.send_error(404)
            return
        content = POLICY.sub(b"", path.read_bytes())
        self.send_response(200)
        self.send_header("Content-Type", self.guess_type(str(path)))
        self.send_header("Content-Length", str(len(content)))
        self.end_headers()
        self.wfile.write(content)

    def log_message(self, *_: object) -> None:
        pass


@contextmanager
def served(root: Path) -> Iterator[str]:
    """The URL of a directory; below "/bare/" its pages come without what forbids scripts, so that a script would run."""
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), partial(_Handler, directory=str(root)))
    thread = threading.Thread(target=server.serve_forever)
    thread.start()
    try:
        yield f"http://127.0.0.1:{server.server_address[1]}"
    finally:
        server.shutdown()
        thread.join()
        server.server_close()
