"""A full update as somebody would write it with stock tools, phase by phase."""

from __future__ import annotations

import shutil
from collections.abc import Callable
from pathlib import Path
from statistics import median

from harness.publisher import Publisher

from bench.tools import shell, timed

PHASES = {
    "download": 'wget -q "$LINK" -O "$V/package"; wget -q "$LINK.sig" -O "$V/package.sig"',
    "check": 'openssl pkeyutl -verify -pubin -inkey "$KEY" -rawin -in "$V/package" -sigfile "$V/package.sig"',
    "unpack": 'mkdir "$V/unpacked"; tar --zstd -xf "$V/package" -C "$V/unpacked"',
    "empty": 'rm -rf "$INSTALL"; mkdir -p "$INSTALL"',
    "copy": 'cp -r --reflink=auto "$V/unpacked/." "$INSTALL"',
    "sync": 'sync -f "$INSTALL"',
    "hash": 'find "$INSTALL" -type f -print0 | xargs -0 openssl dgst -sha384 >"$V/digests"',
    "clean": 'rm -rf "$V/unpacked" "$V/package" "$V/package.sig" "$V/digests"',
}

Phases = dict[str, float]


def make_package(tree: Path, publisher: Publisher, level: int) -> Path:
    package = publisher.repository / "packages/stock.tar.zst"
    shell(
        'tar -C "$TREE" --sort=name -cf - . | zstd "-$LEVEL" -T0 -q -f -o "$OUT"; '
        'openssl pkeyutl -sign -inkey "$KEY" -rawin -in "$OUT" -out "$OUT.sig"',
        TREE=tree, OUT=package, KEY=publisher.private_key, LEVEL=level,
    )  # fmt: skip
    return package


def update(volume: Path, publisher: Publisher, url: str, after: Callable[[str], None] = lambda _: None) -> Phases:
    """The seconds of each phase, over what is installed already; calls back after each."""
    variables = {"V": volume, "INSTALL": volume / "stock", "KEY": publisher.public_key, "LINK": f"{url}/packages/stock.tar.zst"}
    phases = {}
    for name, script in PHASES.items():
        phases[name] = timed(lambda script=script: shell(script, **variables))
        after(name)
    shutil.rmtree(volume / "stock")
    return phases


def print_phases(what: str, ours: list[Phases], peer: list[Phases] | None = None) -> None:
    for who, runs in (("ours", ours), ("stock tools", peer)):
        if runs:
            parts = [f"{name} {median(run[name] for run in runs):.3f}" for name in runs[0] if name != "total"]
            print(f"{what}: {who:11} {', '.join(parts)}")
