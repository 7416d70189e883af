"""The pages of a site in a real browser: narrow and wide, light and dark, without scripts, and under attack."""

from __future__ import annotations

from collections.abc import Iterator
from pathlib import Path
from urllib.parse import urldefrag

import pytest
from harness import browser, programs
from harness.browser import Browser
from harness.many_versions import write_repository
from harness.pages import served
from harness.publisher import Publisher
from harness.site_repository import MARKUP, publish_attacks, publish_something_of_everything

pytestmark = pytest.mark.skipif(
    bool(browser.MISSING), reason=f"{' and '.join(browser.MISSING)} (Debian's chromium, chromium-driver) not installed"
)

SOURCE = Path(__file__).resolve().parents[2]
WIDTHS = (320, 390, 768, 1280, 1920)
PAGES = ("index.html", "channels.html", "trust.html", "databases/places/index.html",
         "databases/places/changes-1004.html")  # fmt: skip

# The ratio of WCAG between what is drawn and what is behind, for texts (4.5) and for the lines of plots (3).
CONTRAST = """
const parsed = text => text.match(/[\\d.]+/g).map(Number);
const light = text => {
  const [r, g, b] = parsed(text).map(v => v / 255).map(v => v <= 0.03928 ? v / 12.92 : ((v + 0.055) / 1.055) ** 2.4);
  return 0.2126 * r + 0.7152 * g + 0.0722 * b;
};
const behind = node => {
  for (let at = node; at; at = at.parentElement) {
    const ground = getComputedStyle(at).backgroundColor;
    if (ground !== 'rgba(0, 0, 0, 0)') return ground;
  }
  return 'rgb(255, 255, 255)';
};
const ratio = (one, other) => {
  const [low, high] = [light(one), light(other)].sort((a, b) => a - b);
  return (high + 0.05) / (low + 0.05);
};
const found = [];
const walk = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
for (let node = walk.nextNode(); node; node = walk.nextNode()) {
  if (!node.textContent.trim()) continue;
  const element = node.parentElement;
  if (['title', 'desc'].includes(element.tagName.toLowerCase())) continue;
  const style = getComputedStyle(element);
  const ink = element.namespaceURI.endsWith('svg') ? style.fill : style.color;
  found.push([ratio(ink, behind(element)), 4.5, node.textContent.trim().slice(0, 40)]);
}
for (const line of document.querySelectorAll('g.full path, g.diff path')) {
  found.push([ratio(getComputedStyle(line).stroke, behind(line)), 3, 'a line of a plot']);
}
return [found.length, found.filter(([ratio, least]) => ratio < least), getComputedStyle(document.body).backgroundColor];
"""

# What reaches out of the window, but for what is scrolled by itself.
OVERFLOW = """
const root = document.documentElement;
const out = [...document.querySelectorAll('main *, header *')].filter(element =>
  !element.closest('.scroll table, pre') && element.getBoundingClientRect().right > root.clientWidth + 0.5);
return [root.scrollWidth - root.clientWidth, out.map(element => element.tagName + ' ' + element.className)];
"""


@pytest.fixture(scope="module")
def site(tmp_path_factory: pytest.TempPathFactory, product: None) -> Path:
    home = tmp_path_factory.mktemp("site")
    publisher = Publisher(home / "publisher")
    publish_something_of_everything(publisher, home)
    make(publisher, home / "pages")
    return home / "pages"


@pytest.fixture(scope="module")
def window(tmp_path_factory: pytest.TempPathFactory) -> Iterator[Browser]:
    with Browser(tmp_path_factory.mktemp("browser") / "profile") as opened:
        yield opened


def make(publisher: Publisher, out: Path, *more: str) -> None:
    programs.run_ok(programs.PUB, "site", "--repo", publisher.repository, "--out", out, "--key", publisher.public_key,
                    "--url", "https://updates.example.org/site", *more)  # fmt: skip


def test_pages_fit_narrow_and_wide_windows(site: Path, window: Browser) -> None:
    with served(site) as url:
        for page in PAGES:
            for width in WIDTHS:
                window.show(width)
                window.open(f"{url}/{page}")
                assert window.run("return innerWidth") == width
                assert window.run(OVERFLOW) == [0, []], f"{page} at {width}"


def test_pages_have_contrast_in_light_and_dark(site: Path, window: Browser) -> None:
    grounds = set()
    with served(site) as url:
        for page in PAGES:
            for dark in (False, True):
                window.show(1280, dark=dark)
                window.open(f"{url}/{page}")
                count, faint, ground = window.run(CONTRAST)
                assert faint == [], f"{page} {'dark' if dark else 'light'}"
                assert count > 10
                grounds.add(ground)
    assert len(grounds) == 2


def test_every_link_of_a_page_leads_to_a_page_and_nothing_comes_from_elsewhere(site: Path, window: Browser) -> None:
    window.show(1280)
    with served(site) as url:
        seen: dict[str, str] = {}
        waiting = [f"{url}/index.html"]
        while waiting:
            place = waiting.pop()
            if place in seen:
                continue
            window.open(place)
            seen[place] = window.run("return document.title")
            loaded = window.run("return performance.getEntriesByType('resource').map(entry => entry.name)")
            assert loaded == [f"{url}/style.css"], place
            for link in window.run("return [...document.querySelectorAll('a')].map(a => a.href)"):
                target, fragment = urldefrag(link)
                if target.startswith(url) and target.endswith(".html"):
                    waiting.append(target)
                    if target == place and fragment:
                        assert window.run(f"return document.getElementById('{fragment}') !== null"), link
                elif target.startswith(url):
                    assert (site / target.removeprefix(url + "/")).is_file(), link
                else:
                    assert target.startswith("http://127.0.0.1/packages/"), link
        assert len(seen) == len(list(site.rglob("*.html")))
        assert len(set(seen.values())) == len(seen), "titles tell pages apart"


def test_pages_can_be_read_without_scripts(site: Path, window: Browser) -> None:
    window.show(1280)
    with served(site) as url:
        for page in PAGES:
            window.command("Emulation.setScriptExecutionDisabled", value=False)
            window.open(f"{url}/{page}")
            with_scripts = window.command("Page.captureScreenshot")["data"]
            window.command("Emulation.setScriptExecutionDisabled", value=True)
            window.open(f"{url}/{page}")
            assert window.command("Page.captureScreenshot")["data"] == with_scripts, page
            window.command("Emulation.setScriptExecutionDisabled", value=False)


def test_pages_can_be_read_from_the_disk(site: Path, window: Browser) -> None:
    window.show(1280)
    with served(site) as url:
        for page in PAGES:
            window.open(f"{url}/{page}")
            by_server = window.command("Page.captureScreenshot")["data"]
            window.open((site / page).as_uri())
            assert window.run("return document.styleSheets.length") == 1, page
            assert window.command("Page.captureScreenshot")["data"] == by_server, page


def test_names_with_markup_run_nothing_even_without_the_policy(
    tmp_path: Path, product: None, window: Browser
) -> None:
    publisher = Publisher(tmp_path / "publisher")
    publish_attacks(publisher, tmp_path)
    out = tmp_path / "pages"
    make(publisher, out, "--title", MARKUP)
    window.show(1280)
    with served(out) as url:
        (out / "proof.html").write_text(f"<!DOCTYPE html><title>x</title><p title=\"{MARKUP}")
        window.open(f"{url}/bare/proof.html")
        assert window.run("return window.ran") == 1, "the attack works where nothing is escaped"
        (out / "proof.html").unlink()
        for path in sorted(out.rglob("*.html")):
            window.open(f"{url}/bare/{path.relative_to(out)}")
            assert window.run("return window.ran ?? null") is None, path
            assert window.run("return document.querySelectorAll('script, img, b, [onerror]').length") == 0, path
            assert window.run("return document.querySelector('h1').isConnected && !!document.querySelector('main')")
            assert window.run("return [...document.links].filter(a => !a.protocol.startsWith('http')).length") == 0
        window.open(f"{url}/bare/index.html")
        names = window.run("return [...document.querySelectorAll('tbody th')].map(name => name.textContent)")
        assert MARKUP in names


def test_the_pictures_of_the_documents_can_be_made_again(
    tmp_path: Path, product: None, request: pytest.FixtureRequest
) -> None:
    build = request.config.getoption("--build-dir")
    programs.run_ok(SOURCE / "scripts/make-site-pictures", "--build", build, "--out", tmp_path)
    made = {path.name: path.read_bytes()[16:24] for path in tmp_path.glob("*.png")}
    assert made == {path.name: path.read_bytes()[16:24] for path in (SOURCE / "docs/site").glob("*.png")}, "sizes"


def test_a_page_of_five_hundred_versions_opens_at_once(tmp_path: Path, product: None, window: Browser) -> None:
    repository = tmp_path / "repository"
    write_repository(repository, {"large": 500, **{f"db{number:03}": 2 for number in range(199)}})
    out = tmp_path / "pages"
    programs.run_ok(programs.PUB, "site", "--repo", repository, "--out", out, "--url", "https://x.example")
    with served(out) as url:
        for page, rows in (("index.html", 200), ("databases/large/index.html", 100), ("databases/large/versions.html", 500)):
            for width in (390, 1280):
                window.show(width)
                window.open(f"{url}/{page}")
                assert window.run("return document.querySelectorAll('tbody tr').length") == rows
                assert window.run(OVERFLOW) == [0, []], f"{page} at {width}"
                timing = "const [t] = performance.getEntriesByType('navigation'); return t.loadEventEnd - t.startTime"
                print(f"{page} at {width}: {window.run(timing):.0f} ms")
                assert window.run("return document.querySelectorAll('*').length") < 8000
