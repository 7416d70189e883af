"""Who can answer for the server, but has no key, brings in no package but the one that is asked for.

Every package here is whole and signed by a trusted key. What the document says about it is not true.
"""

from __future__ import annotations

import json
import re
from collections.abc import Callable
from pathlib import Path

import pytest
from harness import packages, trees
from harness.device import DATABASE, KEYS, STATUS, Device, empty
from harness.packages import Diff, HandPublisher
from harness.publisher import Publisher
from harness.syslog import Syslog
from harness.webserver import Nginx

OTHER = "other"
LAST_VERSION = 2147483647
VERSIONS = {number: {"readme": b"version %d\n" % number * 50, "same": b"same"} for number in range(1, 6)}


def diff_to(version: int) -> Diff:
    return Diff.between(VERSIONS[version - 1], VERSIONS[version])


def full_of(hand: HandPublisher, name: str, version: int) -> bytes:
    return packages.archive(hand.key, VERSIONS[version], packages.metadata(name, version))


def diff_of(hand: HandPublisher, name: str, version: int) -> bytes:
    return diff_to(version).archive(hand.key, packages.metadata(name, version, "diff"))


class Installed:
    """A device with version 2, whose files and record must stay as they are."""

    def __init__(self, device: Device, hand: HandPublisher) -> None:
        self._device = device
        hand.full(DATABASE, 2, VERSIONS[2])
        device.update(DATABASE)
        self._records = self._read_records()

    @staticmethod
    def _read_records() -> dict[str, bytes]:
        return {name: (STATUS / DATABASE / name).read_bytes() for name in ("version.json", "installed_package.json")}

    def assert_untouched(self) -> None:
        trees.assert_holds(self._device.installed(DATABASE), VERSIONS[2])
        assert self._read_records() == self._records
        assert not self._device.mark(DATABASE).exists()
        self._device.run_ok("check", DATABASE)


@pytest.fixture
def installed(connected: Device, hand: HandPublisher) -> Installed:
    return Installed(connected, hand)


LIES: dict[str, tuple[Callable[[HandPublisher], bytes], int, str]] = {
    "an older package as a new version": (
        lambda hand: full_of(hand, DATABASE, 1), 3, "the full package of timezones, version 1"),
    "a package of another database": (
        lambda hand: full_of(hand, OTHER, 1), 4, "the full package of other, version 1"),
    "a package of another database in the same version": (
        lambda hand: full_of(hand, OTHER, 3), 3, "the full package of other, version 3"),
    "a diff package as the full one": (
        lambda hand: diff_of(hand, DATABASE, 3), 3, "the diff package of timezones from version 2 to 3"),
    "an older package as the last version of all": (
        lambda hand: full_of(hand, DATABASE, 1), LAST_VERSION, "the full package of timezones, version 1"),
    "the installed package as the last version of all": (
        lambda hand: full_of(hand, DATABASE, 2), LAST_VERSION, "the full package of timezones, version 2"),
}  # fmt: skip


@pytest.mark.parametrize("case", LIES)
def test_a_package_that_is_not_what_the_document_says_changes_nothing(
    connected: Device, hand: HandPublisher, installed: Installed, syslog: Syslog, case: str
) -> None:
    make, version, what_it_is = LIES[case]
    hand.full_of(DATABASE, version, make(hand))
    connected.forget_document()
    result = connected.run("update", DATABASE)
    assert result.status == 1, str(result)
    sentence = f"the full package of timezones, version {version} is asked for, and this is {what_it_is}"
    assert f"_v{version} failed, ret: 0; {sentence}; the server, or whoever answers in its place" in result.stderr
    assert len(result.stderr.splitlines()) == 1
    lines = [text for priority, text in syslog.lines() if priority == 3 and "tarncodesign: " in text]
    assert len(lines) == 1 and lines[0].endswith(f"/{DATABASE}_v{version}: {sentence}"), lines
    installed.assert_untouched()
    hand.full(DATABASE, 5, VERSIONS[5])
    connected.update(DATABASE)
    assert connected.version(DATABASE) == 5


REPLAYS: dict[str, tuple[Callable[[HandPublisher], bytes], str]] = {
    "another database's diff": (
        lambda hand: diff_of(hand, OTHER, 3), "the diff package of other from version 2 to 3"),
    "another version's diff": (
        lambda hand: diff_of(hand, DATABASE, 2), "the diff package of timezones from version 1 to 2"),
    "a later version's diff": (
        lambda hand: diff_of(hand, DATABASE, 4), "the diff package of timezones from version 3 to 4"),
    "a diff from another base": (
        lambda hand: diff_to(3).archive(
            hand.key, packages.metadata(DATABASE, 3, "diff") | {"base_version": 1}),
        "the diff package of timezones from version 1 to 3"),
    "the full package": (
        lambda hand: full_of(hand, DATABASE, 3), "the full package of timezones, version 3"),
}  # fmt: skip


@pytest.mark.parametrize("case", REPLAYS)
def test_a_replayed_diff_is_refused_and_the_full_package_taken(
    connected: Device, hand: HandPublisher, installed: Installed, nginx: Nginx, syslog: Syslog, case: str
) -> None:
    make, what_it_is = REPLAYS[case]
    hand.full(DATABASE, 3, VERSIONS[3])
    hand.diff_of(DATABASE, 3, make(hand))
    connected.update(DATABASE)
    assert nginx.packages() == ["v2", "d3", "v3"]
    trees.assert_holds(connected.installed(DATABASE), VERSIONS[3])
    connected.run_ok("check", DATABASE)
    [reason] = syslog.refusals()
    assert re.match(r"tarnarchive_open .*timezones_d3 failed, ret: 0$", reason), reason
    sentence = f"the diff package of timezones to version 3 is asked for, and this is {what_it_is}"
    assert [text for _, text in syslog.lines() if text.endswith(sentence)] != []


def test_a_replayed_diff_without_a_true_full_package_changes_nothing(
    connected: Device, hand: HandPublisher, installed: Installed
) -> None:
    hand.full_of(DATABASE, 3, full_of(hand, OTHER, 3))
    hand.diff_of(DATABASE, 3, diff_of(hand, OTHER, 3))
    connected.forget_document()
    assert connected.run("update", DATABASE).status == 1
    installed.assert_untouched()


SILENT: dict[str, tuple[dict[str, object] | bytes, str]] = {
    "nothing": (b"", "its metadata is no JSON object"),
    "no JSON": (b"{", "its metadata is no JSON object"),
    "a list": (b"[]", "its metadata is no JSON object"),
    "60,000 levels": (b"[" * 60000, "its metadata is no JSON object"),
    "no id": ({"data_version": 3, "kind": "full"}, 'its "id" is no string'),
    "no kind": ({"data_version": 3, "id": DATABASE}, 'its "kind" is neither "full" nor "diff"'),
    "no version": ({"id": DATABASE, "kind": "full"}, 'its "data_version" is no integer from 0 to 2147483647'),
    "a version in a string": (
        {"data_version": "3", "id": DATABASE, "kind": "full"}, 'its "data_version" is no integer'),
}  # fmt: skip


@pytest.mark.parametrize("case", SILENT)
def test_a_package_that_does_not_tell_what_it_is_changes_nothing(
    connected: Device, hand: HandPublisher, installed: Installed, case: str
) -> None:
    told, problem = SILENT[case]
    hand.full_of(DATABASE, 3, packages.archive(hand.key, VERSIONS[3], told))
    connected.forget_document()
    result = connected.run("update", DATABASE)
    assert result.status == 1, str(result)
    assert f"version 3 is asked for, and this package does not tell what it is: {problem}" in result.stderr
    installed.assert_untouched()


def test_a_fix_takes_no_other_package(connected: Device, hand: HandPublisher, installed: Installed) -> None:
    (connected.installed(DATABASE) / "same").write_bytes(b"damaged")
    hand.full_of(DATABASE, 2, full_of(hand, DATABASE, 1))
    connected.forget_document()
    result = connected.run("fix", DATABASE)
    assert result.status == 1, str(result)
    assert "version 2 is asked for, and this is the full package of timezones, version 1" in result.stderr
    hand.full(DATABASE, 2, VERSIONS[2])
    connected.run_ok("fix", DATABASE)
    trees.assert_holds(connected.installed(DATABASE), VERSIONS[2])


FORCED: dict[str, tuple[Callable[[HandPublisher], bytes], str]] = {
    "another version": (
        lambda hand: full_of(hand, DATABASE, 1), "version 3 of timezones is asked for, and this is version 1"),
    "another database": (
        lambda hand: full_of(hand, OTHER, 3),
        "a full package of timezones is asked for, and this is the full package of other, version 3"),
    "a diff": (
        lambda hand: diff_of(hand, DATABASE, 3),
        "a full package of timezones is asked for, and this is the diff package of timezones from version 2 to 3"),
}  # fmt: skip


def test_a_key_that_is_removed_ends_updates_and_keeps_what_is_installed(
    connected: Device, publisher: Publisher, tmp_path: Path
) -> None:
    tree = trees.write_tree(tmp_path / "tree", {"a": b"first"})
    publisher.publish(tree, DATABASE)
    connected.run_ok("update", DATABASE)
    empty(KEYS)
    (tree / "a").write_bytes(b"second")
    publisher.publish(tree, DATABASE)
    connected.forget_document()
    assert connected.run("update", DATABASE).status == 1
    trees.assert_holds(connected.installed(DATABASE), {"a": b"first"})
    connected.run_ok("check", DATABASE)
    connected.trust(publisher.public_key)
    connected.update(DATABASE)
    trees.assert_same(tree, connected.installed(DATABASE))


@pytest.mark.parametrize("case", FORCED)
def test_a_forced_version_is_that_version(
    connected: Device, hand: HandPublisher, installed: Installed, case: str
) -> None:
    make, sentence = FORCED[case]
    hand.full_of(DATABASE, 3, make(hand))
    for asked in ("3", "0"):
        connected.forget_document()
        result = connected.run("force-install", DATABASE, asked)
        assert result.status == 1, str(result)
        assert f"{DATABASE}_debug failed, ret: 0; {sentence}; " in result.stderr
        installed.assert_untouched()


def test_an_older_offer_than_what_is_installed_is_never_up_to_date(
    connected: Device, hand: HandPublisher, tmp_path: Path
) -> None:
    hand.full(DATABASE, 11, VERSIONS[2])
    connected.update(DATABASE)
    assert connected.status(DATABASE)["above_offered"] is False
    hand.full(DATABASE, 4, VERSIONS[4])
    connected.forget_document()
    result = connected.run("status", DATABASE, "--json")
    assert result.status == 5, str(result)
    [entry] = json.loads(result.stdout)
    assert (entry["installed_version"], entry["offered_version"]) == (11, 4)
    assert (entry["up_to_date"], entry["above_offered"]) == (False, True)
    shown = connected.run("status")
    assert shown.status == 5
    assert re.search(r"^timezones +11 +4 +above offered ", shown.stdout, re.MULTILINE)
    assert "timezones: Installed 11 is above the offered 4" in shown.stderr
    for arguments in (("update", DATABASE), ("update",)):
        result = connected.run(*arguments)
        assert result.status == 5, str(result)
        assert result.stdout.startswith("timezones: installed 11 is above the offered 4; nothing was changed")
        assert "up to date" not in result.stdout
    [told] = json.loads(connected.run("update", "--json").stdout)
    assert (told["result"], told["version"], told["offered_version"]) == ("above offered", 11, 4)
    metrics = connected.run_ok("metrics").stdout
    assert f'tarndbud_above_offered{{database="{DATABASE}"}} 1\n' in metrics
    assert f'tarndbud_last_run_success{{database="{DATABASE}",operation="update"}} 0\n' in metrics
    trees.assert_holds(connected.installed(DATABASE), VERSIONS[2])
    assert connected.run_ok("force-install", DATABASE, "0").stdout.startswith(f"{DATABASE}: version 4 was unpacked")
    assert connected.status(DATABASE)["above_offered"] is False
    hand.full(DATABASE, 12, VERSIONS[5])
    connected.update(DATABASE)
    assert f'tarndbud_above_offered{{database="{DATABASE}"}} 0\n' in connected.run_ok("metrics").stdout


def offer(hand: HandPublisher, version: int, published: int) -> None:
    """Publishes a version whose package says when, whatever the document says."""
    told = packages.metadata(DATABASE, version) | {"published": published}
    hand.full_of(DATABASE, version, packages.archive(hand.key, VERSIONS[version], told))


def assert_age_unknown(device: Device) -> None:
    status = device.status(DATABASE)
    assert (status["published"], status["age_seconds"]) == (None, None)
    assert "up to date  unknown  yes" in device.run_ok("status").stdout
    assert "tarndbud_data_" not in device.run_ok("metrics").stdout


def test_the_age_of_data_is_the_signed_packages_and_not_the_documents(connected: Device, hand: HandPublisher) -> None:
    offer(hand, 1, 1700000000)
    connected.update(DATABASE)
    recorded = json.loads((STATUS / DATABASE / "version.json").read_text())["last_fetch_time"]
    assert recorded > 1700000000 + 86400, "the document names the time of now"
    status = connected.status(DATABASE)
    assert status["published"] == 1700000000
    assert isinstance(status["age_seconds"], int) and status["age_seconds"] > recorded - 1700000000 - 600
    metrics = connected.run_ok("metrics").stdout
    assert f'data_timestamp_seconds{{database="{DATABASE}"}} 1700000000\n' in metrics
    assert re.search(r"^timezones +1 +1 +up to date +\d+ d +yes", connected.run_ok("status").stdout, re.MULTILINE)


def test_the_age_of_data_follows_diffs_fixes_and_forced_versions(connected: Device, hand: HandPublisher) -> None:
    offer(hand, 1, 1700000001)
    connected.update(DATABASE)
    offer(hand, 3, 1700000003)
    for version in (2, 3):
        told = packages.metadata(DATABASE, version, "diff") | {"published": 1700000000 + version}
        hand.diff_of(DATABASE, version, diff_to(version).archive(hand.key, told))
    connected.update(DATABASE)
    assert connected.status(DATABASE)["published"] == 1700000003
    record = STATUS / DATABASE / "installed_package.json"
    assert json.loads(record.read_text()) == {"data_version": 3, "published": 1700000003}
    assert record.stat().st_mode & 0o777 == 0o644
    record.unlink()
    assert connected.status(DATABASE)["published"] is None
    (connected.installed(DATABASE) / "readme").unlink()
    connected.run_ok("fix", DATABASE)
    assert connected.status(DATABASE)["published"] == 1700000003
    offer(hand, 4, 1700000004)
    connected.forget_document()
    connected.run_ok("force-install", DATABASE, "0")
    assert connected.status(DATABASE)["published"] == 1700000004


def test_the_age_of_data_is_unknown_without_a_record_of_their_version(connected: Device, hand: HandPublisher) -> None:
    told = packages.metadata(DATABASE, 1)
    del told["published"]
    hand.full_of(DATABASE, 1, packages.archive(hand.key, VERSIONS[1], told))
    connected.update(DATABASE)
    assert_age_unknown(connected)
    offer(hand, 2, 1700000002)
    connected.update(DATABASE)
    record = STATUS / DATABASE / "installed_package.json"
    record.write_text(json.dumps({"data_version": 1, "published": 1700000001}))
    assert_age_unknown(connected)
    record.write_bytes(b"")
    assert_age_unknown(connected)
