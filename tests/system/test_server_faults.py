"""Servers that fail, break off, lie or are not there: one sentence, and the installed copy stays."""

from __future__ import annotations

import json
import random
from pathlib import Path

import pytest
from harness import programs, trees
from harness.device import DATABASE, WGETRC, Device
from harness.faultserver import FaultServer
from harness.publisher import Publisher
from harness.webserver import free_port

# Random, so that packages are large enough to break off in the middle.
FILES = {"a/one.bin": random.Random(1).randbytes(40000), "a/two.bin": b"two" * 1000}
DOCUMENT_LINK = "/database_info/1"


@pytest.fixture
def installed(faulty: Device, publisher: Publisher, tmp_path: Path) -> Device:
    """Version 1 is installed, version 2 is offered, and the device will ask again."""
    publisher.publish(trees.write_tree(tmp_path / "first", FILES), DATABASE)
    faulty.run_ok("update", DATABASE)
    publisher.publish(trees.write_tree(tmp_path / "second", {**FILES, "b": b"new"}), DATABASE)
    faulty.forget_document()
    return faulty


def assert_plain_sentence(result: programs.Result) -> None:
    assert result.status == 1, str(result)
    lines = result.stderr.splitlines()
    assert len(lines) == 1, str(result)
    for trace in ("terminate called", "what():", "Aborted", "std::"):
        assert trace not in result.stderr


def assert_first_version_stays(device: Device, tmp_path: Path) -> None:
    trees.assert_same(tmp_path / "first", device.installed(DATABASE))
    assert device.version(DATABASE) == 1
    device.run_ok("check", DATABASE)


def assert_recovers(device: Device, faults: FaultServer, tmp_path: Path) -> None:
    """The next run, with the server well again, ends with the published tree."""
    device.netloc = faults.netloc
    device.configure()
    device.forget_document()
    device.run_ok("update", DATABASE)
    trees.assert_same(tmp_path / "second", device.installed(DATABASE))


@pytest.mark.parametrize("fault", ["status/404", "status/500", "status/503", "cut/20", "reset/20"])
def test_a_document_that_does_not_arrive_is_a_failure_that_names_the_link(
    installed: Device, faults: FaultServer, tmp_path: Path, fault: str
) -> None:
    installed.netloc = f"{faults.netloc}/{fault}"
    installed.configure()
    result = installed.run("update", DATABASE)
    assert_plain_sentence(result)
    assert f"{faults.netloc}/{fault}{DOCUMENT_LINK}" in result.stderr
    assert_first_version_stays(installed, tmp_path)
    assert_recovers(installed, faults, tmp_path)


@pytest.mark.parametrize("fault", ["status/404", "status/500", "cut/3000", "reset/3000", "cut/0"])
def test_a_package_that_does_not_arrive_is_a_failure_that_names_the_link(
    installed: Device, publisher: Publisher, faults: FaultServer, tmp_path: Path, fault: str
) -> None:
    sound = str(publisher.entry(DATABASE)["download_link"])
    broken = sound.replace(faults.url, f"{faults.url}/{fault}")
    publisher.link_to(DATABASE, broken)
    result = installed.run("update", DATABASE)
    assert_plain_sentence(result)
    assert broken in result.stderr
    assert installed.left_behind() == []
    assert_first_version_stays(installed, tmp_path)
    publisher.link_to(DATABASE, sound)
    assert_recovers(installed, faults, tmp_path)


def test_an_unreachable_server_is_a_failure_that_names_it(
    installed: Device, faults: FaultServer, tmp_path: Path
) -> None:
    installed.netloc = f"127.0.0.1:{free_port()}"
    installed.configure()
    result = installed.run("update", DATABASE)
    assert_plain_sentence(result)
    assert installed.netloc in result.stderr
    assert "; nothing listens at that port: " in result.stderr
    assert_first_version_stays(installed, tmp_path)
    assert_recovers(installed, faults, tmp_path)


def test_a_wrong_host_and_a_wrong_scheme_are_told_apart(installed: Device, faults: FaultServer) -> None:
    installed.netloc = "nowhere.invalid"
    installed.configure()
    result = installed.run("update", DATABASE)
    assert_plain_sentence(result)
    assert "http://nowhere.invalid/database_info/1" in result.stderr
    assert "; the name of the host is not known: " in result.stderr
    installed.netloc, installed.scheme = faults.netloc, "https"
    installed.configure()
    result = installed.run("update", DATABASE)
    assert_plain_sentence(result)
    assert f"https://{faults.netloc}/database_info/1" in result.stderr
    assert "; what answers speaks no TLS: " in result.stderr
    installed.netloc, installed.scheme = f"{faults.netloc}/status/404", "http"
    installed.configure()
    result = installed.run("update", DATABASE)
    assert "; the server answered with an error: " in result.stderr
    assert "ERROR 404" in result.stderr


def test_a_server_that_does_not_answer_is_given_up_when_the_administrator_says(
    installed: Device, faults: FaultServer, tmp_path: Path
) -> None:
    WGETRC.write_text("read_timeout = 1\n")
    installed.netloc = f"{faults.netloc}/hang"
    installed.configure()
    result = installed.run("update", DATABASE)
    assert_plain_sentence(result)
    assert installed.netloc in result.stderr
    assert result.seconds < 30
    assert_first_version_stays(installed, tmp_path)
    faults.gate.set()
    assert_recovers(installed, faults, tmp_path)


def test_status_of_an_unreachable_server_still_tells_what_is_installed(installed: Device) -> None:
    installed.netloc = f"127.0.0.1:{free_port()}"
    installed.configure()
    status = installed.status(DATABASE)
    assert status["installed_version"] == 1
    assert status["offered_version"] is None
    assert installed.netloc in str(status["offer_error"])


def test_a_web_page_instead_of_the_document_is_shown_for_what_it_is(
    installed: Device, faults: FaultServer, tmp_path: Path
) -> None:
    installed.netloc = f"{faults.netloc}/html"
    installed.configure()
    first = installed.run("update", DATABASE)
    # The page lies in the cache for an hour; the message must not get worse by that.
    again = installed.run("update", DATABASE)
    for result in (first, again):
        assert_plain_sentence(result)
        assert DOCUMENT_LINK in result.stderr
        assert "JSON" in result.stderr
        assert "<!DOCTYPE html>" in result.stderr
    assert_first_version_stays(installed, tmp_path)
    assert_recovers(installed, faults, tmp_path)


MALFORMED = {
    "nested": b"[" * 5000,
    "array": b"[1, 2]",
    "text": b'"words"',
    "null": b"null",
    "empty": b"",
    "list": b'{"db_list": [], "deprecated": false}',
    "number": b'{"db_list": {"timezones": 7}, "deprecated": false}',
    "flag": b'{"db_list": {"timezones": {}}, "deprecated": "maybe"}',
    "version": b'{"db_list": {"timezones": {"data_version": "x", "last_fetch_time": 1, "deprecated": false, '
    b'"download_link": "http://127.0.0.1/", "diff_files": {}}}, "deprecated": false}',
    "huge": b'{"db_list": {"timezones": {"data_version": "99999999999999", "last_fetch_time": 1, "deprecated": false, '
    b'"download_link": "http://127.0.0.1/", "diff_files": {}}}, "deprecated": false}',
    "diffs": b'{"db_list": {"timezones": {"data_version": "2", "last_fetch_time": 1, "deprecated": false, '
    b'"download_link": "http://127.0.0.1/", "diff_files": {"x": {"download_link": "", "file_size": 1}}}}, '
    b'"deprecated": false}',
}


@pytest.mark.parametrize("name", MALFORMED)
def test_a_malformed_document_is_one_sentence_and_no_abort(
    installed: Device, faults: FaultServer, tmp_path: Path, name: str
) -> None:
    faults.texts[name] = MALFORMED[name]
    installed.netloc = f"{faults.netloc}/text/{name}"
    installed.configure()
    assert_plain_sentence(installed.run("update", DATABASE))
    assert installed.run("status", DATABASE).status >= 0
    assert_first_version_stays(installed, tmp_path)
    assert_recovers(installed, faults, tmp_path)


def test_a_link_that_looks_like_an_option_is_not_handed_to_the_downloader(
    installed: Device, publisher: Publisher, faults: FaultServer, tmp_path: Path
) -> None:
    witness = tmp_path / "written-by-an-option"
    publisher.link_to(DATABASE, f"--output-file={witness}")
    before = faults.requests()
    result = installed.run("update", DATABASE)
    assert_plain_sentence(result)
    assert not witness.exists()
    assert [line for line in faults.requests()[len(before) :] if DOCUMENT_LINK not in line] == []
    assert_first_version_stays(installed, tmp_path)


def test_a_package_of_somebody_else_is_not_installed(
    installed: Device, publisher: Publisher, faults: FaultServer, tmp_path: Path
) -> None:
    other = Publisher(tmp_path / "other", faults.url)
    other.publish(trees.write_tree(tmp_path / "evil", {"a/one.bin": b"evil"}), DATABASE, "--data-version", "2")
    publisher.package(DATABASE, 2).write_bytes(other.package(DATABASE, 2).read_bytes())
    assert_plain_sentence(installed.run("update", DATABASE))
    assert_first_version_stays(installed, tmp_path)


def test_one_changed_byte_of_a_package_is_noticed(
    installed: Device, publisher: Publisher, tmp_path: Path
) -> None:
    package = publisher.package(DATABASE, 2)
    content = bytearray(package.read_bytes())
    content[len(content) // 2] ^= 1
    package.write_bytes(content)
    assert_plain_sentence(installed.run("update", DATABASE))
    assert_first_version_stays(installed, tmp_path)


def test_a_database_that_the_server_does_not_offer_is_named(installed: Device, publisher: Publisher) -> None:
    document = json.loads(publisher.document.read_text())
    del document["db_list"][DATABASE]
    publisher.document.write_text(json.dumps(document))
    result = installed.run("update", DATABASE)
    assert_plain_sentence(result)
    assert DATABASE in result.stderr
