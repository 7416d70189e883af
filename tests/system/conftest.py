"""Whole programs over real parts. Run by test.sh inside scripts/sandbox, never on a machine that matters."""

from __future__ import annotations

import os
import signal
import subprocess
from collections.abc import Iterator
from pathlib import Path

import pytest
from harness import faultserver
from harness.device import DATABASE, Device
from harness.packages import HandPublisher
from harness.publisher import Publisher
from harness.syslog import Syslog
from harness.volumes import Volumes
from harness.webserver import Nginx

SOURCE = Path(__file__).resolve().parents[2]


def pytest_addoption(parser: pytest.Parser) -> None:
    parser.addoption("--build-dir", type=Path, default=SOURCE / "build/release", help="the build that is installed")


def pytest_configure(config: pytest.Config) -> None:
    if "TARN_SANDBOX" not in os.environ:
        raise pytest.UsageError("these tests write to fixed paths; run them by ./test.sh or scripts/sandbox")
    # Directories that a group could write are refused as volumes, whatever the developer's umask.
    os.umask(0o022)
    # A shell in the background ignores these, and programs would inherit that.
    signal.signal(signal.SIGINT, signal.default_int_handler)
    signal.signal(signal.SIGQUIT, signal.SIG_DFL)
    signal.signal(signal.SIGHUP, signal.SIG_DFL)


@pytest.fixture(scope="session", autouse=True)
def product(request: pytest.FixtureRequest) -> None:
    """The build, installed once where it belongs."""
    build = request.config.getoption("--build-dir")
    subprocess.run(["cmake", "--install", str(build)], check=True, stdout=subprocess.DEVNULL)


@pytest.fixture
def scratch() -> Path:
    return Path(os.environ["TARN_SCRATCH"])


@pytest.fixture
def volumes(scratch: Path) -> Iterator[Volumes]:
    place = scratch / "volumes"
    place.mkdir(exist_ok=True)
    made = Volumes(place)
    yield made
    made.close()


@pytest.fixture
def clean_device(product: None) -> Iterator[None]:
    shipped = SOURCE / "packaging/conf"
    Device.reset(shipped)
    yield
    Device.reset(shipped)


@pytest.fixture
def publisher(tmp_path: Path, product: None) -> Publisher:
    return Publisher(tmp_path / "publisher")


@pytest.fixture
def nginx(publisher: Publisher, tmp_path: Path) -> Iterator[Nginx]:
    server = Nginx(SOURCE / "packaging/nginx/tarndbud.conf", publisher.repository, tmp_path / "nginx")
    publisher.base = server.url
    yield server
    server.close()


@pytest.fixture
def faults(publisher: Publisher) -> Iterator[faultserver.FaultServer]:
    with faultserver.serving(publisher.repository) as server:
        publisher.base = server.url
        yield server


@pytest.fixture
def device(clean_device: None, volumes: Volumes, publisher: Publisher) -> Device:
    """A device that trusts the publisher, with one volume and one database; a test gives it its server."""
    volume = volumes.make("directory")
    made = Device(volume, "127.0.0.1:9")
    made.list_volumes(volume)
    made.trust(publisher.public_key)
    made.add_database(DATABASE)
    return made


@pytest.fixture
def connected(device: Device, nginx: Nginx) -> Device:
    """A device whose server is the real web server."""
    device.netloc = nginx.netloc
    device.configure()
    return device


@pytest.fixture
def hand(connected: Device, publisher: Publisher, nginx: Nginx, tmp_path: Path) -> HandPublisher:
    """Another publisher of the same repository, trusted as well, which writes what the real one never would."""
    made = HandPublisher(tmp_path / "hand", publisher.repository, nginx.url)
    connected.trust(made.key.public)
    return made


@pytest.fixture
def faulty(device: Device, faults: faultserver.FaultServer) -> Device:
    """A device whose server is the one with faults."""
    device.netloc = faults.netloc
    device.configure()
    return device


@pytest.fixture
def syslog() -> Iterator[Syslog]:
    if not Syslog.is_possible():
        pytest.skip("needs to listen at /dev/log, where somebody listens already")
    sink = Syslog()
    yield sink
    sink.close()
