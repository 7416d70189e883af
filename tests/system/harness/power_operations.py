"""All that is done while the power may go, by name."""

from __future__ import annotations

from . import tracing
from .device import DATABASE
from .power_cuts import Operation
from .power_kits import Export, Import
from .power_mirroring import Mirroring
from .power_publishing import Publishing
from .power_site import Site
from .power_updates import OLD, BroadChain, Finishing, Fix, Forced, Move, Settings, Update

OPERATIONS: dict[str, Operation] = {
    operation.name: operation
    for operation in (
        Update("install", installs=True),
        Update("chain"),
        Update("chain, whole directories", chain=BroadChain),
        Update("fallback", without=("d3",)),
        *[Finishing("finishing")] * tracing.is_possible(),
        Fix("fix", command=("fix", DATABASE)),
        Forced("forced install", command=("force-install", DATABASE, str(OLD))),
        Move("volume move"),
        Settings("orders"),
        Publishing("publishing", other=False),
        Publishing("publishing, another tree next", other=True),
        Import("import"),
        Export("export"),
        Site("pages"),
        Mirroring("mirror"),
    )
}


def recovered() -> list[Operation]:
    """Those whose recovery is cut as well: the others are made good by the same commands."""
    names = ("install", "chain", "finishing", "fix", "forced install", "volume move", "publishing", "import", "pages")
    return [OPERATIONS[name] for name in names if name in OPERATIONS]
