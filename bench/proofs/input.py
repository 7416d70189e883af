"""Everything that is read from elsewhere, changed at random under sanitizers.

Beyond what each promise says, no input may crash a reader, take more memory than MOST_MEMORY_MB or more time than
LONGEST_SECONDS, or break a rule of the language that the sanitizers know.

Builds the fuzz targets of tests/fuzz, and gives each a fair part of the time. What a target has found stays in
build/fuzz/corpus/NAME, so that the next run goes on from there; the input of a finding in build/fuzz/found/NAME. Counted
are the inputs that were executed, and the edges (jumps between blocks, as the compiler counts them, those of exceptions
included) of the reader's own sources that all inputs together have passed. As long as these sources and the target's
stay the same, and nothing is found, inputs and minutes are added to those of the earlier runs: hours come together in
any portions. What was found is tried again first.
"""

from __future__ import annotations

import os
import re
import shutil
import subprocess
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from hashlib import sha256
from pathlib import Path

from bench.proofs import Row, Trial

SOURCE = Path(__file__).resolve().parent.parent.parent
BUILD = SOURCE / "build/fuzz"
AT_ONCE = 2
BRIEF_SECONDS = 3
LONGEST_INPUT = 4096
LONGEST_SECONDS = 25
MOST_MEMORY_MB = 2560
KEPT_LINES = 40
MINUTES = "processor minutes"

FUNCTION = re.compile(r"^(?:UN)?COVERED_FUNC: hits: \d+ edges: (\d+)/(\d+) .*?([^/ ]+/(?:[^/ ]+/)*[^/ ]+\.cpp):\d+$", re.MULTILINE)
REASON = re.compile(r"A promise is broken: .*|.*runtime error: .*|ERROR: \w+: .*|\s+what\(\): .*")


@dataclass(frozen=True)
class Target:
    name: str
    promise: str
    readers: tuple[str, ...]
    """The sources whose edges are counted."""

    def digest(self) -> str:
        """Of what decides about an input: the reader, and the target with what all targets share."""
        code = [SOURCE / reader for reader in self.readers] + [SOURCE / f"tests/fuzz/{self.name}_fuzz.cpp"]
        headers = [path.with_suffix(".h") for path in code]
        files = [*code, *(path for path in headers if path.exists()), *sorted((SOURCE / "tests/fuzz").glob("*.h"))]
        return sha256(b"".join(sha256(path.read_bytes()).digest() for path in files)).hexdigest()


TARGETS = (
    Target("answer", "Of what a server answers to the HTTP client, a size and one printable line are taken", ("platform/tarncore/complaints.cpp", "host/library/package_size.cpp")),
    Target("conf", "downloads.conf and volumes.conf: what is taken is in its range", ("base/settings_lines.cpp", "platform/tarncore/download.cpp", "platform/tarnsdk/volume_list.cpp")),
    Target("cron", "A line of cron's table runs at a full minute soon, or is not understood", ("host/library/cron.cpp",)),
    Target("description", "A diff package's description names nothing outside of the directory and the package", ("dataupdate/internal/patch_description.cpp",)),
    Target("document", "The server's document is taken as it is, or refused with what is wrong in it", ("dataupdate/records.cpp", "host/library/checked_info_getter.cpp", "host/library/document_problem.cpp")),
    Target("frame", "A compressed frame fills exactly its room, or is refused", ("archive/codec.cpp",)),
    Target("head", "An archive's head and table are what lies in the file, or are refused", ("archive/head.cpp", "archive/file.cpp")),
    Target("kit", "A kit's parts are what its table says, or it is refused", ("kit/layout.cpp", "kit/reader.cpp", "kit/table.cpp")),
    Target("metadata", "A package is taken as what it says it is and was asked for as", ("archive/package_identity.cpp",)),
    Target("plan", "A plan of a replacement is believed whole or not at all", ("dataupdate/internal/replacement_plan.cpp",)),
    Target("record", "A record read entry by entry is what another parser finds", ("base/record_entries.cpp",)),
    Target("repository", "A document that the publisher takes is one that it writes", ("publisher/repository/document.cpp", "publisher/common/json_text.cpp")),
    Target("script", "A script changes its whole database or nothing, and leaves it sound", ("dataupdate/internal/sql_script.cpp",)),
    Target("settings", "Settings that the host lets pass can be used by the library", ("dataupdate/config.cpp", "dataupdate/service_config.cpp", "host/library/settings.cpp")),
    Target("state", "A database's records are understood or not, by both readers alike", ("dataupdate/large_record.cpp", "host/library/hold.cpp", "host/library/installed_files.cpp", "host/library/rejection.cpp", "host/terminal/progress_file.cpp")),
    Target("tar", "A tar's members stay in the destination", ("archive/extractor.cpp", "archive/members.cpp", "archive/payload.cpp")),
    Target("vcdiff", "A patch makes one result whatever the buffers, or is refused", ("decoder/code_table.cpp", "decoder/decode.cpp", "decoder/patch_header.cpp", "decoder/readers.cpp", "decoder/window.cpp")),
)  # fmt: skip


def build(trial: Trial) -> None:
    trial.say("building the fuzz targets")
    for command in (["cmake", "--preset", "fuzz"], ["cmake", "--build", "--preset", "fuzz", "--parallel", "2"]):
        result = subprocess.run(command, cwd=SOURCE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if result.returncode:
            raise RuntimeError("the fuzz targets cannot be built:\n" + result.stdout[-4000:])
    built = {path.name.removesuffix("_fuzz") for path in (BUILD / "tests/fuzz").glob("*_fuzz")}
    if forgotten := built ^ {target.name for target in TARGETS}:
        raise RuntimeError(f"fuzz targets that are not built, or have no row here: {', '.join(sorted(forgotten))}")


def program(target: Target) -> list[str]:
    return [str(BUILD / f"tests/fuzz/{target.name}_fuzz")]


def corpora(target: Target) -> list[str]:
    grown = BUILD / "corpus" / target.name
    grown.mkdir(parents=True, exist_ok=True)
    return [str(grown), str(SOURCE / "tests/fuzz/corpus" / target.name)]


@dataclass(frozen=True)
class Run:
    status: int
    output: str
    processor_seconds: float


def run(trial: Trial, arguments: list[str]) -> Run:
    """In memory where that is possible: most readers want files, and a disk would be all that is tried."""
    memory = Path("/dev/shm")
    scratch = memory if os.access(memory, os.W_OK) else trial.scratch
    with subprocess.Popen(
        arguments, cwd=SOURCE, env={**os.environ, "TMPDIR": str(scratch)}, stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT, text=True, errors="replace",
    ) as process:  # fmt: skip
        output = process.stdout.read()
        _, status, usage = os.wait4(process.pid, 0)
        process.returncode = os.waitstatus_to_exitcode(status)
    return Run(process.returncode, output, usage.ru_utime + usage.ru_stime)


def look(trial: Trial, target: Target, seconds: int) -> tuple[Run, list[str]]:
    """What the engine has done, and what it has found."""
    kept = BUILD / "found" / target.name
    kept.mkdir(parents=True, exist_ok=True)
    before = set(kept.iterdir())
    words = SOURCE / f"tests/fuzz/{target.name}.dict"
    arguments = [
        *program(target), f"-max_total_time={seconds}", f"-seed={trial.seed % (1 << 31) or 1}", f"-max_len={LONGEST_INPUT}",
        f"-timeout={LONGEST_SECONDS}", f"-rss_limit_mb={MOST_MEMORY_MB}", "-print_final_stats=1",
        f"-artifact_prefix={kept}/", *([f"-dict={words}"] if words.exists() else []), *corpora(target), str(kept),
    ]  # fmt: skip
    result = run(trial, arguments)
    if result.status == 0:
        return result, []
    reason = REASON.search(result.output)
    said = reason[0].strip() if reason else "\n".join(result.output.splitlines()[-KEPT_LINES:])
    inputs = [str(path.relative_to(SOURCE)) for path in sorted(set(kept.iterdir()) - before)]
    return result, [f"{target.name}: {said} ({', '.join(inputs) or 'no input was kept'})"]


def figure(pattern: str, text: str) -> int:
    found = re.findall(pattern, text)
    return int(found[-1]) if found else 0


def edges(trial: Trial, target: Target) -> tuple[int, int]:
    """Of the reader's sources, those that all inputs together pass, and all."""
    report = run(trial, [*program(target), "-runs=0", "-print_coverage=1", *corpora(target)]).output
    passed = [
        (int(some), int(all_of))
        for some, all_of, path in FUNCTION.findall(report)
        if any(path.endswith(reader) for reader in target.readers)
    ]
    return sum(some for some, _ in passed), sum(all_of for _, all_of in passed)


def earlier(trial: Trial, target: Target) -> Row:
    """What earlier runs have tried of the same sources without a finding."""
    nothing = Row(target.promise, 0, "inputs", [], target.name, {MINUTES: 0}, sources=target.digest())
    kept = [row for row in (trial.earlier or {"rows": []})["rows"] if row["where"] == target.name]
    if not kept:
        return nothing
    if kept[0].get("sources") != nothing.sources or kept[0]["wrong"]:
        trial.say(f"{target.name}: counts from zero, because its sources are others than before, or something was found")
        return nothing
    return Row(**kept[0])


def try_target(trial: Trial, target: Target, seconds: int) -> Row:
    before = earlier(trial, target)
    if trial.only and target.name not in trial.only:
        return before
    looked, wrong = look(trial, target, seconds)
    said = looked.output
    passed, of_all = edges(trial, target)
    executions = figure(r"stat::number_of_executed_units: (\d+)", said)
    trial.say(f"{target.name}: {executions} inputs, {passed} of {of_all} edges, {len(wrong)} findings")
    extra = {
        MINUTES: round(before.extra[MINUTES] + looked.processor_seconds / 60, 1), "features": figure(r" ft: (\d+)", said), "edges passed": passed, "edges": of_all,
        "inputs found": len(list((BUILD / "corpus" / target.name).iterdir())),
        "inputs in the tree": len(list((SOURCE / "tests/fuzz/corpus" / target.name).iterdir())),
        "memory, MB": figure(r"stat::peak_rss_mb:\s+(\d+)", said),
    }  # fmt: skip
    return Row(target.promise, before.tried + executions, "inputs", wrong, target.name, extra, sources=before.sources)


def prove(trial: Trial) -> list[Row]:
    if unknown := set(trial.only) - {target.name for target in TARGETS}:
        raise ValueError(f"no such fuzz target: {', '.join(sorted(unknown))}")
    if not shutil.which("llvm-symbolizer"):
        raise RuntimeError("llvm-symbolizer is missing, without which no edge is counted (scripts/install-packages fuzz)")
    build(trial)
    count = len(trial.only or TARGETS)
    seconds = BRIEF_SECONDS if trial.brief else max(1, int(trial.seconds * min(AT_ONCE, count) / count))
    trial.say(f"targets: {count}, {min(AT_ONCE, count)} at a time, {seconds} s each")
    with ThreadPoolExecutor(AT_ONCE) as pool:
        return list(pool.map(lambda target: try_target(trial, target, seconds), TARGETS))
