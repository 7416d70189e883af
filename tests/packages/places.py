"""What stands where on the machine, and the documents that it is set up by."""

from __future__ import annotations

import json
import re
from pathlib import Path

from harness.documents import Document
from machine import Machine

SOURCE = Path(__file__).resolve().parents[2]
README = Document(SOURCE / "README.md")
OPERATIONS = Document(SOURCE / "docs/operations.md")
PUBLISHING = Document(SOURCE / "docs/publishing.md")
DATABASE = "zones"
TREE = Path("/srv/data/zones")
DATA = Path("/srv/databases")
SETTINGS = Path("/usr/tarn/etc")
RECORDS = Path("/var/lib/data_update")
PUBLISH = PUBLISHING.code("sh", "Every further version").partition("tarndbudpub inspect")[0].partition("\n")[2]
"""The command that publishes the next version, as the document has it."""


def installed(volume: Path = DATA) -> Path:
    return volume / "@database/autoupdate" / DATABASE


def status(machine: Machine) -> dict[str, object]:
    """All but the age, which does not stand still."""
    told: dict[str, object] = json.loads(machine.do(f"tarndbudctl status {DATABASE} --json"))[0]
    del told["age_seconds"]
    return told


def publish_a_change(machine: Machine) -> int:
    """Publishes a further version, of which devices know at once; its number."""
    machine.do(f"echo A line more. >> {TREE}/tzdata.zi\n{PUBLISH}\ntarndbudctl refresh")
    return int(str(status(machine)["remote_version"]))


def downloads(machine: Machine) -> list[str]:
    """The packages that devices have fetched so far."""
    log = machine.path("/var/log/nginx/access.log").read_text()
    return re.findall(r"GET /packages/\S+/(\S+?)(?:\?\S*)? HTTP", log)
