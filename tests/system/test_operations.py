"""docs/operations.md means what it says: its commands do on a device what stands beside them."""

from __future__ import annotations

import json
import re
import shutil
from collections.abc import Iterator
from pathlib import Path

import pytest
from harness import programs, trees
from harness.device import HOOKS, KEYS, WGETRC, Device
from harness.documents import Document
from harness.publisher import Publisher
from harness.volumes import Volumes
from harness.walkthrough import Walkthrough
from harness.webserver import TlsNginx

SOURCE = Path(__file__).resolve().parents[2]
DOCUMENT = Document(SOURCE / "docs/operations.md")
JSON_DOCUMENT = Document(SOURCE / "docs/json.md")
DATABASE = "zones"
UNITS = Path("/lib/systemd/system")


def members(heading: str) -> set[str]:
    """Those of the object that a command prints, as the first table of its section lists them."""
    table = JSON_DOCUMENT.section(heading).split("\n| member |")[1].split("\n\n")[0]
    return set(re.findall(r"^\| `(\w+)` \|", table, re.MULTILINE))


class Administrator:
    """Follows the document, with a server, a volume and a directory that go away in the place of its own."""

    def __init__(self, device: Device, home: Path, netloc: str) -> None:
        self.device = device
        assert device.volume is not None
        places = {
            "updates.example.org": netloc,
            "/srv/databases": str(device.volume),
            "/volume1": str(device.volume),
            "/var/lib/prometheus/node-exporter": str(home),
            " release": f" {home}/release",
            " examples/hook": f" {SOURCE}/examples/hook",
            " examples/check": f" {SOURCE}/examples/check",
            "17 */6 * * * root ": "",
            "0-21599": "0-0",
        }
        self._walkthrough = Walkthrough(home, places)

    def follow(self, heading: str, language: str = "sh", options: tuple[str, ...] = ("-eu",)) -> str:
        """What the commands of a section print."""
        steps = DOCUMENT.steps(heading, language)
        assert steps, heading
        return "".join(self._walkthrough.follow(step, options).stdout for step in steps)


@pytest.fixture
def nginx(publisher: Publisher, tmp_path: Path) -> Iterator[TlsNginx]:
    """The web server, by HTTPS as in the document."""
    server = TlsNginx(SOURCE / "packaging/nginx/tarndbud.conf", publisher.repository, tmp_path / "nginx")
    publisher.base = server.url
    yield server
    server.close()


@pytest.fixture
def tree(publisher: Publisher, nginx: TlsNginx, tmp_path: Path) -> Path:
    made = tmp_path / "tree"
    shutil.copytree("/usr/share/zoneinfo/Europe", made)
    publisher.publish(made, DATABASE, "--data-version", "1000", "--level", "1")
    return made


@pytest.fixture
def administrator(
    clean_device: None, volumes: Volumes, publisher: Publisher, nginx: TlsNginx, tree: Path, tmp_path: Path
) -> Administrator:
    """With a device that is installed, but not configured."""
    if any(Path("/").glob("volume[0-9]*")):
        pytest.skip("needs a machine without /volume1, which would be chosen")
    for name in ("release", "release2"):
        shutil.copyfile(publisher.public_key, tmp_path / f"{name}.pub")
    device = Device(volumes.make("directory"), nginx.netloc)
    device.databases = json.loads(re.findall(r"^\{ \"zones.*$", DOCUMENT.section("Configuring"), re.MULTILINE)[0])
    WGETRC.write_text(f"{WGETRC.read_text()}ca_certificate = {nginx.certificate}\n")
    return Administrator(device, tmp_path, nginx.netloc)


@pytest.fixture
def configured(administrator: Administrator, tree: Path) -> Administrator:
    assert f"{DATABASE}: installed version 1000" in administrator.follow("Configuring")
    trees.assert_same(tree, administrator.device.installed(DATABASE))
    return administrator


def test_the_configuration_of_the_document_brings_a_database(configured: Administrator) -> None:
    assert configured.device.status(DATABASE)["up_to_date"] is True


def test_the_crontab_line_updates_what_is_scheduled(
    configured: Administrator, publisher: Publisher, tree: Path
) -> None:
    (tree / "new").write_bytes(b"new")
    publisher.publish(tree, DATABASE)
    configured.device.forget_document()
    configured.follow("Scheduling")
    configured.follow("Scheduling", "crontab")
    assert configured.device.version(DATABASE) == 1001
    trees.assert_same(tree, configured.device.installed(DATABASE))


@pytest.mark.parametrize("heading", ["Scheduling", "Watching a fleet"])
def test_a_crontab_line_is_quiet_once_the_packages_are_removed(heading: str, tmp_path: Path) -> None:
    (line,) = DOCUMENT.steps(heading, "crontab")
    _, root, command = line.commands.partition(" root ")
    assert root and "/usr/bin/tarndbudctl" in command
    for name in ("sleep", "shuf"):
        (tmp_path / name).symlink_to(f"/usr/bin/{name}")
    command = command.replace("/usr/bin/tarndbudctl", f"{tmp_path}/tarndbudctl").replace("0-21599", "0-0")
    result = programs.run("/bin/sh", "-c", command, env={"PATH": str(tmp_path)})
    assert (result.stdout, result.stderr) == ("", "")


def test_the_units_that_the_document_names_are_installed(product: None) -> None:
    text = "".join(DOCUMENT.section(heading) for heading in DOCUMENT.headings())
    named = {re.sub("@.*?\\.", "@.", unit) for unit in re.findall(r"tarndbud-[\w@]+\.(?:service|timer)", text)}
    assert len(named) == 4
    assert {unit for unit in named if not (UNITS / unit).exists()} == set()


def test_a_plan_tells_the_size_of_a_package_and_what_stays(
    configured: Administrator, publisher: Publisher, tree: Path
) -> None:
    (tree / "new").write_bytes(b"new")
    publisher.publish(tree, DATABASE, keep_diffs=1)
    configured.device.forget_document()
    (planned,) = json.loads(configured.device.run_ok("plan", "--json").stdout)
    package = publisher.repository / f"packages/{DATABASE}/{DATABASE}_d1001.tarn"
    assert planned["bytes"] == package.stat().st_size
    assert members("tarndbudctl plan") == planned.keys() | {"not_when_scheduled", "previous_dir"}
    configured.follow("Bounding and holding updates")
    assert configured.device.version(DATABASE) == 1001


def test_what_monitoring_needs_is_in_status_and_metrics(configured: Administrator, tmp_path: Path) -> None:
    shown = configured.follow("Monitoring")
    metrics = (tmp_path / "tarndbud.prom").read_text()
    for name in re.findall(r"`(tarndbud_\w+)`", DOCUMENT.section("Monitoring")):
        assert re.search(rf"^{name}\b", metrics, re.MULTILINE), name
    entry = json.loads(shown[: shown.index("\n]") + 2])[0]
    on_trouble = {"hold_problem", "last_failure", "offer_error", "previous_dir", "refused_version", "volume_problem"}
    assert members("tarndbudctl status") - on_trouble - {"next_run"} == entry.keys() - {"next_run"}


def test_a_command_reads_under_the_lock(configured: Administrator, tree: Path) -> None:
    assert configured.follow("Reading safely").split() == sorted(path.name for path in tree.iterdir())


def test_a_volume_that_comes_back_has_its_databases(configured: Administrator, tree: Path, nginx: TlsNginx) -> None:
    requests = nginx.requests()
    configured.follow("Moving volumes")
    trees.assert_same(tree, configured.device.installed(DATABASE))
    assert f"{DATABASE}: ok" in configured.device.run_ok("check").stdout
    assert nginx.requests() == requests


def test_a_volume_that_was_torn_out_is_made_up_for(
    configured: Administrator, volumes: Volumes, tree: Path
) -> None:
    device, other = configured.device, volumes.make("directory")
    assert device.volume is not None
    shutil.rmtree(device.volume)
    device.list_volumes(other)
    configured.follow("Losing a volume")
    device.volume.mkdir()
    device.volume = other
    trees.assert_same(tree, device.installed(DATABASE))


def test_repairing_brings_back_what_was_damaged(configured: Administrator, tree: Path) -> None:
    installed = configured.device.installed(DATABASE)
    (installed / "Berlin").write_bytes(b"damaged")
    configured.follow("Repairing", options=("-u",))
    trees.assert_same(tree, installed)


def test_a_second_key_is_trusted_beside_the_first(
    configured: Administrator, publisher: Publisher, tree: Path, tmp_path: Path
) -> None:
    second = tmp_path / "release2"
    second.with_suffix(".pub").unlink()
    programs.run_ok(programs.PUB, "keygen", second)
    configured.follow("Rotating keys")
    assert sorted(path.name for path in KEYS.iterdir()) == ["release.pub", "release2.pub"]
    other = publisher.sign_with(second)
    for version in (1001, 1002):
        (tree / "new").write_text(str(version))
        publisher.publish(tree, DATABASE, "--old-key", str(other.with_suffix(".pub")))
        configured.device.forget_document()
        configured.device.update(DATABASE)
        assert configured.device.version(DATABASE) == version
        other = publisher.sign_with(other)


def test_the_example_hook_runs_where_the_document_puts_it(
    configured: Administrator, publisher: Publisher, tree: Path
) -> None:
    configured.follow("Hooks")
    (hook,) = HOOKS.rglob("50-notify")
    hook.write_text(hook.read_text() + f'echo "$1" >> "{tree.parent}/ran"\n')
    publisher.publish(tree, DATABASE)
    configured.device.update(DATABASE)
    assert (tree.parent / "ran").read_text().split() == ["pre", "post"]


def test_the_example_check_refuses_a_damaged_database(
    configured: Administrator, publisher: Publisher, tmp_path: Path
) -> None:
    configured.follow("Hooks")
    root = trees.write_tree(tmp_path / "checked", {"a": b"a"})
    trees.write_database(root / "rows.sqlite", 100)
    publisher.publish(root, DATABASE, "--level", "1")
    configured.device.update(DATABASE)
    trees.assert_same(root, configured.device.installed(DATABASE))
    good = configured.device.version(DATABASE)
    database = root / "rows.sqlite"
    database.write_bytes(database.read_bytes()[:4096] + b"damage" * 1000)
    publisher.publish(root, DATABASE, "--level", "1")
    configured.device.forget_document()
    result = configured.device.run("update", DATABASE)
    assert result.status == 6, str(result)
    assert re.search(rf"rows\.sqlite of {DATABASE} \d+ is damaged", result.stderr)
    assert configured.device.version(DATABASE) == good
