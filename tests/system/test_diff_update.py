"""What an update by diff packages fetches and installs."""

from __future__ import annotations

import json
import shutil
import sqlite3
from pathlib import Path

import pytest
from harness import databases, packages, programs, trees
from harness.device import DATABASE, ROOT_DATABASE, STATUS, Device
from harness.packages import Diff, HandPublisher
from harness.syslog import Syslog
from harness.volumes import MIB, Volumes
from harness.webserver import Nginx

Files = dict[str, bytes]

FIRST: Files = {"zones/europe.bin": b"europe 1 " * 500, "zones/asia.bin": b"asia " * 400, "readme": b"as it was\n"}
PATCHED_THRICE = [FIRST] + [{**FIRST, "zones/europe.bin": f"europe {n} ".encode() * 500} for n in (2, 3, 4)]
ROWS = [f"INSERT INTO entries VALUES ({n}, 'entry {n}')" for n in range(1000)]
SCHEMA = "CREATE TABLE entries (id INTEGER PRIMARY KEY, name TEXT)"


def publish_chain(hand: HandPublisher, versions: list[Files]) -> None:
    """Publishes versions 1 and up, each with a diff package from the one before."""
    hand.full(DATABASE, 1, versions[0])
    for version, (old, new) in enumerate(zip(versions, versions[1:]), 2):
        hand.full(DATABASE, version, new)
        hand.diff(DATABASE, version, Diff.between(old, new))


def install_first(device: Device, hand: HandPublisher, files: Files) -> None:
    hand.full(DATABASE, 1, files)
    device.update(DATABASE)


def test_three_versions_at_once_are_three_packages_in_order(
    connected: Device, hand: HandPublisher, nginx: Nginx, syslog: Syslog
) -> None:
    install_first(connected, hand, FIRST)
    publish_chain(hand, PATCHED_THRICE)
    connected.update(DATABASE)
    assert nginx.packages() == ["v1", "d2", "d3", "d4"]
    trees.assert_holds(connected.installed(DATABASE), PATCHED_THRICE[-1])
    assert connected.version(DATABASE) == 4
    assert not connected.temporary().exists()
    assert not connected.mark(DATABASE).exists()
    assert syslog.refusals() == ["No sufficient diff patched"], "of the first installation only"


@pytest.mark.parametrize(
    "versions",
    [
        pytest.param([FIRST, {**FIRST, "new": b"short-lived"}, FIRST], id="created then deleted"),
        pytest.param(
            [FIRST, {**FIRST, "readme": b"as it became\n"}, {k: v for k, v in FIRST.items() if k != "readme"}],
            id="updated then deleted",
        ),
        pytest.param(
            [FIRST, {k: v for k, v in FIRST.items() if k != "readme"}, {**FIRST, "readme": b"back\n"}],
            id="deleted then created",
        ),
        pytest.param(
            [FIRST, {**FIRST, "new": b"first " * 50}, {**FIRST, "new": b"first " * 40 + b"then changed"}],
            id="created then updated",
        ),
        pytest.param([FIRST, {**FIRST, "a/new/folder/file": b"deep"}, {**FIRST, "a/new/folder/file": b"deeper"}],
                     id="in a new folder"),
        pytest.param([FIRST, {**FIRST, "readme": b""}, {**FIRST, "readme": b"full again"}], id="empty for a while"),
        pytest.param([FIRST, {**FIRST, "readme": b"x"}, {"readme/below": b"a folder in a file's place"}],
                     id="a file becomes a folder"),
        pytest.param([{"a/b/c": b"deep", "a/d": b"less"}, {"a/d": b"less", "e": b""}, {"a": b"a file in its place"}],
                     id="a folder becomes a file"),
    ],
)  # fmt: skip
def test_a_chain_ends_in_the_newest_tree(
    connected: Device, hand: HandPublisher, nginx: Nginx, versions: list[Files]
) -> None:
    install_first(connected, hand, versions[0])
    publish_chain(hand, versions)
    connected.update(DATABASE)
    assert nginx.packages() == ["v1", *(f"d{version}" for version in range(2, len(versions) + 1))]
    trees.assert_holds(connected.installed(DATABASE), versions[-1])
    connected.run_ok("check", DATABASE)


def test_names_with_blanks_and_letters_from_everywhere_are_patched(
    connected: Device, hand: HandPublisher, nginx: Nginx
) -> None:
    names = ["a name", "Zürich/東京.bin", "quote'\"s", "back\\slash", "-dash", "per%cent %s", "x" * 200]
    old: Files = {name: b"old " * 100 + name.encode() for name in names}
    new: Files = {name: b"old " * 90 + b"new" + name.encode() for name in names}
    install_first(connected, hand, old)
    publish_chain(hand, [old, new])
    connected.update(DATABASE)
    assert nginx.packages() == ["v1", "d2"]
    trees.assert_holds(connected.installed(DATABASE), new)


def test_a_missing_link_in_the_chain_is_told_before_anything_is_fetched(
    connected: Device, hand: HandPublisher, nginx: Nginx, syslog: Syslog
) -> None:
    install_first(connected, hand, FIRST)
    for version in (2, 4):
        hand.diff(DATABASE, version, Diff.between(PATCHED_THRICE[version - 2], PATCHED_THRICE[version - 1]))
    hand.full(DATABASE, 4, PATCHED_THRICE[3])
    connected.update(DATABASE)
    assert nginx.packages() == ["v1", "v4"]
    trees.assert_holds(connected.installed(DATABASE), PATCHED_THRICE[3])
    assert syslog.refusals()[1:] == ["No sufficient diff patched"]


def test_a_file_keeps_its_executable_flag_when_patched(connected: Device, hand: HandPublisher, nginx: Nginx) -> None:
    tool = b"#!/bin/sh\nexit 0\n" * 30
    hand.full(DATABASE, 1, {"tool": packages.Member(tool, executable=True), "data": b"data"})
    connected.update(DATABASE)
    hand.full(DATABASE, 2, {"tool": packages.Member(tool + b"# 2\n", executable=True), "data": b"data 2"})
    diff = Diff().patch("tool", tool, tool + b"# 2\n").patch("data", b"data", b"data 2")
    diff.create("new tool", packages.Member(b"#!/bin/sh\n", executable=True))
    hand.diff(DATABASE, 2, diff)
    connected.update(DATABASE)
    assert nginx.packages() == ["v1", "d2"]
    installed = connected.installed(DATABASE)
    assert (installed / "tool").read_bytes() == tool + b"# 2\n"
    assert trees.executables(installed) == {"tool", "new tool"}


def test_5000_changed_files_arrive(connected: Device, hand: HandPublisher, nginx: Nginx) -> None:
    old: Files = {f"part{n // 100:02}/file{n:04}": b"the same " * 20 + b"%d" % n for n in range(4000)}
    patched, deleted = list(old)[::2], list(old)[1::4]
    new: Files = {name: content for name, content in old.items() if name not in deleted}
    new |= {name: old[name] + b" changed" for name in patched}
    new |= {f"added {n}": b"%d" % n for n in range(2000)}
    install_first(connected, hand, old)
    publish_chain(hand, [old, new])
    connected.update(DATABASE)
    assert nginx.packages() == ["v1", "d2"]
    trees.assert_holds(connected.installed(DATABASE), new)
    assert len(connected.recorded(DATABASE)) == len(patched) + 2000 == 4000


def test_what_a_diff_changed_is_recorded_by_its_name_in_the_tree(connected: Device, hand: HandPublisher) -> None:
    new: Files = {"zones/europe.bin": b"changed", "zones/asia.bin": FIRST["zones/asia.bin"], "zones/added": b"added"}
    install_first(connected, hand, FIRST)
    publish_chain(hand, [FIRST, new])
    connected.update(DATABASE)
    installed = connected.installed(DATABASE)
    expected = {name: trees.digest(installed / name, "sha384") for name in ("zones/europe.bin", "zones/added")}
    assert connected.recorded(DATABASE) == expected
    connected.run_ok("check", DATABASE)
    (installed / "zones/added").write_bytes(b"damaged")
    result = connected.run("check", DATABASE)
    assert result.status == 4, str(result)
    assert "zones/added" in result.stdout


def test_a_database_on_the_root_file_system_is_patched_as_well(
    connected: Device, hand: HandPublisher, nginx: Nginx, volumes: Volumes
) -> None:
    # The working copies lie on another file system than the installed files.
    volume = volumes.make("tmpfs", 64 * MIB)
    connected.volume = volume
    connected.list_volumes(volume)
    connected.add_database(ROOT_DATABASE, on_root=True)
    tool = packages.Member(b"tool 1" * 99, executable=True)
    hand.full(ROOT_DATABASE, 1, {"data/file": b"file 1" * 99, "tool": tool})
    connected.update(ROOT_DATABASE)
    hand.full(ROOT_DATABASE, 2, {"data/file": b"file 2" * 99, "tool": b"unused"})
    diff = Diff().patch("data/file", b"file 1" * 99, b"file 2" * 99).patch("tool", tool.content, b"tool 2" * 99)
    hand.diff(ROOT_DATABASE, 2, diff)
    connected.update(ROOT_DATABASE)
    assert nginx.packages() == ["v1", "d2"]
    installed = connected.installed(ROOT_DATABASE)
    trees.assert_holds(installed, {"data/file": b"file 2" * 99, "tool": b"tool 2" * 99})
    assert trees.executables(installed) == {"tool"}


def test_a_diff_after_a_diff_goes_on_from_there(connected: Device, hand: HandPublisher, nginx: Nginx) -> None:
    install_first(connected, hand, FIRST)
    for count in (2, 3, 4):
        publish_chain(hand, PATCHED_THRICE[:count])
        connected.update(DATABASE)
        trees.assert_holds(connected.installed(DATABASE), PATCHED_THRICE[count - 1])
    assert nginx.packages() == ["v1", "d2", "d3", "d4"]


def test_a_missing_decoder_costs_a_full_package_and_nothing_else(
    connected: Device, hand: HandPublisher, nginx: Nginx, syslog: Syslog, tmp_path: Path
) -> None:
    install_first(connected, hand, FIRST)
    publish_chain(hand, PATCHED_THRICE[:2])
    kept = shutil.move(programs.VCDIFF, tmp_path / "kept")
    try:
        connected.update(DATABASE)
    finally:
        shutil.move(kept, programs.VCDIFF)
    assert nginx.packages() == ["v1", "d2", "v2"]
    trees.assert_holds(connected.installed(DATABASE), PATCHED_THRICE[1])
    assert syslog.refusals()[1:] == [f"Fail to apply vcdiff on {connected.working_copy(DATABASE, 'zones/europe.bin')}"]


def test_a_script_brings_the_published_rows(
    connected: Device, hand: HandPublisher, nginx: Nginx, tmp_path: Path
) -> None:
    statements = [
        "UPDATE entries SET name = 'it''s; a changed -- name' WHERE id = 7",
        "DELETE FROM entries WHERE id = 8",
        "INSERT INTO entries VALUES (5000, 'added'||char(10)||'in two lines')",
    ]
    old = databases.made([SCHEMA, *ROWS])
    new = databases.changed(old, statements)
    install_first(connected, hand, {"names.sqlite": old})
    hand.full(DATABASE, 2, {"names.sqlite": new})
    hand.diff(DATABASE, 2, Diff().script("names.sqlite", *statements))
    connected.update(DATABASE)
    assert nginx.packages() == ["v1", "d2"]
    (tmp_path / "published").write_bytes(new)
    installed = connected.installed(DATABASE)
    assert databases.content(installed / "names.sqlite") == databases.content(tmp_path / "published")
    assert [path.name for path in installed.iterdir()] == ["names.sqlite"]
    connected.run_ok("check", DATABASE)


def test_an_empty_script_leaves_its_file_as_it_was(connected: Device, hand: HandPublisher, nginx: Nginx) -> None:
    database = databases.made([SCHEMA, *ROWS])
    install_first(connected, hand, {"names.sqlite": database})
    hand.full(DATABASE, 2, {"names.sqlite": database})
    hand.diff(DATABASE, 2, Diff().script("names.sqlite"))
    connected.update(DATABASE)
    assert nginx.packages() == ["v1", "d2"]
    trees.assert_holds(connected.installed(DATABASE), {"names.sqlite": database})
    assert connected.version(DATABASE) == 2


def test_a_database_in_wal_mode_is_updated_under_an_open_reader(
    connected: Device, hand: HandPublisher, nginx: Nginx, tmp_path: Path
) -> None:
    statement = "UPDATE entries SET name = 'changed' WHERE id >= 500"
    old = databases.made([SCHEMA, *ROWS], wal=True)
    install_first(connected, hand, {"names.sqlite": old})
    hand.full(DATABASE, 2, {"names.sqlite": databases.changed(old, [statement])})
    hand.diff(DATABASE, 2, Diff().script("names.sqlite", statement))
    installed = connected.installed(DATABASE) / "names.sqlite"
    count = "SELECT count(*) FROM entries WHERE name = 'changed'"
    reader = sqlite3.connect(installed)
    reader.execute("BEGIN")
    assert reader.execute(count).fetchone() == (0,)
    connected.update(DATABASE)
    assert nginx.packages() == ["v1", "d2"]
    assert reader.execute(count).fetchone() == (0,), "a reader keeps the file that it opened"
    (tmp_path / "published").write_bytes(databases.changed(old, [statement]))
    assert databases.content(installed) == databases.content(tmp_path / "published")
    reader.close()
    assert sqlite3.connect(installed).execute(count).fetchone() == (500,)
    assert sqlite3.connect(installed).execute("PRAGMA integrity_check").fetchone() == ("ok",)


def test_hooks_are_told_the_names_in_the_tree(connected: Device, hand: HandPublisher, tmp_path: Path) -> None:
    install_first(connected, hand, FIRST)
    versions: list[Files] = [FIRST, {**PATCHED_THRICE[1], "new": b"file"}, {**PATCHED_THRICE[2], "new": b"file"}]
    del versions[2]["readme"]
    publish_chain(hand, versions)
    told = tmp_path / "told"
    told.mkdir()
    connected.add_hook("10-keep", f"#!/bin/sh\ncat >> {told}/$1\n")
    connected.update(DATABASE)
    for moment in ("pre", "post"):
        pairs = (told / moment).read_bytes().rstrip(b"\0").split(b"\0")
        arguments = dict(pair.decode().split("=", 1) for pair in pairs)
        assert arguments["CHANGED_FILES"].split(arguments["DELIMITER"]) == ["new", "readme", "zones/europe.bin"]


def test_the_record_of_a_diff_names_version_and_time_of_the_server(connected: Device, hand: HandPublisher) -> None:
    install_first(connected, hand, FIRST)
    publish_chain(hand, PATCHED_THRICE)
    connected.update(DATABASE)
    record = json.loads((STATUS / DATABASE / "version.json").read_text())
    entry = hand.entry(DATABASE)
    assert (record["data_version"], record["last_fetch_time"]) == ("4", entry["last_fetch_time"])


def test_the_publishers_tools_read_packages_of_another_publisher(hand: HandPublisher) -> None:
    versions = PATCHED_THRICE[:2]
    publish_chain(hand, versions)
    for part in ("v2", "d2"):
        package = hand.package(DATABASE, part)
        programs.run_ok(programs.PUB, "verify", package, "--key", hand.key.public)
    shown = json.loads(programs.run_ok(programs.PUB, "inspect", package, "--json").stdout)
    assert [(change["operation"], change["kind"], change["name"]) for change in shown["changes"]] == [
        ("update", "vcdiff", "zones/europe.bin")
    ]
