"""A site for people, by the real program: whole pages with live links, a feed, kept changes, and nothing in between."""

from __future__ import annotations

import hashlib
import json
import random
import time
import xml.etree.ElementTree as ElementTree
from pathlib import Path
from typing import Any
from urllib.parse import urlsplit

import pytest
from harness import programs
from harness.many_versions import write_repository
from harness.pages import dead_links, parse, served
from harness.publisher import Publisher
from harness.site_repository import MARKUP, change_tree, publish_attacks, publish_something_of_everything

ATOM = "{http://www.w3.org/2005/Atom}"
URL = "https://updates.example.org/site"
PLACES = "databases/places"


def command(publisher: Publisher, out: Path, *more: str | Path) -> list[str | Path]:
    return [programs.PUB, "site", "--repo", publisher.repository, "--out", out, *more]


def make(publisher: Publisher, out: Path, *more: str | Path) -> dict[str, Any]:
    with_key = command(publisher, out, "--key", publisher.public_key, "--json", *more)
    return json.loads(programs.run_ok(*with_key).stdout)


def digests(root: Path) -> dict[str, str]:
    return {
        str(path.relative_to(root)): hashlib.sha256(path.read_bytes()).hexdigest()
        for path in sorted(root.rglob("*"))
        if path.is_file()
    }


@pytest.fixture
def everything(publisher: Publisher, tmp_path: Path) -> Publisher:
    publisher.base = "https://updates.example.org"
    publish_something_of_everything(publisher, tmp_path)
    return publisher


def test_pages_say_what_the_repository_holds(everything: Publisher, tmp_path: Path) -> None:
    out = everything.repository / "site"
    result = make(everything, out)
    assert (result["databases"], result["versions"], result["feed"]) == (2, 9, True)
    assert result["files"] == len(digests(out)) - 1, "all but the mark"
    assert dead_links(out) == []
    index = parse(out / "index.html")
    assert f"{PLACES}/index.html" in index.links
    places = parse(out / PLACES / "index.html")
    for expected in ("withdrawn by 1006", "content of 1004", "channel canary", "release 1003", "1005 lacked Berlin"):
        assert expected in places.text
    assert places.of("svg", "aria-labelledby") == ["sizes-title sizes-text", "downloads-title downloads-text"]
    full = everything.package("places", 1003).stat().st_size
    assert f"{full / 1000:.1f} kB" in places.text
    changes = parse(out / PLACES / "changes-1004.html").text
    assert "1 inserted, 8 updated, 1 deleted" in changes and "list.txt" in changes
    assert not (out / PLACES / "changes-1005.html").exists(), "it was withdrawn, and may hold what nobody is to see"
    channels = parse(out / "channels.html").text
    assert "Channel canary" in channels and "behind another channel" in channels
    fingerprint = programs.run_ok(programs.PUB, "verify", everything.package("places", 1000), "--key",
                                  everything.public_key).stdout.rpartition("(")[2].partition(")")[0]  # fmt: skip
    assert fingerprint in parse(out / "trust.html").text
    key = out / f"keys/{fingerprint[:16]}.pub"
    assert key.read_text() == everything.public_key.read_text()


def test_pages_load_nothing_from_elsewhere_and_run_nothing(everything: Publisher, tmp_path: Path) -> None:
    make(everything, tmp_path / "site", "--url", URL)
    for path in (tmp_path / "site").rglob("*.html"):
        page = parse(path)
        assert page.of("meta", "content")[0].startswith("default-src 'none'")
        assert page.of("link", "href")[0].endswith("style.css")
        for element, attributes in page.elements:
            assert element not in ("script", "img", "iframe", "object", "embed", "style")
            assert not {name for name in attributes if name.startswith("on") or name in ("src", "style")}
        for table in ("table", "caption"):
            assert sum(name == table for name, _ in page.elements) == sum(name == "thead" for name, _ in page.elements)
    assert "url(" not in (tmp_path / "site/style.css").read_text()


def test_the_feed_is_valid_and_names_every_page_from_anywhere(everything: Publisher, tmp_path: Path) -> None:
    out = tmp_path / "site"
    make(everything, out, "--url", URL + "/")
    feed = ElementTree.parse(out / "feed.xml").getroot()
    assert feed.tag == f"{ATOM}feed"
    assert all(feed.find(ATOM + name) is not None for name in ("id", "title", "updated", "author"))
    entries = feed.findall(f"{ATOM}entry")
    assert len(entries) == 9
    ids = [entry.findtext(f"{ATOM}id") for entry in entries]
    assert len(set(ids)) == 9
    for link in feed.iter(f"{ATOM}link"):
        assert link.attrib["href"].startswith(URL + "/")
        place = urlsplit(link.attrib["href"].removeprefix(URL + "/"))
        assert (out / place.path).is_file()
        assert not place.fragment or place.fragment in parse(out / place.path).ids
    times = [entry.findtext(f"{ATOM}updated") for entry in entries]
    assert times == sorted(times, reverse=True) and feed.findtext(f"{ATOM}updated") == times[0]


def test_where_the_site_is_served_is_known_below_the_repository_or_said(everything: Publisher, tmp_path: Path) -> None:
    make(everything, everything.repository / "site")
    feed = (everything.repository / "site/feed.xml").read_text()
    assert 'href="https://updates.example.org/site/index.html"' in feed
    make(everything, everything.repository / "for 'us';")
    link = 'href="https://updates.example.org/for%20%27us%27%3b/index.html"'
    assert link in (everything.repository / "for 'us';/feed.xml").read_text()
    result = programs.run_ok(*command(everything, tmp_path / "elsewhere"))
    assert "There is no feed" in result.stderr
    assert not (tmp_path / "elsewhere/feed.xml").exists()
    assert dead_links(tmp_path / "elsewhere") == []


def test_the_second_run_finds_what_the_first_has_found(everything: Publisher, tmp_path: Path) -> None:
    out = tmp_path / "site"
    first = make(everything, out, "--changes", "50")
    assert (first["changes_compared"], first["changes_kept"]) == (5, 0)
    before = digests(out)
    second = make(everything, out, "--changes", "50")
    assert (second["changes_compared"], second["changes_kept"]) == (0, 5)
    assert digests(out) == before
    change_tree(tmp_path / "places", 77)
    everything.publish(tmp_path / "places", "places", "--level", "1", "--channel", "canary", keep_diffs=30)
    third = make(everything, out, "--changes", "50")
    assert (third["changes_compared"], third["changes_kept"]) == (1, 5)
    assert make(everything, out, "--changes", "50", "--examples", "0")["changes_compared"] == 6, "another option"
    kept = everything.repository / ".tarndbudpub.changes"
    assert len(list(kept.rglob("*.html"))) == 6, "what nothing asks for is removed"


def test_a_killed_run_leaves_the_old_site_or_the_new_one(everything: Publisher, tmp_path: Path) -> None:
    out = tmp_path / "site"
    make(everything, out)
    old = digests(out)
    change_tree(tmp_path / "places", 78)
    everything.publish(tmp_path / "places", "places", "--level", "1", "--channel", "canary", keep_diffs=30)
    seconds = programs.run_ok(*command(everything, tmp_path / "new", "--key", everything.public_key)).seconds
    new = digests(tmp_path / "new")
    assert new != old
    chance = random.Random(7)
    for kept in (everything.repository / ".tarndbudpub.changes").rglob("*.html"):
        kept.unlink()
    killed = 0
    for _ in range(15):
        run = programs.Running([str(word) for word in command(everything, out, "--key", everything.public_key)])
        time.sleep(chance.random() * seconds)
        run.kill()
        killed += run.wait().status != 0
        assert digests(out) in (old, new)
    assert killed > 3
    make(everything, out)
    assert digests(out) == new
    names = sorted(path.name for path in tmp_path.iterdir() if path.name.startswith("."))
    assert names == [], "what killed runs left is removed"


def test_the_lines_of_the_trust_page_bring_and_compare_the_key(everything: Publisher, tmp_path: Path) -> None:
    out = tmp_path / "site"
    with served(tmp_path) as url:
        make(everything, out, "--url", f"{url}/site")
        fingerprint = json.loads(
            programs.run_ok(programs.PUB, "fingerprint", everything.public_key, "--json").stdout
        )[0]["fingerprint"]
        text = parse(out / "trust.html").text
        lines = text[text.index("cat > ") :].split("\n")
        last = next(number for number, line in enumerate(lines) if line.startswith("install "))
        got = programs.run_ok("bash", "-ec", "\n".join([f"cd '{tmp_path}'", *lines[:last]]))
    assert got.stdout.split()[0] == fingerprint
    assert lines[last].endswith(f"/usr/tarn/etc/codesign/6/{fingerprint[:16]}.pub")
    assert (tmp_path / f"{fingerprint[:16]}.pub").read_text() == everything.public_key.read_text()


def test_names_with_markup_stay_names(publisher: Publisher, tmp_path: Path) -> None:
    publish_attacks(publisher, tmp_path)
    out = tmp_path / "site"
    make(publisher, out, "--url", URL, "--title", MARKUP)
    assert dead_links(out) == []
    assert MARKUP in parse(out / "index.html").text
    assert "../../escaped" in parse(out / "index.html").text
    assert not (tmp_path / "escaped").exists()
    assert MARKUP in parse(out / "databases/attacks/changes-1001.html").text
    ElementTree.parse(out / "feed.xml")
    for path in out.rglob("*.html"):
        page = parse(path)
        assert not {name for name, _ in page.elements} & {"script", "img", "b"}
        assert not [link for link in page.links if link.startswith("javascript:")]


def test_two_hundred_databases_of_five_hundred_versions_are_usable(tmp_path: Path) -> None:
    repository = tmp_path / "repository"
    write_repository(repository, {f"db{number:03}": 500 for number in range(200)})
    out = tmp_path / "site"
    arguments = [programs.PUB, "site", "--repo", repository, "--out", out, "--url", URL, "--json"]
    result, peak_kib = programs.peak_memory(*arguments)
    assert result.status == 0, str(result)
    told = json.loads(result.stdout)
    assert (told["databases"], told["versions"]) == (200, 100_000)
    largest = max(path.stat().st_size for path in out.rglob("*.html"))
    print(f"{result.seconds:.1f} s, {peak_kib} KiB, {told['bytes']} bytes in {told['files']} files, largest {largest}")
    # docs/publishing.md has these figures.
    assert told["files"] == 405
    assert told["bytes"] < 34_500_000
    assert largest < 133_500
    assert (out / "databases/db007/index.html").stat().st_size < 80_000
    assert peak_kib < 100 * 1024


def test_what_lies_in_the_place_of_a_site_is_not_lost(everything: Publisher, tmp_path: Path) -> None:
    precious = tmp_path / "home"
    precious.mkdir()
    (precious / "letter").write_text("dear\n")
    for out in (precious, everything.repository, everything.repository / "packages/x", tmp_path):
        before = digests(tmp_path)
        result = programs.run(*command(everything, out))
        assert result.status == 1, str(result)
        assert result.stderr.count("\n") == 1 + result.stderr.count("warning")
        assert digests(tmp_path) == before
    site = tmp_path / "site"
    make(everything, site)
    (site / "robots.txt").write_text("mine\n")
    assert "robots.txt" in programs.run(*command(everything, site)).stderr
    assert (site / "robots.txt").read_text() == "mine\n"
    for wrong in (["--changes", "3"], ["--url", "ftp://x"], ["--examples", "5000"]):
        assert programs.run(*command(everything, tmp_path / "no", *wrong)).status == 2
