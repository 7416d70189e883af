"""What comes with the programs: manual pages, completion, units."""

from __future__ import annotations

import re
import subprocess
from pathlib import Path

import pytest
from harness import programs, tracing
from harness.device import DATABASE, Device

MANUALS = Path("/usr/share/man")
POSTINST = Path(__file__).resolve().parents[2] / "packaging/debian/tarndbud.postinst"
UNITS = Path("/usr/lib/systemd/system")
COMPLETIONS = Path("/usr/share/bash-completion/completions")
PAGES = (
    "man1/tarndbudpub.1", "man1/tarndbudpub-mirror.1", "man3/TARNDBUDGetFileLock.3", "man3/TARNDBUDReleaseFileLock.3", "man5/data_update.conf.5",
    "man5/databases.conf.5", "man5/downloads.conf.5", "man8/tarndbudctl.8", "man8/tarndbudvcdiff.8",
)  # fmt: skip
PROGRAMS = {
    "tarndbudctl": (programs.CTL, "man8/tarndbudctl.8"),
    "tarndbudpub": (programs.PUB, "man1/tarndbudpub.1"),
    "tarndbudpub-mirror": (programs.MIRROR, "man1/tarndbudpub-mirror.1"),
    "tarndbudvcdiff": ("/usr/tarn/sbin/tarndbudvcdiff", "man8/tarndbudvcdiff.8"),
}
DESCRIBED_ONCE = {"--help", "--verbose", "--version"}


def rendered(page: str) -> str:
    """A page as plain text on one line."""
    text = subprocess.run(
        ["mandoc", "-T", "ascii", "-O", "width=500", str(MANUALS / page)], check=True, capture_output=True, text=True
    ).stdout
    return " ".join(re.sub(".\b", "", text).split())


def subcommands(help_text: str) -> list[str]:
    listed = help_text.partition("\nSubcommands:\n")[2].partition("\n\n")[0]
    return [line.split()[0] for line in listed.splitlines() if re.match(r"  \S", line)]


def vocabulary(program: str, *words: str) -> dict[tuple[str, ...], set[str]]:
    """For each command of a program, by its own help: its commands and long options."""
    text = programs.run_ok(program, *words, "--help").stdout
    commands = subcommands(text)
    found = {words: {*commands, *re.findall(r"^\s+(?:-\w,)?(--[a-z-]+)", text, re.MULTILINE)}}
    for command in commands:
        found |= vocabulary(program, *words, command)
    return found


def synopses(name: str, page: str) -> list[str]:
    """The usage of each command by the manual page, behind the program's name."""
    return rendered(page).partition(" SYNOPSIS ")[2].partition(" DESCRIPTION ")[0].split(f"{name} ")[1:]


def completed(program: str, *words: str) -> list[str]:
    """What is offered at the end of a command line."""
    script = (
        f'source {COMPLETIONS}/{program}; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _{program}; '
        "printf '%s\\n' \"${COMPREPLY[@]}\""
    )
    return programs.run_ok("/bin/bash", "-c", script, "-", program, *words).stdout.split()


@pytest.mark.parametrize("page", PAGES)
def test_manual_pages_are_clean(page: str) -> None:
    lint = subprocess.run(["mandoc", "-T", "lint", "-W", "warning", str(MANUALS / page)], capture_output=True, text=True)
    assert lint.stdout + lint.stderr == ""
    assert lint.returncode == 0


@pytest.mark.parametrize("name", PROGRAMS)
def test_manual_and_completion_know_every_command_and_option(name: str) -> None:
    program, page = PROGRAMS[name]
    manual = rendered(page)
    for words, offered in vocabulary(program).items():
        for word in offered - {"--version", "--help"}:
            assert word in manual.split() or word in re.split(r"[\s\[\]|.]+", manual), f"{word} in {page}"
        options = completed(name, *words, "-")
        known = {word for word in offered if word.startswith("--")}
        assert known - set(options) <= {"--version", "--verbose"}
        # The general ones may stand behind a command, whose help does not repeat them.
        assert set(options) - known <= {"--verbose", "--"}, f"{program} {words}"
        if subcommands(programs.run_ok(program, *words, "--help").stdout):
            assert {word for word in offered if not word.startswith("-")} <= set(completed(name, *words, ""))


@pytest.mark.parametrize("name", PROGRAMS)
def test_the_synopsis_gives_each_command_the_options_of_its_help(name: str) -> None:
    program, page = PROGRAMS[name]
    commands = vocabulary(program)
    leaves = [words for words in commands if not any(other[:-1] == words for other in commands if other)]
    usages = synopses(name, page)
    assert len(usages) == len(leaves) > 0
    for words in leaves:
        (usage,) = [usage for usage in usages if usage.split()[: len(words)] == list(words)]
        in_help = {word for word in commands[words] if word.startswith("--")} - DESCRIBED_ONCE
        assert set(re.findall(r"--[a-z][a-z-]*", usage)) == in_help, f"{name} {' '.join(words)}"


def test_completion_offers_the_configured_databases(device: Device) -> None:
    assert DATABASE in completed("tarndbudctl", "update", "")
    assert completed("tarndbudctl", "fix", DATABASE[:3]) == [DATABASE]
    assert completed("tarndbudctl", "schedule", DATABASE, "o") == ["on", "off"]
    assert "true" in completed("tarndbudctl", "read", DATABASE, "--", "tru")


def test_units_are_sound(tmp_path: Path) -> None:
    mount = tmp_path / "volume1.mount"
    mount.write_text("[Unit]\nDescription=x\n[Mount]\nWhat=/dev/null\nWhere=/volume1\n")
    instance = tmp_path / "tarndbud-volume@volume1.service"
    instance.write_text((UNITS / "tarndbud-volume@.service").read_text())
    units = [UNITS / f"tarndbud-{name}" for name in ("init.service", "update.service", "update.timer")]
    verified = programs.run("systemd-analyze", "verify", "--man=no", *units, mount, instance)
    ours = [line for line in (verified.stdout + verified.stderr).splitlines() if "tarndbud" in line]
    assert ours == []
    assert verified.status == 0, str(verified)


def test_the_directory_of_locks_can_be_written_by_root_alone() -> None:
    lines = Path("/usr/lib/tmpfiles.d/tarndbud.conf").read_text().splitlines()
    entries = {line.split()[1]: line.split()[2:5] for line in lines if not line.startswith("#")}
    assert entries["/run/data_update"] == ["0755", "root", "root"]
    subprocess.run(["systemd-tmpfiles", "--create", "/usr/lib/tmpfiles.d/tarndbud.conf"], check=True)
    status = Path("/run/data_update").stat()
    assert (status.st_mode & 0o7777, status.st_uid) == (0o755, 0)


def test_the_directory_of_databases_outside_volumes_is_made_once(tmp_path: Path) -> None:
    """A service that is confined to its directories cannot make it; its mode is the administrator's afterwards."""
    settings = tmp_path / "usr/lib/tmpfiles.d/tarndbud.conf"
    settings.parent.mkdir(parents=True)
    settings.write_text(Path("/usr/lib/tmpfiles.d/tarndbud.conf").read_text())
    command = ["systemd-tmpfiles", f"--root={tmp_path}", "--create", "--prefix=/var/db"]
    subprocess.run(command, check=True)
    directory = tmp_path / "var/db"
    assert directory.stat().st_mode & 0o7777 == 0o755
    directory.chmod(0o700)
    subprocess.run(command, check=True)
    assert directory.stat().st_mode & 0o7777 == 0o700


@pytest.mark.skipif(not tracing.is_possible(), reason="other programs cannot be traced here")
def test_settings_of_the_packages_get_their_names_when_they_are_on_the_disk(tmp_path: Path) -> None:
    shipped, settings = tmp_path / "shipped", tmp_path / "settings"
    (shipped / "data_update").mkdir(parents=True)
    files = [shipped / "volumes.conf", shipped / "data_update/wgetrc"]
    for file in files:
        file.write_text("# a setting\n")
    script = POSTINST.read_text().replace("/usr/share/tarndbud/settings", str(shipped))
    script = script.replace("/usr/tarn/etc", str(settings)).replace("#DEBHELPER#", "")
    report = tmp_path / "report"
    calls = ["strace", "-f", "-y", "-qq", "-o", str(report), "-e", "trace=?fsync,?rename,?renameat,?renameat2"]
    programs.run_ok(*calls, "/bin/sh", "-c", script, "postinst", "configure")
    lines = report.read_text().splitlines()
    for file in files:
        assert (settings / file.relative_to(shipped)).read_text() == "# a setting\n"
        done = [line.split()[1].partition("(")[0] for line in lines if f"{file.name}.dpkg-new" in line]
        assert [call[:6] for call in done] == ["fsync", "rename"], file
