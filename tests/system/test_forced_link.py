"""The link of a forced version: the server's with its version number rewritten, wherever that stands.

What the publisher warns of and what a device then does belong together: without a warning the version's own package is
reached, and with one another link is asked for, which these tests see arrive.
"""

from __future__ import annotations

from collections.abc import Iterator
from pathlib import Path

import pytest
from harness import faultserver, trees
from harness.device import DATABASE, Device
from harness.faultserver import FaultServer
from harness.publisher import Publisher

VERSION = 7000003
"""A number that stands in no port."""


@pytest.fixture
def tree(tmp_path: Path) -> Path:
    return trees.write_tree(tmp_path / "tree", {"list": b"content"})


@pytest.fixture
def other(publisher: Publisher) -> Iterator[FaultServer]:
    """Where a rewritten host or port leads; its own port has none of its host's last digits."""
    while True:
        with faultserver.serving(publisher.repository, "127.0.0.46") as server:
            if "45" not in server.netloc:
                yield server
                return


def publish(publisher: Publisher, tree: Path, name: str, version: int, base: str = "") -> bool:
    """Publishes a version; whether that came with the warning."""
    result = publisher.publish(tree, name, "--data-version", str(version), base=base or publisher.base)
    return f"warning: The digits of version {version} stand more than once in the link" in result.stderr


def package(name: str, version: int) -> str:
    return f"/packages/{name}/{name}_v{version}.tarn"


def packages_asked_for(server: FaultServer) -> list[str]:
    return [line.removeprefix("GET ") for line in server.requests() if "/packages/" in line]


def test_without_the_warning_a_forced_version_is_reached(
    faulty: Device, publisher: Publisher, faults: FaultServer, tree: Path
) -> None:
    assert not any(publish(publisher, tree, DATABASE, VERSION + number) for number in range(-2, 1))
    for asked, reached in ((-1, -1), (-2, -2), (VERSION - 1, -1), (VERSION, 0), (0, 0)):
        faulty.run_ok("force-install", DATABASE, str(asked))
        assert faulty.version(DATABASE) == VERSION + reached
        assert packages_asked_for(faults)[-1] == package(DATABASE, VERSION + reached)


@pytest.mark.parametrize(
    ("name", "path"),
    [
        (DATABASE, "/data/{}"),
        (DATABASE, "/data/9{}1"),
        ("zones{}", ""),
        ("zones-9{}1", ""),
    ],
    ids=["path", "longer number in the path", "id", "longer number in the id"],
)
def test_with_the_warning_a_forced_version_is_looked_for_elsewhere(
    faulty: Device, publisher: Publisher, faults: FaultServer, tree: Path, name: str, path: str
) -> None:
    current = name.format(VERSION)
    faulty.add_database(current)
    assert publish(publisher, tree, current, VERSION, faults.url + path.format(VERSION))
    for asked in (-1, VERSION - 1):
        result = faulty.run("force-install", current, str(asked))
        rewritten = path.format(VERSION - 1) + package(name.format(VERSION - 1), VERSION - 1)
        assert result.status == 1, str(result)
        assert faults.url + rewritten in result.stderr
        assert packages_asked_for(faults)[-1] == rewritten


@pytest.mark.parametrize("asked", [0, VERSION])
def test_the_servers_own_version_is_asked_for_at_its_link_whatever_that_holds(
    faulty: Device, publisher: Publisher, faults: FaultServer, tree: Path, asked: int
) -> None:
    name = f"zones{VERSION}"
    faulty.add_database(name)
    assert publish(publisher, tree, name, VERSION)
    faulty.run_ok("force-install", name, str(asked))
    assert packages_asked_for(faults) == [package(name, VERSION)]
    assert faulty.version(name) == VERSION


def test_with_the_warning_a_forced_version_is_looked_for_at_another_port(
    faulty: Device, publisher: Publisher, faults: FaultServer, other: FaultServer, tree: Path
) -> None:
    # The publisher's host is the other's, but not its port.
    port, other_port = faults.server_address[1], other.server_address[1]
    assert publish(publisher, tree, DATABASE, port, f"http://127.0.0.46:{port}")
    result = faulty.run("force-install", DATABASE, str(other_port))
    assert result.status == 1, str(result)
    assert packages_asked_for(other) == [package(DATABASE, other_port)]


def test_with_the_warning_a_forced_version_is_looked_for_at_another_host(
    faulty: Device, publisher: Publisher, other: FaultServer, tree: Path
) -> None:
    base = f"http://127.0.0.45:{other.server_address[1]}"
    assert publish(publisher, tree, DATABASE, 45, base)
    result = faulty.run("force-install", DATABASE, "46")
    assert result.status == 1, str(result)
    assert packages_asked_for(other) == [package(DATABASE, 46)]
