"""What stands where on the machine, and the documents that it is set up by."""

from __future__ import annotations

import json
import re
from pathlib import Path

from harness.documents import Document
from machine import Machine

SOURCE = Path(__file__).resolve().parents[2]
LINKING = Document(SOURCE / "docs/linking.md")
OPERATIONS = Document(SOURCE / "docs/operations.md")
PUBLISHING = Document(SOURCE / "docs/publishing.md")
DATABASE = "zones"
TREE = Path("/srv/data/zones")
FILE = "Zurich"
"""One of the tree's files."""
DATA = Path("/srv/databases")
SETTINGS = Path("/usr/tarn/etc")
RECORDS = Path("/var/lib/data_update")


def publishing(heading: str) -> str:
    """The document's commands, for a machine that is server and device and so needs no certificate."""
    return PUBLISHING.code("sh", heading).replace("https://updates.example.org", "http://updates.example.org:8080")


PUBLISH = publishing("Every further version").partition("tarndbudpub inspect")[0].partition("\n")[2]
"""The command that publishes the next version."""


def configuration() -> str:
    """The document's commands, for a server that this machine runs itself."""
    there, here = '"https", "db_netloc": "updates.example.org"', '"http", "db_netloc": "updates.example.org:8080"'
    commands = OPERATIONS.code("sh", "Configuring")
    assert there in commands
    return commands.replace(there, here)


def installed(volume: Path = DATA) -> Path:
    return volume / "@database/autoupdate" / DATABASE


def status(machine: Machine) -> dict[str, object]:
    """All but the age and the next run, which do not stand still; a timer knows of none while its service runs."""
    told: dict[str, object] = json.loads(machine.do(f"tarndbudctl status {DATABASE} --json"))[0]
    del told["age_seconds"]
    told.pop("next_run", None)
    return told


def publish_a_change(machine: Machine) -> int:
    """Publishes a further version, of which devices know at once; its number."""
    machine.do(f"echo A line more. >> {TREE}/{FILE}\n{PUBLISH}\ntarndbudctl refresh")
    return int(str(status(machine)["offered_version"]))


def downloads(machine: Machine) -> list[str]:
    """The packages that devices have fetched so far."""
    log = machine.path("/var/log/nginx/access.log").read_text()
    return re.findall(r"GET /packages/\S+/(\S+?)(?:\?\S*)? HTTP", log)
