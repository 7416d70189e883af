"""The life of a device, day by day, with everything that happens in years."""

from __future__ import annotations

import json
import random
import shutil
import time
from collections import Counter
from dataclasses import dataclass, field
from pathlib import Path

from . import kept, programs
from .debian import Packages
from .device import CACHE, CONFIGURATION, DEFAULTS, DOCUMENT, KEYS, RUN, SETTINGS, STATUS, VOLUMES, Device, empty
from .kept import NAME, Kept
from .releases import Releases
from .syslog import Syslog
from .upgrades import Upgrades
from .webserver import Nginx

FIX_NEEDED = 4
NOBODY_LISTENS = "127.0.0.1:9"
KILLED_WITHIN = 0.12
"""Seconds, in which an update is done."""
LARGEST_FILLED = 256 << 20


@dataclass
class Growth:
    """What must not grow, of each update that installed a version: one that finds nothing new needs and logs less."""

    memory: list[float] = field(default_factory=list)
    files: list[float] = field(default_factory=list)
    bytes_each: list[float] = field(default_factory=list)
    """Of the record of all files, for each of these."""
    other_bytes: list[float] = field(default_factory=list)
    """Of all other records. The document is as long as the server has it."""
    lines: list[float] = field(default_factory=list)


class Life:
    """A device that begins as a release left it. What goes wrong becomes a line, and life goes on.

    With packages, its programs are theirs, and are upgraded; without, only the settings are written again that an
    installation brings.
    """

    def __init__(
        self,
        release: Kept,
        volumes: list[Path],
        shipped: Path,
        home: Path,
        source: random.Random,
        packages: Packages | None = None,
        upgrade_each: int = 30,
    ) -> None:
        self._source = source
        self._shipped = shipped
        repository = home / "repository"
        repository.mkdir(parents=True)
        self._server = Nginx(shipped.parent / "nginx/tarndbud.conf", repository, home / "nginx")
        release.repository(repository, self._server.netloc)
        if packages:
            packages.begin()
        Device.reset(shipped)
        release.device("full", self._server.netloc)
        self.releases = Releases(home, repository, release, source, self._server.url)
        self.volume = kept.VOLUME
        self._volumes = [kept.VOLUME, *volumes]
        self._syslog = Syslog() if Syslog.is_possible() else None
        self.counts: Counter[str] = Counter()
        self.growth = Growth()
        self.wrong: list[str] = []
        self.day = 0
        self._away_until = 0
        self._held_until = 0
        self._next_key_on = 90
        self.upgrades = Upgrades(packages, source, self._installed, self._update_to_newest) if packages else None
        self._upgrade_each = upgrade_each
        self._next_upgrade_on = upgrade_each // 2
        self._old_key_until: dict[Path, int] = {}

    def close(self) -> None:
        self._server.close()
        if self._syslog:
            self._syslog.close()
        kept.forget_device()

    def live(self, days: int) -> None:
        for _ in range(days):
            self.day += 1
            self._happen_to_the_publisher()
            self._happen_to_the_device()
            self._update()

    def end(self) -> None:
        """All is well at last, and the device comes to the newest version."""
        self.day = max(self.day + 1, self._away_until)
        if self.upgrades and self.upgrades.is_unfinished:
            self.upgrades.finish()
        if self._is_held():
            self._unhold()
        if self.releases.has_bad_one_out():
            self.releases.withdraw()
        self._update()

    # What happens

    def _chance(self, percent: float) -> bool:
        return self._source.random() * 100 < percent

    def _is_away(self) -> bool:
        return self.day < self._away_until

    def _is_held(self) -> bool:
        return self._held_until != 0

    def _happen_to_the_publisher(self) -> None:
        if self.releases.has_bad_one_out():
            if self._chance(60):
                self.releases.withdraw()
        elif self._chance(4):
            self.releases.publish_bad()
        elif self._chance(60):
            self.releases.publish()
        if self.day % 30 == 0:
            self.releases.tidy()
        if self.day >= self._next_key_on and not self.releases.has_bad_one_out():
            self._exchange_key()

    def _exchange_key(self) -> None:
        self._next_key_on += 180
        self._old_key_until[KEYS / self.releases.public_key.name] = self.day + 60
        self.releases.exchange_key()
        shutil.copyfile(self.releases.public_key, KEYS / self.releases.public_key.name)

    def _happen_to_the_device(self) -> None:
        for key in [key for key, day in self._old_key_until.items() if day <= self.day]:
            key.unlink()
            del self._old_key_until[key]
        if self._chance(3):
            self._away_until = self.day + self._source.randrange(1, 4)
            self.counts["outages"] += 1
        self._reach(not self._is_away())
        if self._chance(5):
            empty(RUN)
            self.counts["restarts"] += 1
        if self._is_held() and self.day >= self._held_until:
            self._unhold()
        elif not self._is_held() and self._chance(2):
            self._control("hold", NAME)
            self._held_until = self.day + self._source.randrange(2, 9)
            self.counts["holds"] += 1
        if self.day % 60 == 2:
            self._move()
        if self.upgrades:
            self._upgrade(self.upgrades)
        elif self.day % 90 == 45:
            self._write_settings_again()
        if not self._is_away() and not self._is_held() and self._chance(3):
            self._damage()

    def _unhold(self) -> None:
        self._control("unhold", NAME)
        self._held_until = 0

    def _move(self) -> None:
        others = [path for path in self._volumes if path != self.volume]
        VOLUMES.write_text("".join(f"directory {path}\n" for path in (*others, self.volume)))
        if self._is_marked():  # no half replaced database is moved
            self._ask("update", NAME)
        self._control("volume", "unmounting", str(self.volume))
        there = [path for path in self._volumes if self._installed(path).exists()]
        if len(there) != 1 or there == [self.volume]:
            self._say_wrong(f"the database is on {there} after a move from {self.volume}")
        self.volume = there[0]
        self._volumes.append(self._volumes.pop(0))
        self.counts["moves"] += 1

    def _upgrade(self, upgrades: Upgrades) -> None:
        if upgrades.is_unfinished:
            upgrades.finish()
        elif self.day >= self._next_upgrade_on:
            self._next_upgrade_on += self._upgrade_each
            upgrades.upgrade(may_update=not self._is_away() and not self._is_held())

    def _write_settings_again(self) -> None:
        for name in SETTINGS:
            shutil.copyfile(self._shipped / name, DEFAULTS / name)
        self.counts["settings written again"] += 1

    def _damage(self) -> None:
        if self._is_marked():
            return
        files = sorted(path for path in self._installed().rglob("*") if path.is_file() and path.stat().st_size)
        victim = files[self._source.randrange(len(files))]
        content = bytearray(victim.read_bytes())
        content[self._source.randrange(len(content))] ^= 1
        victim.write_bytes(content)
        if programs.run(programs.CTL, "check", NAME).status != FIX_NEEDED:
            self._say_wrong(f"check did not find that {victim} was changed")
        fixed = self._ask("fix", NAME)
        if fixed.status != 0:
            self._say_wrong(fixed)
        self._judge_state()
        self.counts["damages"] += 1

    # Updates

    def _update_to_newest(self) -> None:
        if not self.releases.has_bad_one_out():
            self.releases.publish()
        self._judge_newest(self._ask("update", NAME))

    def _update(self) -> None:
        self._reach(True)
        if self._chance(15):
            self._kill_an_update()
        if self._chance(4):
            self._update_on_a_full_disk()
        self._reach(not self._is_away())
        DOCUMENT.unlink(missing_ok=True)
        before, logged = self._recorded(), self._logged()
        result, memory = programs.peak_memory(programs.CTL, "update", NAME)
        self.counts["updates"] += 1
        if self._is_away() or self._is_held():
            self._judge_state()
        else:
            self._judge_newest(result)
            if self._recorded() != before:
                self._measure(memory, self._logged() - logged)

    def _reach(self, is_there: bool) -> None:
        path = CONFIGURATION / "data_update.conf"
        settings = json.loads(path.read_text())
        settings["config"]["db_netloc"] = self._server.netloc if is_there else NOBODY_LISTENS
        path.write_text(json.dumps(settings))

    def _ask(self, *arguments: str) -> programs.Result:
        """With the document too old, as it is after an hour."""
        DOCUMENT.unlink(missing_ok=True)
        return programs.run(programs.CTL, *arguments)

    def _kill_an_update(self) -> None:
        DOCUMENT.unlink(missing_ok=True)
        update = programs.Running([programs.CTL, "update", NAME])
        time.sleep(self._source.random() * KILLED_WITHIN)
        update.kill()
        update.wait()
        self._judge_state()
        self.counts["kills"] += 1

    def _update_on_a_full_disk(self) -> None:
        free = shutil.disk_usage(self.volume).free
        if free > LARGEST_FILLED:
            return
        filler = self.volume / "filler"
        filler.write_bytes(bytes(max(free - self._source.randrange(100_000, 400_000), 0)))
        self._ask("update", NAME)
        self._judge_state()
        filler.unlink()
        self.counts["full disks"] += 1

    # What must hold

    def _say_wrong(self, what: object) -> None:
        self.wrong.append(f"day {self.day}: {what}")

    def _control(self, *arguments: str) -> None:
        result = programs.run(programs.CTL, *arguments)
        if result.status != 0:
            self._say_wrong(result)

    def _installed(self, volume: Path | None = None) -> Path:
        return (volume or self.volume) / "@database/autoupdate" / NAME

    def _is_marked(self) -> bool:
        return (STATUS / NAME / "replacing").exists()

    def _recorded(self) -> int:
        return int(json.loads((STATUS / NAME / "version.json").read_text())["data_version"])

    def _judge_state(self) -> None:
        if not self._is_marked() and kept.content(self._installed()) != self.releases.contents[self._recorded()]:
            self._say_wrong(f"what is installed is not version {self._recorded()}, which is recorded")

    def _judge_newest(self, result: programs.Result) -> None:
        offered = self.releases.offered
        if result.status != 0:
            self._say_wrong(result)
        if self._recorded() != offered or self._is_marked():
            self._say_wrong(f"version {self._recorded()} is recorded after an update to {offered}")
        self._judge_state()
        temporary = self.volume / "@tmp/data_update"
        if temporary.exists() and any(temporary.iterdir()):
            self._say_wrong(f"left behind: {list(temporary.iterdir())}")
        if self.day % 7 == 0:
            self._control("check", NAME)

    def _logged(self) -> int:
        return len(self._syslog.lines()) if self._syslog else 0

    def _measure(self, memory: int, lines: int) -> None:
        files = [path for place in (STATUS, CACHE, RUN) for path in place.rglob("*") if path.is_file()]
        self.growth.memory.append(memory)
        self.growth.files.append(len(files))
        installed = sum(path.is_file() for path in self._installed().rglob("*"))
        sizes = {path: path.stat().st_size for path in files if path != DOCUMENT}
        self.growth.bytes_each.append(sizes.pop(STATUS / NAME / "installed_files.json", 0) / installed)
        self.growth.other_bytes.append(sum(sizes.values()))
        self.growth.lines.append(lines)
