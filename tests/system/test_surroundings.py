"""Nothing in a caller's surroundings changes what the downloader does; the administrator's file does."""

from __future__ import annotations

import os
import socket
from collections.abc import Iterator
from pathlib import Path

import pytest
from harness import trees
from harness.device import DATABASE, WGETRC, Device
from harness.faultserver import FaultServer
from harness.publisher import Publisher
from harness.volumes import may_mount
from harness.webserver import Nginx, TlsNginx

SOURCE = Path(__file__).resolve().parents[2]
HOSTILE_SETTINGS = "header = X-Hostile: yes\nuser_agent = hostile\npost_file = /etc/passwd\nauth_no_challenge = on\n"


@pytest.fixture
def offered(faulty: Device, publisher: Publisher, tmp_path: Path) -> Device:
    publisher.publish(trees.write_tree(tmp_path / "tree", {"a": b"content"}), DATABASE)
    return faulty


def assert_plain_requests(device: Device, faults: FaultServer, tmp_path: Path, env: dict[str, str]) -> None:
    result = device.run("update", DATABASE, env=env)
    assert result.status == 0, str(result)
    trees.assert_same(tmp_path / "tree", device.installed(DATABASE))
    assert [line.split()[0] for line in faults.requests()] == ["GET", "GET"]
    for headers in faults.headers():
        assert "X-Hostile" not in headers
        assert "Authorization" not in headers
        assert headers["User-Agent"] != "hostile"


@pytest.fixture
def hostile_home(tmp_path: Path) -> Path:
    home = tmp_path / "home"
    home.mkdir()
    (home / ".wgetrc").write_text(HOSTILE_SETTINGS)
    (home / ".netrc").write_text("machine 127.0.0.1 login user password secret\ndefault login user password secret\n")
    return home


@pytest.mark.parametrize("variable", ["WGETRC", "SYSTEM_WGETRC", "HOME"])
def test_settings_from_the_environment_are_not_obeyed(
    offered: Device, faults: FaultServer, hostile_home: Path, tmp_path: Path, variable: str
) -> None:
    value = hostile_home if variable == "HOME" else hostile_home / ".wgetrc"
    assert_plain_requests(offered, faults, tmp_path, {**os.environ, variable: str(value)})


@pytest.fixture
def hostile_account() -> Iterator[None]:
    files = {Path("/root/.wgetrc"): HOSTILE_SETTINGS, Path("/root/.netrc"): "default login user password secret\n"}
    if any(path.exists() for path in files):
        pytest.skip("needs to write root's .wgetrc and .netrc, and this machine has some")
    for path, text in files.items():
        path.write_text(text)
    yield
    for path in files:
        path.unlink()


def test_settings_and_passwords_of_the_account_are_not_obeyed(
    offered: Device, faults: FaultServer, hostile_account: None, tmp_path: Path
) -> None:
    assert_plain_requests(offered, faults, tmp_path, {**os.environ, "HOME": "/root"})


def test_the_administrators_settings_are_obeyed(offered: Device, faults: FaultServer) -> None:
    WGETRC.write_text("header = X-Site: ours\n")
    offered.run_ok("update", DATABASE)
    assert [headers.get("X-Site") for headers in faults.headers()] == ["ours", "ours"]


@pytest.fixture
def two_addresses() -> Iterator[str]:
    """A name with an address of IPv6, which comes first, and one of IPv4."""
    hosts, name = Path("/etc/hosts"), "both.example"
    if not may_mount():
        pytest.skip("needs to write /etc/hosts")
    before = hosts.read_text() if hosts.exists() else None
    hosts.write_text(f"{before or ''}\n::1 {name}\n127.0.0.1 {name}\n")
    try:
        if socket.getaddrinfo(name, 80)[0][0] != socket.AF_INET6:
            pytest.skip("needs IPv6")
        yield name
    finally:
        if before is None:
            hosts.unlink()
        else:
            hosts.write_text(before)


@pytest.mark.parametrize("is_set", [False, True])
def test_the_shipped_line_for_broken_ipv6_keeps_downloads_off_it(
    connected: Device, publisher: Publisher, nginx: Nginx, two_addresses: str, tmp_path: Path, is_set: bool
) -> None:
    shipped = (SOURCE / "packaging/conf/wgetrc").read_text()
    line = "\n#prefer_family = IPv4\n"
    assert line in shipped
    WGETRC.write_text(shipped.replace(line, line.replace("#", "")) if is_set else shipped)
    port = int(nginx.netloc.split(":")[1])
    connected.netloc = f"{two_addresses}:{port}"
    connected.configure()
    publisher.base = f"http://{connected.netloc}"
    publisher.publish(trees.write_tree(tmp_path / "tree", {"a": b"content"}), DATABASE)
    with socket.create_server(("::1", port), family=socket.AF_INET6) as listener:
        updating = connected.start("update", DATABASE)
        if is_set:
            assert updating.wait().status == 0
        else:
            listener.settimeout(30)
            listener.accept()[0].close()
    if not is_set:
        assert updating.wait().status == 0, "IPv4 is tried afterwards"


def test_settings_that_others_may_write_are_not_obeyed(
    offered: Device, faults: FaultServer, tmp_path: Path
) -> None:
    WGETRC.write_text(HOSTILE_SETTINGS)
    WGETRC.chmod(0o666)
    try:
        assert_plain_requests(offered, faults, tmp_path, dict(os.environ))
    finally:
        WGETRC.chmod(0o644)


def test_a_proxy_of_the_environment_is_used(offered: Device, faults: FaultServer) -> None:
    """The server plays the proxy: a proxy is asked for whole addresses."""
    offered.netloc = "update.invalid"
    offered.configure()
    offered.run("update", DATABASE, env={**os.environ, "http_proxy": faults.url})
    assert any("http://update.invalid/database_info/1" in line for line in faults.requests()), faults.requests()


def test_a_proxy_of_the_environment_is_used_without_settings_as_well(offered: Device, faults: FaultServer) -> None:
    WGETRC.write_text("http_proxy = http://127.0.0.1:9/\n")
    WGETRC.chmod(0o666)
    try:
        test_a_proxy_of_the_environment_is_used(offered, faults)
    finally:
        WGETRC.chmod(0o644)


def test_an_authority_in_settings_that_others_may_write_is_not_trusted(
    device: Device, publisher: Publisher, tmp_path: Path
) -> None:
    server = TlsNginx(SOURCE / "packaging/nginx/tarndbud.conf", publisher.repository, tmp_path / "nginx")
    try:
        publisher.base, device.netloc, device.scheme = server.url, server.netloc, "https"
        publisher.publish(trees.write_tree(tmp_path / "tree", {"a": b"content"}), DATABASE)
        device.configure()
        WGETRC.write_text(f"ca_certificate = {server.certificate}\n")
        WGETRC.chmod(0o666)
        refused = device.run("update", DATABASE)
        assert (refused.status, "certificate is not trusted" in refused.stderr) == (1, True), str(refused)
        assert server.requests() == []
        WGETRC.chmod(0o644)
        device.run_ok("update", DATABASE)
    finally:
        WGETRC.chmod(0o644)
        server.close()


def test_a_redirect_to_ftp_leads_nowhere(offered: Device, publisher: Publisher, faults: FaultServer) -> None:
    with socket.create_server(("127.0.0.1", 0)) as ftp:
        faults.redirect_target = f"ftp://127.0.0.1:{ftp.getsockname()[1]}/package"
        publisher.link_to(DATABASE, f"{faults.url}/redirect/package")
        result = offered.run("update", DATABASE)
        assert result.status == 1, str(result)
        assert "GET /redirect/package" in faults.requests()
        ftp.setblocking(False)
        with pytest.raises(BlockingIOError):
            ftp.accept()


def test_a_redirect_to_http_is_followed(
    offered: Device, publisher: Publisher, faults: FaultServer, tmp_path: Path
) -> None:
    faults.redirect_target = str(publisher.entry(DATABASE)["download_link"])
    publisher.link_to(DATABASE, f"{faults.url}/redirect/package")
    offered.run_ok("update", DATABASE)
    trees.assert_same(tmp_path / "tree", offered.installed(DATABASE))
