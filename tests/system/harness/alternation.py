"""A database that goes back and forth between two versions, for whoever reads it meanwhile."""

from __future__ import annotations

from pathlib import Path

from . import trees, views
from .device import DATABASE, STATUS, Device
from .publisher import Publisher
from .webserver import Nginx


class Alternation:
    """Replaces version 1 by version 2 with a diff package, and that by version 1 with a full one, over and over."""

    def __init__(self, device: Device, publisher: Publisher, nginx: Nginx, place: Path) -> None:
        self._device, self._publisher, self._nginx = device, publisher, nginx
        self._documents: list[bytes] = []
        self.replacements = 0
        for version in (1, 2):
            tree = trees.write_tree(place, views.files(version))
            publisher.publish(tree, DATABASE, keep_diffs=1)
            self._documents.append(publisher.document.read_bytes())
        self._install_first()

    def cycle(self) -> None:
        self._install(2)
        self._install_first()

    def _install_first(self) -> None:
        # What nothing is recorded of is installed whole, whatever lies there.
        (STATUS / DATABASE / "version.json").unlink(missing_ok=True)
        self._install(1)

    def _install(self, version: int) -> None:
        self._publisher.document.write_bytes(self._documents[version - 1])
        self._device.update(DATABASE)
        self.replacements += 1

    def packages(self) -> set[str]:
        return set(self._nginx.packages())
