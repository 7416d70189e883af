"""The web-server examples as administrators get them: the update server, and a caching proxy in front of it."""

from __future__ import annotations

import http.client
import os
import re
import socket
import time
from collections.abc import Iterator
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from pathlib import Path

import pytest
from harness import trees, waiting
from harness.device import DATABASE, Device
from harness.publisher import Publisher
from harness.webserver import Nginx

SOURCE = Path(__file__).resolve().parents[2]
DOCUMENT = "/database_info/1"
PACKAGE = f"/packages/{DATABASE}/{DATABASE}_v1.tarn"
SLICE = 1 << 20
"""What the proxy fetches at once of a package."""
FOREVER = "public, max-age=31536000, immutable"


@dataclass(frozen=True)
class Answer:
    status: int
    headers: http.client.HTTPMessage
    body: bytes


def ask(server: Nginx, path: str, method: str = "GET", **headers: str) -> Answer:
    """Asks for a path exactly as it stands; names of headers are written with "_" for "-"."""
    connection = http.client.HTTPConnection(server.netloc, timeout=30)
    try:
        connection.request(method, path, headers={name.replace("_", "-"): value for name, value in headers.items()})
        response = connection.getresponse()
        return Answer(response.status, response.headers, response.read())
    finally:
        connection.close()


@pytest.fixture
def published(nginx: Nginx, publisher: Publisher, tmp_path: Path) -> Nginx:
    tree = trees.write_random_tree(tmp_path / "tree", 7, count=4, size=60_000)
    publisher.publish(tree, DATABASE)
    return nginx


class CachingProxy(Nginx):
    """The proxy's example, in front of another server and with a cache in its own home."""

    def __init__(self, origin: Nginx, home: Path, document_seconds: int) -> None:
        self._origin = origin
        self._document_seconds = document_seconds
        super().__init__(SOURCE / "packaging/nginx/tarndbud-cache.conf", home / "cache", home)

    def _server_block(self, template: str, directory: Path) -> str:
        changes = {
            r"listen \S+;": (f"listen {self.netloc};", 1),
            r"proxy_pass \S+;": (f"proxy_pass {self._origin.url};", 2),
            r"proxy_cache_path \S+": (f"proxy_cache_path {directory}", 1),
            r"proxy_cache_valid 200 10m;": (f"proxy_cache_valid 200 {self._document_seconds}s;", 1),
        }
        for old, (new, wanted) in changes.items():
            template, count = re.subn(old, new, template)
            assert count == wanted, old
        return template


@pytest.fixture
def proxy(published: Nginx, publisher: Publisher, tmp_path: Path) -> Iterator[CachingProxy]:
    made = CachingProxy(published, tmp_path / "proxy", document_seconds=3600)
    publisher.base = made.url
    yield made
    made.close()


def test_the_document_is_json_that_nobody_may_keep_unasked(published: Nginx, publisher: Publisher) -> None:
    answer = ask(published, DOCUMENT)
    assert answer.status == 200
    assert answer.headers["Content-Type"] == "application/json"
    assert answer.headers["Cache-Control"] == "no-cache"
    assert answer.body == publisher.document.read_bytes()


def test_a_package_is_bytes_that_anybody_may_keep_for_ever(published: Nginx, publisher: Publisher) -> None:
    answer = ask(published, PACKAGE)
    assert answer.status == 200
    assert answer.headers["Content-Type"] == "application/octet-stream"
    assert answer.headers["Cache-Control"] == FOREVER
    assert answer.body == publisher.package(DATABASE, 1).read_bytes()


def test_types_do_not_follow_the_endings_that_the_publisher_chooses(publisher: Publisher, nginx: Nginx) -> None:
    for path, kind in (("database_info/1.html", "application/json"), ("packages/a/a.gz", "application/octet-stream")):
        file = publisher.repository / path
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_bytes(b"{}")
        assert ask(nginx, "/" + path).headers["Content-Type"] == kind


@pytest.mark.parametrize("path", [DOCUMENT, PACKAGE])
def test_an_unchanged_file_is_not_sent_again(published: Nginx, path: str) -> None:
    headers = ask(published, path).headers
    for condition in ({"If_None_Match": headers["ETag"]}, {"If_Modified_Since": headers["Last-Modified"]}):
        again = ask(published, path, **condition)
        assert (again.status, again.body) == (304, b"")


def test_a_changed_document_is_sent_again(published: Nginx, publisher: Publisher, tmp_path: Path) -> None:
    before = ask(published, DOCUMENT)
    publisher.publish(tmp_path / "tree", DATABASE, "--data-version", "1000")
    after = ask(published, DOCUMENT, If_None_Match=before.headers["ETag"])
    assert after.status == 200
    assert b'"1000"' in after.body


def test_an_interrupted_download_can_go_on(published: Nginx, publisher: Publisher) -> None:
    content = publisher.package(DATABASE, 1).read_bytes()
    answer = ask(published, PACKAGE, Range="bytes=1000-")
    assert answer.status == 206
    assert answer.headers["Content-Range"] == f"bytes 1000-{len(content) - 1}/{len(content)}"
    assert answer.body == content[1000:]


def test_the_query_changes_nothing_in_the_document(published: Nginx) -> None:
    plain = ask(published, DOCUMENT)
    asked = ask(published, f"{DOCUMENT}?os=orv&dlid=0123456789abcdef&db_list[{DATABASE}]=1")
    assert (asked.status, asked.body, asked.headers["ETag"]) == (200, plain.body, plain.headers["ETag"])


@pytest.mark.parametrize(
    "path",
    [
        "/.tarndbudpub.lock",
        "/%2etarndbudpub.lock",
        "/database_info/../.tarndbudpub.lock",
        "/database_info/.tarndbudpub-left.part",
        f"/packages/{DATABASE}/.tarndbudpub-left.part",
        "/.tarndbudpub-work-left/tree/file",
    ],
)
def test_what_the_publisher_works_with_is_hidden(published: Nginx, publisher: Publisher, path: str) -> None:
    if "left" in path:
        file = publisher.repository / path.lstrip("/")
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_bytes(b"left by a killed publisher")
    assert (publisher.repository / ".tarndbudpub.lock").exists()
    assert ask(published, path).status == 404


@pytest.mark.parametrize("path", ["/", "/other", "/packages/", "/database_info/"])
def test_nothing_is_served_or_listed_beyond_the_published_files(
    published: Nginx, publisher: Publisher, path: str
) -> None:
    (publisher.repository / "other").write_bytes(b"not for devices")
    answer = ask(published, path)
    assert answer.status in (403, 404)
    assert DATABASE.encode() not in answer.body


@pytest.mark.parametrize("method", ["POST", "PUT", "DELETE"])
def test_nothing_can_be_changed_through_the_server(published: Nginx, publisher: Publisher, method: str) -> None:
    before = publisher.document.read_bytes()
    assert ask(published, DOCUMENT, method).status == 405
    assert publisher.document.read_bytes() == before


def upstream(published: Nginx, path: str) -> list[str]:
    """The requests for a path that reached the update server."""
    return [line for line in published.requests() if line.split(" ")[2].startswith(path)]


def test_many_devices_are_one_request_for_the_document(published: Nginx, proxy: CachingProxy) -> None:
    expected = ask(published, DOCUMENT).body
    before = len(upstream(published, DOCUMENT))
    with ThreadPoolExecutor(8) as pool:
        answers = list(pool.map(lambda device: ask(proxy, f"{DOCUMENT}?os=orv&dlid={device:016x}"), range(16)))
    assert [answer.status for answer in answers] == [200] * 16
    assert {answer.body for answer in answers} == {expected}
    assert {answer.headers["Cache-Control"] for answer in answers} == {"no-cache"}
    assert upstream(published, DOCUMENT)[before:] == [f"200 {len(expected)} {DOCUMENT}"]


def test_the_proxy_fetches_a_package_once_for_all_devices_and_ranges(
    published: Nginx, publisher: Publisher, proxy: CachingProxy
) -> None:
    content = publisher.package(DATABASE, 1).read_bytes()
    first = ask(proxy, PACKAGE, Range="bytes=5000-5999")
    assert (first.status, first.body) == (206, content[5000:6000])
    with ThreadPoolExecutor(4) as pool:
        answers = list(pool.map(lambda _: ask(proxy, PACKAGE), range(8)))
    assert {answer.body for answer in answers} == {content}
    assert {answer.headers["X-Cache-Status"] for answer in answers} == {"HIT"}
    assert {answer.headers["Cache-Control"] for answer in answers} == {FOREVER}
    assert upstream(published, PACKAGE) == [f"206 {len(content)} {PACKAGE}"]


class SlowNginx(Nginx):
    """An update server behind a slow line."""

    def _server_block(self, template: str, directory: Path) -> str:
        block = super()._server_block(template, directory)
        return block.replace("location /packages/ {", "location /packages/ { limit_rate 1m;")


@pytest.fixture
def content(publisher: Publisher, tmp_path: Path) -> bytes:
    """A package of several slices."""
    publisher.publish(trees.write_random_tree(tmp_path / "tree", 7, count=1, size=3_500_000), DATABASE, "--level", "1")
    return publisher.package(DATABASE, 1).read_bytes()


@pytest.fixture
def slow(publisher: Publisher, content: bytes, tmp_path: Path) -> Iterator[Nginx]:
    made = SlowNginx(SOURCE / "packaging/nginx/tarndbud.conf", publisher.repository, tmp_path / "slow")
    yield made
    made.close()


@pytest.fixture
def before_slow(slow: Nginx, tmp_path: Path) -> Iterator[CachingProxy]:
    made = CachingProxy(slow, tmp_path / "proxy", document_seconds=3600)
    yield made
    made.close()


def slices(content: bytes) -> list[str]:
    """The requests for all slices of a package, each once."""
    sizes = [min(SLICE, len(content) - begin) for begin in range(0, len(content), SLICE)]
    assert len(sizes) > 2
    return sorted(f"206 {size} {PACKAGE}" for size in sizes)


def test_devices_side_by_side_all_get_bytes_of_a_package_that_comes_slowly(
    slow: Nginx, before_slow: CachingProxy, content: bytes
) -> None:
    def fetch(delay: float) -> tuple[float, float, bytes]:
        """When the first bytes came, when the last, and all of them."""
        time.sleep(delay)
        connection = http.client.HTTPConnection(before_slow.netloc, timeout=30)
        connection.request("GET", PACKAGE)
        response = connection.getresponse()
        first = response.read(1)
        begun = time.monotonic()
        body = first + response.read()
        connection.close()
        return begun, time.monotonic(), body

    with ThreadPoolExecutor(2) as pool:
        (_, ended, first), (begun, _, second) = pool.map(fetch, (0, 0.2))
    assert first == second == content
    assert begun < ended - 1, "the second device waits for the whole package"
    assert sorted(upstream(slow, PACKAGE)) == slices(content)


def test_the_size_of_a_package_costs_one_slice(slow: Nginx, before_slow: CachingProxy, content: bytes) -> None:
    answer = ask(before_slow, PACKAGE, "HEAD")
    assert (answer.status, answer.headers["Content-Length"]) == (200, str(len(content)))
    waiting.until(lambda: upstream(slow, PACKAGE) != [], "the slice is there")
    time.sleep(1.5)  # for a next slice, which takes a second
    assert upstream(slow, PACKAGE) == [f"206 {SLICE} {PACKAGE}"]


def test_a_download_goes_on_through_the_proxy_where_it_was_interrupted(
    slow: Nginx, before_slow: CachingProxy, content: bytes
) -> None:
    begin = 2 * SLICE + 1000
    answer = ask(before_slow, PACKAGE, Range=f"bytes={begin}-")
    assert (answer.status, answer.body) == (206, content[begin:])
    assert answer.headers["Content-Range"] == f"bytes {begin}-{len(content) - 1}/{len(content)}"
    assert len(upstream(slow, PACKAGE)) == len(slices(content)) - 2
    assert ask(before_slow, PACKAGE, Range=f"bytes={len(content)}-").status == 416
    assert ask(before_slow, PACKAGE).body == content


def test_a_repository_that_was_copied_goes_on_with_slices_that_are_there(
    publisher: Publisher, before_slow: CachingProxy, content: bytes
) -> None:
    assert ask(before_slow, PACKAGE, Range="bytes=0-9").body == content[:10]
    os.utime(publisher.package(DATABASE, 1), (1, 1))
    assert ask(before_slow, PACKAGE).body == content


def test_a_new_document_comes_through_the_proxy_after_seconds(
    published: Nginx, publisher: Publisher, tmp_path: Path
) -> None:
    proxy = CachingProxy(published, tmp_path / "proxy", document_seconds=1)
    try:
        assert b'"1000"' not in ask(proxy, DOCUMENT).body
        publisher.publish(tmp_path / "tree", DATABASE, "--data-version", "1000")
        begin = time.monotonic()
        waiting.until(lambda: b'"1000"' in ask(proxy, DOCUMENT).body, "the new document comes")
        assert time.monotonic() - begin < 5
    finally:
        proxy.close()


def test_what_the_proxy_has_outlives_the_update_server(published: Nginx, tmp_path: Path) -> None:
    proxy = CachingProxy(published, tmp_path / "proxy", document_seconds=1)
    try:
        document, package = ask(proxy, DOCUMENT), ask(proxy, PACKAGE)
        published.close()
        waiting.until(lambda: ask(proxy, DOCUMENT).headers["X-Cache-Status"] == "STALE", "the document is old")
        assert ask(proxy, DOCUMENT).body == document.body
        assert ask(proxy, PACKAGE).body == package.body
    finally:
        proxy.close()


def test_an_update_server_that_never_answers_holds_nobody_up_for_long(published: Nginx, tmp_path: Path) -> None:
    proxy = CachingProxy(published, tmp_path / "proxy", document_seconds=1)
    try:
        document = ask(proxy, DOCUMENT)
        published.close()
        host, port = published.netloc.split(":")
        with socket.create_server((host, int(port))):
            time.sleep(2)  # until the document is old
            begin = time.monotonic()
            answer = ask(proxy, DOCUMENT)
            assert 4 < time.monotonic() - begin < 9
        assert (answer.headers["X-Cache-Status"], answer.body) == ("STALE", document.body)
    finally:
        proxy.close()


def test_a_missing_package_is_not_remembered_as_missing(
    published: Nginx, publisher: Publisher, proxy: CachingProxy
) -> None:
    late = PACKAGE.replace("_v1", "_v2")
    assert ask(proxy, late).status == 404
    publisher.package(DATABASE, 2).write_bytes(b"published a moment later")
    assert ask(proxy, late).body == b"published a moment later"


def test_the_publishers_work_is_hidden_behind_the_proxy_as_well(proxy: CachingProxy) -> None:
    assert ask(proxy, "/.tarndbudpub.lock").status == 404
    assert ask(proxy, "/other").status == 404


def test_a_device_updates_through_the_proxy(
    published: Nginx, proxy: CachingProxy, device: Device, publisher: Publisher, tmp_path: Path
) -> None:
    device.netloc = proxy.netloc
    device.configure()
    publisher.publish(tmp_path / "tree", DATABASE, "--data-version", "1000")
    device.run_ok("update", DATABASE)
    trees.assert_same(tmp_path / "tree", device.installed(DATABASE))
    assert len(upstream(published, "/packages/")) == 1
