"""Many processes at once, of every command that works on the databases, while versions come and files are damaged."""

from __future__ import annotations

import os
import random
from pathlib import Path

from harness import crowd, databases, manifests, trees
from harness.crowd import Crowd
from harness.damage import Damages
from harness.device import CACHE, DATABASE, ROOT_DATABASE, RUN, STATUS, Device
from harness.publisher import Publisher
from harness.webserver import Nginx

PROCESSES = 64
SECONDS = float(os.environ.get("TARN_CROWD_SECONDS", "60"))
VERSIONS = 6
WITHOUT_DIFF = 4
"""The version to which only the full package leads."""
SOUND = "names"
"""The database that is never damaged."""
IDS = (DATABASE, SOUND, ROOT_DATABASE)


class Publication:
    """Publishes one version after the other of every database."""

    def __init__(self, publisher: Publisher, place: Path) -> None:
        self._publisher = publisher
        self._place = place
        self.version = 0

    def next(self) -> None:
        self.version += 1
        for name in IDS:
            manifests.write(self.tree(name), name, self.version)
            keep = 0 if self.version == WITHOUT_DIFF else VERSIONS
            # Beside so many processes, thorough compression would leave time for one version only.
            self._publisher.publish(self.tree(name), name, "--level", "1", keep_diffs=keep)

    def tree(self, name: str) -> Path:
        return self._place / f"{name} {self.version}"


def assert_installed(root: Path, tree: Path, version: int) -> None:
    """Exactly the published tree; a database's content, for scripts need not give the same bytes."""
    assert manifests.version(root, may_be_damaged=False) == version
    assert databases.content(root / manifests.TABLE) == databases.content(tree / manifests.TABLE)
    published, installed = trees.contents(tree), trees.contents(root)
    del published[manifests.TABLE], installed[manifests.TABLE]
    assert installed == published


def assert_nothing_left(device: Device) -> None:
    """No process, no lock that is held, and no file but those that stay."""
    assert crowd.programs_left() == []
    locks = {f"update_{name}.lock" for name in IDS} | {f"using_{name}.lock" for name in IDS}
    locks |= {"update_any.lock", "fresh_info.lock", "config.lock"}
    assert {path.name for path in RUN.iterdir()} == locks
    assert [name for name in locks if device.is_locked(name)] == []
    assert sorted(path.name for path in CACHE.iterdir()) == ["database_info.json"]
    # Which of them failed on the way is a matter of chance.
    records = sorted(str(path.relative_to(STATUS)) for path in STATUS.rglob("*") if path.name != "last_failure.json")
    files = ("last_run", "version", "installed_files", "installed_in", "installed_package")
    assert records == sorted([*IDS, *(f"{name}/{file}.json" for name in IDS for file in files)])
    assert device.volume is not None
    assert {path.name for path in device.volume.iterdir()} <= {"@database", "@tmp"}
    assert list(device.volume.glob("@tmp/data_update/*")) == []
    assert {path.name for path in device.installed(DATABASE).parent.iterdir()} == {DATABASE, SOUND}


def test_64_processes_at_once_for_a_minute_leave_exactly_what_was_published(
    connected: Device, publisher: Publisher, nginx: Nginx, tmp_path: Path
) -> None:
    seed = int(os.environ.get("TARN_SEED", random.SystemRandom().randrange(1 << 32)))
    print(f"TARN_SEED={seed}")
    connected.add_database(SOUND)
    connected.add_database(ROOT_DATABASE, on_root=True)
    publication = Publication(publisher, tmp_path / "trees")
    publication.next()
    connected.run_ok("update")
    damages = Damages(connected, seed)
    people = Crowd(connected, IDS, damages, seed)

    def publish() -> None:
        while publication.version < VERSIONS and people.pause(SECONDS / (2 * VERSIONS)):
            publication.next()

    def damage() -> None:
        number = 0
        while people.pause(SECONDS / 30):
            name = (DATABASE, ROOT_DATABASE)[number % 2]
            damages.damage(name)
            while not damages.is_mended(name) and people.pause(0.1):
                pass
            number += 1

    people.run(PROCESSES, SECONDS, [publish, damage])
    print(f"ended: {sorted(people.ended.items())}; packages: {nginx.packages()}; damages: {damages.spans}")
    people.assert_all_well()
    people.assert_no_step_back()
    assert len({sight.version for sight in people.sights[SOUND]}) > 1, "readers saw updates"
    assert {package[0] for package in nginx.packages()} == {"d", "v"}
    connected.run_ok("refresh")
    connected.run_ok("fix")
    connected.run_ok("update")
    for name in IDS:
        assert connected.version(name) == publication.version
        assert_installed(connected.installed(name), publication.tree(name), publication.version)
    assert sorted(connected.run_ok("check").stdout.splitlines()) == sorted(f"{name}: ok" for name in IDS)
    assert_nothing_left(connected)
