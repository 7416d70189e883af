#!/usr/bin/python3
"""Holds tests/attacks.json, the attacks that are tried in every run, against the tests that exist.

usage: attacks_check.py [--write] BUILD_DIRECTORY [CHECKOUT]

Each attack names tests: "Suite.Test" of GoogleTest, or "tests/system/test_x.py::test_y". Fails for an attack without a
test, for a test that does not exist or is disabled, and when docs/proof/attacks.json, from which the page is made, does
not hold these attacks; --write writes that file. Exit status: 0 all right, 1 not, 2 usage.
"""

from __future__ import annotations

import sys

from held_table import Row, Table, check, shown


def line(attack: Row) -> Row:
    return {
        "attacker": attack["attacker"], "class": attack["attack"], "tried": shown(attack["tests"]),
        "result": attack["result"],
    }  # fmt: skip


ATTACKS = Table("attacks", "tests", lambda attack: attack["attack"], line)

if __name__ == "__main__":
    sys.exit(check(ATTACKS, sys.argv[1:]))
