"""The Debian packages of the programs, later versions of them, and their installation as an administrator does it."""

from __future__ import annotations

import hashlib
import json
import shutil
import signal
import subprocess
import time
from collections.abc import Callable
from pathlib import Path

from . import programs
from .volumes import is_real_root, may_mount

NAMES = ("libtarnplatform1", "libtarndbud1", "tarndbud", "tarndbudpub")
"""What a device and a publisher need, in the order in which they depend on each other."""
OPTIONS = ("--force-confdef", "--force-confold", "--force-unsafe-io")
"""Nobody is there to answer questions. Without the last option the speed of the disk would be tried."""
SHIPPED = Path("usr/share/tarndbud/settings")
DEFAULTS = Path("usr/share/data_update/data_update.conf")
ADDED = "added.conf"
"""A settings file that only the later versions have."""
DPKG = Path("/usr/bin/dpkg")
PATIENCE_SECONDS = 600
"""dpkg syncs, which waits for whatever else the machine writes."""


def missing(built: Path) -> str:
    """Why packages cannot be installed here, or nothing."""
    if not (may_mount() and is_real_root()):
        return "no throwaway root of root's own"
    absent = [name for name in NAMES if len(list(built.glob(f"{name}_*.deb"))) != 1]
    return f"not in {built}: {', '.join(absent)}" if absent else ""


def repacked(package: Path, version: str, change: Callable[[Path], None], to: Path) -> Path:
    """The same package with a higher version and with files that are changed in its unpacked tree."""
    tree = to / "tree"
    shutil.rmtree(tree, ignore_errors=True)
    subprocess.run(["dpkg-deb", "--raw-extract", package, tree], check=True)
    control = tree / "DEBIAN/control"
    before = _field(package, "Version")
    text = control.read_text().replace(f"Version: {before}\n", f"Version: {version}\n")
    control.write_text(text.replace(f"(= {before})", f"(= {version})"))
    change(tree)
    _write_digests(tree)
    made = to / f"{_field(package, 'Package')}_{version}.deb"
    subprocess.run(
        ["dpkg-deb", "--root-owner-group", "-Znone", "--build", tree, made], check=True, stdout=subprocess.DEVNULL
    )
    shutil.rmtree(tree)
    return made


def _field(package: Path, name: str) -> str:
    command = ["dpkg-deb", "--field", package, name]
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout.strip()


def _write_digests(tree: Path) -> None:
    """dpkg --verify goes by them."""
    files = [path for path in sorted(tree.rglob("*")) if path.is_file() and not path.is_symlink()]
    lines = [
        f"{hashlib.md5(path.read_bytes()).hexdigest()}  {path.relative_to(tree)}\n"
        for path in files
        if not path.is_relative_to(tree / "DEBIAN")
    ]
    (tree / "DEBIAN/md5sums").write_text("".join(lines))


def with_other_settings(number: int) -> Callable[[Path], None]:
    """Every second version ships other settings and defaults, and from the third on a settings file more."""

    def change(tree: Path) -> None:
        settings = tree / SHIPPED
        if not settings.is_dir():
            return
        if number >= 3:
            (settings / ADDED).write_text(f"# Shipped by version {number}\n")
        if number % 2 == 0:
            for path in [path for path in settings.rglob("*") if path.is_file()]:
                path.write_text(f"{path.read_text()}# A default of version {number}\n")
            defaults = json.loads((tree / DEFAULTS).read_text())
            defaults["config"]["digest_threads"] = number % 3
            (tree / DEFAULTS).write_text(json.dumps(defaults))

    return change


def _run_ok(*arguments: str | Path) -> None:
    programs.run_ok(*arguments, patience=PATIENCE_SECONDS)


class Packages:
    """The programs of this machine, as packages whose version goes up."""

    def __init__(self, built: Path, home: Path) -> None:
        self._first = [next(built.glob(f"{name}_*.deb")) for name in NAMES]
        self._home = home
        self._current = self._first
        self._number = 0
        self._seconds = 1.0
        home.mkdir(parents=True)

    def begin(self) -> None:
        """The first version, on a machine that never had the programs."""
        self._purge()
        self._current, self._number = self._first, 0
        self.install()

    def _purge(self) -> None:
        _run_ok(DPKG, "--purge", *reversed(NAMES))

    @property
    def version(self) -> str:
        return _field(self._current[0], "Version")

    def make_next(self) -> None:
        """The next version; it is not installed yet."""
        self._number += 1
        place = self._home / str(self._number)
        place.mkdir()
        version = f"{_field(self._first[0], 'Version')}+{self._number}"
        if self._number > 1:
            shutil.rmtree(self._current[0].parent)
        change = with_other_settings(self._number)
        self._current = [repacked(package, version, change, place) for package in self._first]

    def _installation(self) -> list[str]:
        return [str(DPKG), *OPTIONS, "--install", *map(str, self._current)]

    def install(self) -> None:
        begin = time.monotonic()
        _run_ok(*self._installation())
        self._seconds = time.monotonic() - begin

    def installing(self) -> programs.Running:
        return programs.Running(self._installation())

    def install_killed(self, when: float) -> bool:
        """Ends the package manager and its scripts at a moment, from 0 to 1, of the time that they need."""
        patience = f"{when * self._seconds:.3f}"
        result = programs.run("/usr/bin/timeout", "--signal=KILL", patience, *self._installation())
        # timeout sends the signal to itself as well.
        assert result.status in (0, -signal.SIGKILL), str(result)
        return result.status != 0

    def finish(self) -> None:
        """What dpkg advises after it was ended, which fails for a package that was cut off itself; then all again."""
        programs.run(DPKG, *OPTIONS, "--configure", "--pending", patience=PATIENCE_SECONDS)
        self.install()

    def remove(self) -> None:
        _run_ok(DPKG, "--remove", *reversed(NAMES))

    def problems(self) -> list[str]:
        """What is not as the current version has it."""
        show = ["dpkg-query", "--show", "--showformat=${Package} ${Version} ${Status}\n", *NAMES]
        is_now = subprocess.run(show, capture_output=True, text=True).stdout.splitlines()
        wanted = [f"{name} {self.version} install ok installed" for name in sorted(NAMES)]
        changed = programs.run(DPKG, "--verify", *NAMES)
        audit = programs.run(DPKG, "--audit", *NAMES)
        return sorted(set(is_now) ^ set(wanted)) + changed.stdout.splitlines() + audit.stdout.splitlines()
