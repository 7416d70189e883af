"""Diff packages that are wrong, damaged or hostile: refused as a whole, with the full package making it good."""

from __future__ import annotations

import json
import re
from collections.abc import Callable
from pathlib import Path
from typing import Any

import pytest
from harness import databases, packages, trees
from harness.device import DATABASE, Device
from harness.packages import Diff, HandPublisher, Key, Member
from harness.syslog import Syslog
from harness.webserver import Nginx

Files = dict[str, bytes]

DATABASE_FILE = databases.made(
    ["CREATE TABLE entries (id INTEGER PRIMARY KEY, name TEXT)"]
    + [f"INSERT INTO entries VALUES ({number}, 'entry {number}')" for number in range(100)]
)
OLD: Files = {"readme": b"as it was\n" * 20, "a/b": b"below a", "names.sqlite": DATABASE_FILE}
NEW: Files = {"readme": b"as it was\n" * 19 + b"changed\n", "a/b": b"changed below a", "names.sqlite": DATABASE_FILE}
OUTSIDE = Path("/var/lib/tarn-test-outside")
"""What nothing may write to."""


@pytest.fixture(autouse=True)
def outside() -> None:
    OUTSIDE.unlink(missing_ok=True)


def usual() -> Diff:
    return Diff.between(OLD, NEW)


class Refusal:
    """A device with version 1, to which version 2 is offered by a diff that must be refused."""

    def __init__(self, device: Device, hand: HandPublisher, nginx: Nginx, syslog: Syslog) -> None:
        self._device, self._hand, self._nginx, self._syslog = device, hand, nginx, syslog
        hand.full(DATABASE, 1, OLD)
        device.update(DATABASE)
        hand.full(DATABASE, 2, NEW)
        self._before = len(syslog.refusals())

    def expect(self, reason: str) -> None:
        """That the update tries the diff, gives one reason that matches, and takes the full package."""
        self._device.update(DATABASE)
        assert self._nginx.packages() == ["v1", "d2", "v2"]
        trees.assert_holds(self._device.installed(DATABASE), NEW)
        self._device.run_ok("check", DATABASE)
        assert self._device.left_behind() == []
        reasons = self._syslog.refusals()[self._before :]
        assert len(reasons) == 1, reasons
        assert re.search(reason, reasons[0]), reasons[0]
        assert not OUTSIDE.exists()


@pytest.fixture
def refusal(connected: Device, hand: HandPublisher, nginx: Nginx, syslog: Syslog) -> Refusal:
    return Refusal(connected, hand, nginx, syslog)


REFUSED: dict[str, tuple[Callable[[], Diff], str]] = {
    "unknown operation": (lambda: usual().member("readme", "rename", "files/000000.vcdiff"),
                          "^Unknown operation rename for file readme$"),
    "no operation": (lambda: usual().member("readme", None), "readme"),
    "operation that is a number": (lambda: usual().member("readme", 7), "^Unknown operation 7 for file readme$"),
    "update without an input": (lambda: usual().member("readme", "update"), "^Unsupported diff type: $"),
    "upper-case ending": (lambda: Diff().patch("readme", OLD["readme"], NEW["readme"], extension=".VCDIFF"),
                          r"^Unsupported diff type: \.VCDIFF$"),
    "no ending": (lambda: Diff().patch("readme", OLD["readme"], NEW["readme"], extension=""),
                  "^Unsupported diff type: $"),
    "patch of another base": (lambda: usual().patch("readme", b"another base" * 900, NEW["readme"]),
                              "^Fail to apply vcdiff on .*_sum/readme$"),
    "patch that is none": (lambda: usual().carry("files/1.vcdiff", b"x").member("readme", "update", "files/1.vcdiff"),
                           "^Fail to apply vcdiff on .*_sum/readme$"),
    "update of what is not there": (lambda: usual().patch("absent", b"", b"new"), "absent"),
    "update of a folder": (lambda: usual().patch("a", b"", b"new"), "^Fail to apply vcdiff on .*_sum/a$"),
    "script for a folder": (lambda: usual().script("a", "DELETE FROM entries"), "^Fail apply sql cmd: "),
    "two spellings of a name": (lambda: usual().delete("./readme"), r"^Names \./readme and readme mean one file$"),
    "script for no database": (lambda: usual().script("readme", "DELETE FROM entries"), "^Fail apply sql cmd: "),
    "names that share a working copy": (lambda: usual().create("a_b", b"1").create("a.b", b"2"),
                                        r"collide"),
    "input that is missing": (lambda: usual().member("readme", "create", "files/none"),
                              "^Fail to copy from .*_delta_2/files/none to .*_sum/readme: "),
    "input that climbs out": (lambda: usual().member("readme", "create", "../timezones_d2"), "Illegal input file"),
    "input that climbs out and back": (
        lambda: usual().member("readme", "create", "../timezones_delta_2/patch_infos.json"), "Illegal input file"),
    "input from the root": (lambda: usual().member("readme", "create", "/etc/hostname"), "Illegal input file"),
    "patch that is a link": (
        lambda: usual().carry("files/l.vcdiff", Member(target="000000.vcdiff"))
        .member("readme", "update", "files/l.vcdiff"),
        "Illegal input file in diff package: files/l.vcdiff"),
    "input behind a link": (
        lambda: usual().carry("link", Member(target="files")).member("readme", "create", "link/000000.vcdiff"),
        "Illegal input file in diff package: link/000000.vcdiff"),
    "name that climbs out": (lambda: usual().create("../" * 12 + str(OUTSIDE)[1:], b"foreign"), "Illegal file name"),
    "name that climbs out in the middle": (lambda: usual().create("a/../../x", b"foreign"), "Illegal file name"),
    "name from the root": (lambda: usual().create(str(OUTSIDE), b"foreign"), f"Illegal file name .*{OUTSIDE}"),
    "name from the root to delete": (lambda: usual().delete("/etc/hostname"), "Illegal file name"),
    "name that climbs out to delete": (lambda: usual().delete("../x"), "Illegal file name"),
    "name of nothing": (lambda: usual().create("", b"foreign"), "Illegal file name"),
    "name of the directory itself": (lambda: usual().delete("."), "Illegal file name"),
    "name that ends in a stroke": (lambda: usual().create("a/c/", b"foreign"), "Illegal file name"),
}  # fmt: skip


@pytest.mark.parametrize("case", REFUSED)
def test_a_diff_that_is_wrong_is_refused_and_told(hand: HandPublisher, refusal: Refusal, case: str) -> None:
    make, reason = REFUSED[case]
    hand.diff(DATABASE, 2, make())
    refusal.expect(reason)


DESCRIPTIONS: dict[str, tuple[bytes | None, str]] = {
    "missing": (None, "patch_infos.json"),
    "empty": (b"", "patch_infos.json"),
    "no JSON": (b"<html></html>", "patch_infos.json"),
    "cut": (json.dumps({"readme": {"operation": "delete", "input_file": ""}}).encode()[:-1], "patch_infos.json"),
    "nested 5,000 deep": (b'{"readme":' * 5000 + b"1" + b"}" * 5000, "patch_infos.json"),
}


@pytest.mark.parametrize("case", DESCRIPTIONS)
def test_a_diff_without_a_readable_description_is_refused(hand: HandPublisher, refusal: Refusal, case: str) -> None:
    description, reason = DESCRIPTIONS[case]
    diff = usual()
    members = diff.members if description is None else {packages.DESCRIPTION: description, **diff.members}
    hand.diff_of(DATABASE, 2, packages.archive(hand.key, members, packages.metadata(DATABASE, 2, "diff")))
    refusal.expect(reason)


@pytest.mark.parametrize(
    "description",
    [[], {"readme": []}, {"readme": {"operation": ["delete"]}},
     {"readme": {"operation": "create", "input_file": {"a": 1}}}],
    ids=["a list", "a list below", "operation of the wrong type", "input of the wrong type"],
)  # fmt: skip
def test_a_description_of_other_types_ends_the_update_with_everything_as_it_was(
    connected: Device, hand: HandPublisher, nginx: Nginx, description: Any
) -> None:
    hand.full(DATABASE, 1, OLD)
    connected.update(DATABASE)
    hand.full(DATABASE, 2, NEW)
    diff = usual()
    diff.infos = description
    hand.diff(DATABASE, 2, diff)
    connected.forget_document()
    result = connected.run("update", DATABASE)
    assert result.status == 1, str(result)
    assert "A JSON document is malformed, perhaps the description of a diff package: " in result.stderr
    assert connected.version(DATABASE) == 1
    trees.assert_holds(connected.installed(DATABASE), OLD)
    assert not connected.mark(DATABASE).exists()
    assert nginx.packages() == ["v1", "d2"]
    connected.run_ok("force-install", DATABASE, "0")  # A way on.
    trees.assert_holds(connected.installed(DATABASE), NEW)


@pytest.mark.parametrize(
    "entry",
    [("new", "create", "files"), ("new", "create", ""), ("new", "create", "files/link")],
    ids=["a folder", "nothing", "a link to nothing"],
)
def test_what_cannot_be_installed_replaces_nothing_and_the_full_package_comes_next(
    connected: Device, hand: HandPublisher, nginx: Nginx, entry: tuple[str, str, str]
) -> None:
    hand.full(DATABASE, 1, OLD)
    connected.update(DATABASE)
    hand.full(DATABASE, 2, NEW)
    hand.diff(DATABASE, 2, usual().carry("files/link", Member(target="elsewhere")).member(*entry))
    connected.forget_document()
    result = connected.run("update", DATABASE)
    assert result.status == 1, str(result)
    assert "Fail to diff update: Not a regular file: " in result.stderr
    trees.assert_holds(connected.installed(DATABASE), OLD)
    connected.update(DATABASE)
    trees.assert_holds(connected.installed(DATABASE), NEW)
    assert nginx.packages() == ["v1", "d2", "v2"]


def test_other_spellings_of_names_and_inputs_are_taken(
    connected: Device, hand: HandPublisher, nginx: Nginx
) -> None:
    old: Files = {"a/b": b"old", "gone": b"old"}
    hand.full(DATABASE, 1, old)
    connected.update(DATABASE)
    new: Files = {"a/b": b"new below a", "c/d": b"created"}
    hand.full(DATABASE, 2, new)
    diff = Diff().patch("a//b", old["a/b"], new["a/b"]).delete("./gone")
    diff.carry("files/in", new["c/d"]).member("./c/./d", "create", ".//files//in")
    hand.diff(DATABASE, 2, diff)
    connected.update(DATABASE)
    trees.assert_holds(connected.installed(DATABASE), new)
    assert nginx.packages() == ["v1", "d2"]


def test_an_empty_script_leaves_a_file_that_is_no_database(
    connected: Device, hand: HandPublisher, nginx: Nginx
) -> None:
    hand.full(DATABASE, 1, OLD)
    connected.update(DATABASE)
    hand.full(DATABASE, 2, OLD)
    hand.diff(DATABASE, 2, Diff().script("readme"))
    connected.update(DATABASE)
    trees.assert_holds(connected.installed(DATABASE), OLD)
    assert nginx.packages() == ["v1", "d2"]


def damaged(archive: bytes) -> bytes:
    """With one bit of the payload turned."""
    return archive[:-1] + bytes([archive[-1] ^ 1])


ARCHIVES: dict[str, Callable[[bytes], bytes]] = {
    "damaged": damaged,
    "cut": lambda archive: archive[:-1],
    "longer": lambda archive: archive + b"x",
    "empty": lambda archive: b"",
    "a web page": lambda archive: b"<html>Please sign in to this network.</html>",
}


@pytest.mark.parametrize("case", ARCHIVES)
def test_a_package_that_is_not_the_signed_one_is_refused(hand: HandPublisher, refusal: Refusal, case: str) -> None:
    sound = usual().archive(hand.key, packages.metadata(DATABASE, 2, "diff"))
    hand.diff_of(DATABASE, 2, ARCHIVES[case](sound))
    refusal.expect("^tarnarchive_open .*timezones_d2 failed, ret: ")


def test_a_package_signed_by_somebody_else_is_refused(
    hand: HandPublisher, refusal: Refusal, tmp_path: Path
) -> None:
    hand.diff(DATABASE, 2, usual(), key=Key(tmp_path / "foreign"))
    refusal.expect("^tarnarchive_open .*timezones_d2 failed, ret: ")


def test_a_broken_second_link_ends_the_chain_there(
    connected: Device, hand: HandPublisher, nginx: Nginx, syslog: Syslog, tmp_path: Path
) -> None:
    versions = [{"file": f"version {number} ".encode() * 100} for number in range(5)]
    hand.full(DATABASE, 1, versions[1])
    connected.update(DATABASE)
    hand.full(DATABASE, 4, versions[4])
    foreign = Key(tmp_path / "foreign")
    for number in (2, 3, 4):
        diff = Diff.between(versions[number - 1], versions[number])
        hand.diff(DATABASE, number, diff, key=foreign if number == 3 else None)
    connected.update(DATABASE)
    assert nginx.packages() == ["v1", "d2", "d3", "v4"]
    trees.assert_holds(connected.installed(DATABASE), versions[4])
    [_, reason] = syslog.refusals()
    assert re.match("tarnarchive_open .*timezones_d3 failed, ret: ", reason), reason


def test_a_wrong_base_on_the_device_is_made_good(
    connected: Device, hand: HandPublisher, refusal: Refusal
) -> None:
    hand.diff(DATABASE, 2, usual())
    (connected.installed(DATABASE) / "readme").write_bytes(b"damaged on the device")
    refusal.expect("^Fail to apply vcdiff on ")


def test_a_link_in_place_of_an_installed_file_is_not_followed(
    connected: Device, hand: HandPublisher, refusal: Refusal
) -> None:
    hand.diff(DATABASE, 2, usual())
    kept = Path(connected.installed(DATABASE)).parent / "kept"
    kept.write_bytes(OLD["readme"])
    installed = connected.installed(DATABASE) / "readme"
    installed.unlink()
    installed.symlink_to(kept)
    refusal.expect("Not a regular file: ")
    assert kept.read_bytes() == OLD["readme"]
    kept.unlink()


SCRIPTS: dict[str, tuple[list[str], str]] = {
    "fails in its third line": (
        ["DELETE FROM entries WHERE id = 1", "DELETE FROM entries WHERE id = 2", "DELETE FROM absent",
         "DELETE FROM entries WHERE id = 3"], "no such table: absent"),
    "commits": (["DELETE FROM entries", "COMMIT"], "not authorized"),
    "ends its transaction": (["DELETE FROM entries", "END TRANSACTION"], "not authorized"),
    "commits within a line": (["DELETE FROM entries; COMMIT; SELECT 1"], "not authorized"),
    "commits behind a comment": (["DELETE FROM entries", "/* */ cOmMiT -- ;"], "not authorized"),
    "rolls back": (["ROLLBACK", "DELETE FROM entries"], "not authorized"),
    "begins": (["BEGIN", "DELETE FROM entries"], "not authorized"),
    "attaches": ([f"ATTACH '{OUTSIDE}' AS other", "CREATE TABLE other.t (a)"], "not authorized"),
    "detaches": (["DETACH main"], "not authorized"),
    "loads an extension": (["SELECT load_extension('/usr/lib/x86_64-linux-gnu/libc.so.6')"], "not authorized"),
    "copies itself": ([f"VACUUM INTO '{OUTSIDE}'"], "VACUUM"),
    "compacts": (["VACUUM"], "VACUUM"),
    "does without a journal": (["PRAGMA journal_mode = OFF"], "not authorized"),
    "changes to WAL": (["PRAGMA journal_mode = WAL"], "not authorized"),
    "moves temporary files": (["PRAGMA temp_store_directory = '/var/lib'"], "not authorized"),
    "spans two lines": (["INSERT INTO entries (name) VALUES ('first line", "second line')"], "unrecognized token"),
    "holds a zero byte": (["DELETE FROM entries\0 WHERE id = 3"], "zero byte"),
    "writes a file": ([f"SELECT writefile('{OUTSIDE}', 'x')"], "no such function: writefile"),
    "is no SQL": (["<html>"], "syntax error"),
}  # fmt: skip


@pytest.mark.parametrize("case", SCRIPTS)
def test_a_script_that_leaves_its_bounds_is_refused_whole(hand: HandPublisher, refusal: Refusal, case: str) -> None:
    statements, reason = SCRIPTS[case]
    hand.diff(DATABASE, 2, usual().script("names.sqlite", *statements))
    refusal.expect("^Fail apply sql cmd: .*" + reason)


def test_a_version_forced_over_an_older_one_is_followed_by_diffs(
    connected: Device, hand: HandPublisher, nginx: Nginx
) -> None:
    versions: list[Files] = [{"a": b"1", "old": b"o"}, {"a": b"2"}, {"a": b"3"}, {"a": b"4"}]
    hand.full(DATABASE, 1, versions[0])
    connected.update(DATABASE)
    hand.full(DATABASE, 2, versions[1])
    connected.forget_document()
    connected.run_ok("force-install", DATABASE, "2")
    assert (connected.installed(DATABASE) / "old").exists()
    for number in (3, 4):
        hand.full(DATABASE, number, versions[number - 1])
        hand.diff(DATABASE, number, Diff.between(versions[number - 2], versions[number - 1]))
        connected.update(DATABASE)
        # What an earlier version left stays until a full package comes.
        trees.assert_holds(connected.installed(DATABASE), {**versions[number - 1], "old": b"o"})
    assert nginx.packages() == ["v1", "v2", "d3", "d4"]


def test_a_version_forced_back_comes_forward_by_diffs(connected: Device, hand: HandPublisher, nginx: Nginx) -> None:
    versions: list[Files] = [{"a": b"1"}, {"a": b"2", "new": b"n"}, {"a": b"3"}]
    base = 1_000_000  # Too long to stand in the link's host or port as well, where it would be replaced.
    for number in (1, 2):
        hand.full(DATABASE, base + number, versions[number - 1])
        connected.update(DATABASE)
    connected.run_ok("force-install", DATABASE, str(base + 1))
    for number in (2, 3):
        hand.full(DATABASE, base + number, versions[number - 1])
        hand.diff(DATABASE, base + number, Diff.between(versions[number - 2], versions[number - 1]))
    connected.update(DATABASE)
    trees.assert_holds(connected.installed(DATABASE), versions[2])
    assert nginx.packages() == [f"v{base + 1}", f"v{base + 2}", f"v{base + 1}", f"d{base + 2}", f"d{base + 3}"]


def test_a_foreign_file_in_the_way_is_found_before_anything_is_replaced(
    connected: Device, hand: HandPublisher, nginx: Nginx
) -> None:
    old: Files = {"a/b": b"below a", "first": b"is replaced", "readme": OLD["readme"]}
    new: Files = {"a": b"a file in place of the folder", "0": b"is replaced before", "readme": NEW["readme"]}
    hand.full(DATABASE, 1, old)
    connected.update(DATABASE)
    hand.full(DATABASE, 2, new)
    hand.diff(DATABASE, 2, Diff.between(old, new))
    # The chain knows nothing of it, so it is not removed.
    (connected.installed(DATABASE) / "a/foreign").write_bytes(b"of somebody else")
    connected.forget_document()
    connected.run_ok("update", DATABASE)
    assert nginx.packages() == ["v1", "d2", "v2"]
    trees.assert_holds(connected.installed(DATABASE), new)
