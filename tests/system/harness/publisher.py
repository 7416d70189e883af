"""The publisher's side: a key, a repository, and its server's address."""

from __future__ import annotations

import json
from pathlib import Path

from . import programs


class Publisher:
    def __init__(self, home: Path, base: str = "http://127.0.0.1") -> None:
        self.repository = home / "repository"
        self.repository.mkdir(parents=True)
        self.base = base
        self.patience = programs.PATIENCE_SECONDS
        self._key = home / "release"
        programs.run_ok(programs.PUB, "keygen", self._key)

    @property
    def private_key(self) -> Path:
        return self._key.with_suffix(".key")

    @property
    def public_key(self) -> Path:
        return self._key.with_suffix(".pub")

    def sign_with(self, key: Path) -> Path:
        """Signs with another key from now on; the key before, both without a suffix."""
        before, self._key = self._key, key
        return before

    @property
    def document(self) -> Path:
        return self.repository / "database_info/1"

    def publish(
        self, tree: Path, name: str, *options: str, base: str | None = None, keep_diffs: int = 0
    ) -> programs.Result:
        """Without diff packages unless some are kept: most tests are about full ones."""
        return programs.run_ok(
            programs.PUB, "publish", tree, "--repo", self.repository, "--id", name, "--key", self.private_key,
            "--url", base or self.base, "--keep-diffs", str(keep_diffs), *options, patience=self.patience,
        )  # fmt: skip

    def withdraw(self, name: str, *options: str, keep_diffs: int = 30) -> programs.Result:
        return programs.run_ok(
            programs.PUB, "withdraw", name, "--repo", self.repository, "--key", self.private_key,
            "--keep-diffs", str(keep_diffs), *options,
        )  # fmt: skip

    def package(self, name: str, version: int) -> Path:
        return self.repository / f"packages/{name}/{name}_v{version}.tarn"

    def entry(self, name: str) -> dict[str, object]:
        return json.loads(self.document.read_text())["db_list"][name]

    def link_to(self, name: str, link: str) -> None:
        """Changes a database's link in the document, as somebody between server and device could."""
        document = json.loads(self.document.read_text())
        document["db_list"][name]["download_link"] = link
        self.document.write_text(json.dumps(document))
