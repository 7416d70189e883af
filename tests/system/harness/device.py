"""The device under test: its fixed paths, its configuration and its state."""

from __future__ import annotations

import fcntl
import json
import shutil
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

from . import programs

RUN = Path("/run/data_update")
STATUS = Path("/var/lib/data_update")
CACHE = Path("/var/cache/data_update")
DOCUMENT = CACHE / "database_info.json"
CONFIGURATION = Path("/usr/tarn/etc/data_update")
KEYS = Path("/usr/tarn/etc/codesign/6")
HOOKS = Path("/usr/tarn/etc/hooks")
VOLUMES = Path("/usr/tarn/etc/volumes.conf")
WGETRC = CONFIGURATION / "wgetrc"
DOWNLOADS = Path("/usr/tarn/etc/downloads.conf")
DEFAULTS = Path("/usr/share/data_update")
ROOT_DATABASES = Path("/var/db")
SETTINGS = ("data_update.conf", "databases.conf")
DATABASE = "timezones"
"""The database that the device fixtures configure."""
ROOT_DATABASE = "geo"
"""The database that tests install on the root file system."""


def empty(directory: Path) -> None:
    if directory.is_dir():
        for entry in directory.iterdir():
            if entry.is_dir() and not entry.is_symlink():
                shutil.rmtree(entry)
            else:
                entry.unlink()


class Device:
    def __init__(self, volume: Path | None, netloc: str) -> None:
        self.volume = volume
        self.netloc = netloc
        self.scheme = "http"
        self.databases: dict[str, dict[str, object]] = {}

    @staticmethod
    def reset(shipped: Path) -> None:
        """As a device is after its installation: no state, no settings of its own, no keys, no hooks."""
        for directory in (RUN, STATUS, CACHE, KEYS, HOOKS, ROOT_DATABASES / ROOT_DATABASE):
            empty(directory)
        if (ROOT_DATABASES / ROOT_DATABASE).is_dir():
            (ROOT_DATABASES / ROOT_DATABASE).rmdir()
        shutil.copyfile(shipped / "volumes.conf", VOLUMES)
        shutil.copyfile(shipped / "wgetrc", WGETRC)
        shutil.copyfile(shipped / "downloads.conf", DOWNLOADS)
        for name in SETTINGS:
            shutil.copyfile(shipped / name, DEFAULTS / name)
            (CONFIGURATION / name).unlink(missing_ok=True)

    def trust(self, public_key: Path) -> None:
        KEYS.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(public_key, KEYS / public_key.name)
        (KEYS / public_key.name).chmod(0o644)

    def add_database(self, name: str, reserve: int = 0, on_root: bool = False, scheduled: bool = True) -> None:
        self.databases[name] = {
            "format_version": "1",
            "min_rsv_space_inbytes": reserve,
            "install_dest": "%ROOTFS%" if on_root else "%VOLUME%",
            "auto_update": scheduled,
        }
        self.configure()

    def configure(self) -> None:
        service = {
            "cur_volume": str(self.volume) if self.volume else "",
            "db_ver": "1",
            "db_netloc": self.netloc,
            "download_scheme": self.scheme,
        }
        CONFIGURATION.mkdir(parents=True, exist_ok=True)
        (CONFIGURATION / "data_update.conf").write_text(json.dumps({"config": service}))
        (CONFIGURATION / "databases.conf").write_text(json.dumps(self.databases))

    def set(self, key: str, value: str) -> None:
        """Gives the service a setting beside those of configure()."""
        path = CONFIGURATION / "data_update.conf"
        settings = json.loads(path.read_text())
        settings["config"][key] = value
        path.write_text(json.dumps(settings))

    def list_volumes(self, *directories: Path, patterns: tuple[str, ...] = ("/volume*",)) -> None:
        lines = [f"pattern {pattern}\n" for pattern in patterns] + [f"directory {path}\n" for path in directories]
        VOLUMES.write_text("".join(lines))

    def use(self, volume: Path, *others: Path) -> None:
        """Takes a volume into use; the volumes that there are besides are listed as well."""
        self.volume = volume
        self.list_volumes(volume, *others)
        self.configure()

    def installed(self, name: str) -> Path:
        if self.databases[name]["install_dest"] == "%ROOTFS%":
            return ROOT_DATABASES / name
        assert self.volume is not None
        return self.volume / "@database/autoupdate" / name

    def mark(self, name: str) -> Path:
        """What stands while the files of a database are being replaced."""
        return STATUS / name / "replacing"

    def plan(self, name: str) -> Path:
        """What the replacement that is going on would need to be finished by another process."""
        return STATUS / name / "replacement"

    def temporary(self) -> Path:
        assert self.volume is not None
        return self.volume / "@tmp/data_update"

    def left_behind(self) -> list[Path]:
        """What lies in the temporary area, whether or not the area is there."""
        return list(self.temporary().glob("*"))

    def working_copy(self, name: str, file: str) -> Path:
        """Where patches are applied to a file of a database before it is installed."""
        return self.temporary() / f"{name}_sum" / file.replace("/", "_").replace(".", "_")

    def run(self, *arguments: str, env: dict[str, str] | None = None) -> programs.Result:
        return programs.run(programs.CTL, *arguments, env=env)

    def run_ok(self, *arguments: str) -> programs.Result:
        return programs.run_ok(programs.CTL, *arguments)

    def start(self, *arguments: str) -> programs.Running:
        return programs.Running([programs.CTL, *arguments])

    def update(self, name: str) -> programs.Result:
        """Asks the server again and updates, which must succeed."""
        self.forget_document()
        return self.run_ok("update", name)

    def forget_document(self) -> None:
        """Makes the next run ask the server again."""
        DOCUMENT.unlink(missing_ok=True)

    def version(self, name: str) -> int | None:
        """The installed version as recorded, None before the first installation."""
        path = STATUS / name / "version.json"
        return int(json.loads(path.read_text())["data_version"]) if path.exists() else None

    def recorded(self, name: str) -> dict[str, str]:
        statuses = json.loads((STATUS / name / "version.json").read_text())["file_statuses"]
        return {path: status["sha384_digest"] for path, status in statuses.items()}

    def status(self, name: str) -> dict[str, object]:
        entries = json.loads(self.run_ok("status", name, "--json").stdout)
        assert [entry["id"] for entry in entries] == [name]
        return entries[0]

    def lock_path(self, name: str) -> Path:
        return RUN / name

    @contextmanager
    def locked(self, name: str, shared: bool = False) -> Iterator[None]:
        """Holds one of the lock files, as another program would."""
        RUN.mkdir(parents=True, exist_ok=True)
        with self.lock_path(name).open("a") as stream:
            fcntl.flock(stream, (fcntl.LOCK_SH if shared else fcntl.LOCK_EX) | fcntl.LOCK_NB)
            yield

    def is_locked(self, name: str) -> bool:
        try:
            with self.locked(name):
                return False
        except BlockingIOError:
            return True

    def add_hook(self, name: str, script: str, path: str = "database_autoupdate/database_autoupdate/version_change") -> Path:
        hook = HOOKS / path / name
        hook.parent.mkdir(parents=True, exist_ok=True)
        hook.write_text(script)
        hook.chmod(0o755)
        return hook
