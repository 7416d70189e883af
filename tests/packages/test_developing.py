"""Programs of others are built against the development packages."""

from __future__ import annotations

import pytest
from machine import Machine
from places import DATABASE, FILE, LINKING, installed

EXAMPLES = "/usr/share/doc/libtarndbud-dev/examples"
HEADERS = {"c": ("libtarnplatform-dev",), "c++": ("libtarnplatform-dev", "libtarndbud-dev")}


@pytest.fixture(scope="module")
def desk(machine: Machine) -> Machine:
    machine.do("apt-get install ./build/packages/*.deb")
    return machine


@pytest.mark.parametrize("language", HEADERS)
def test_every_header_is_complete_in_itself(desk: Machine, language: str) -> None:
    listed = desk.do(f"dpkg-query --listfiles {' '.join(HEADERS[language])} | grep '\\.h$'").split()
    assert listed
    options = f"-x {language} -std={'c11' if language == 'c' else 'c++17'} $(pkg-config --cflags tarndbud)"
    desk.do(f"for header in {' '.join(listed)}; do gcc {options} -Wall -Werror -fsyntax-only $header; done")


def test_the_documents_line_builds_a_host_that_runs(desk: Machine) -> None:
    (line,) = LINKING.blocks("sh", "A host program")
    desk.do(line + "./host\n")


def test_the_examples_are_built_by_find_package_and_read(desk: Machine) -> None:
    desk.do(f"cp -r {EXAMPLES} own && cmake -S own/consumer -B own/build && cmake --build own/build && own/build/host")
    path = installed() / FILE
    read = desk.do(f"own/build/reader {DATABASE} 10 {path} | cmp - {path} && echo same")
    assert read == "same\n"


def test_a_reader_in_c_is_built_by_pkg_config(desk: Machine) -> None:
    desk.do(f"gcc -std=c11 {EXAMPLES}/reader.c $(pkg-config --cflags --libs tarndbud) -o reader")
    assert desk.try_to("./reader").status == 2
