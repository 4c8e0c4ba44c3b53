"""The builds that proofs run on, each made at most once in a run, and the running of their programs."""

import os
import pathlib
import subprocess
import sys
import time

import report

TOP = pathlib.Path(__file__).resolve().parents[2]
PRESETS = {64: "release", 32: "m32"}
PACKAGES = {
    "release": ["g++", "cmake", "ninja-build", "pkg-config", "libgtest-dev"],
    "m32": ["g++", "cmake", "ninja-build", "pkg-config", "g++-multilib", "googletest"],
    "coverage": ["clang-19", "libclang-rt-19-dev", "llvm-19", "g++", "cmake", "ninja-build", "pkg-config",
                 "libgtest-dev"],
    "m32-coverage": ["clang-19", "libclang-rt-19-dev", "llvm-19", "cmake", "ninja-build", "pkg-config",
                     "g++-multilib", "googletest"],
}


class Failed(Exception):
    """A proof could not be carried out: a build or a program failed."""


def progress(text):
    print(text, file=sys.stderr, flush=True)


class Builds:
    """`is_full` tells a part whether everything is asked for, or what fits into the quick run. `folder` is for what a
    part wants to leave behind: listings, profiles."""

    def __init__(self, is_full, folder):
        self.is_full = is_full
        self.folder = folder
        self.jobs = os.cpu_count() or 1
        self._configured = set()
        self._built = set()

    def path(self, preset):
        return TOP / "build" / preset

    def library(self, bits):
        """The shared library as it is delivered."""
        self.build(PRESETS[bits], "vekmsg")
        return self.path(PRESETS[bits]) / "src" / "libvekmsg.so"

    def static_library(self, bits):
        """The same, of which nothing is optimised across its sources."""
        self.build(PRESETS[bits], "vekmsg_static")
        return self.path(PRESETS[bits]) / "src" / "libvekmsg.a"

    def build(self, preset, target="all"):
        if preset not in self._configured:
            self.install(*PACKAGES[preset])
            self._command(["cmake", "--preset", preset])
            self._configured.add(preset)
        if (preset, target) not in self._built and (preset, "all") not in self._built:
            progress(f"building {target} ({preset})")
            self._command(["cmake", "--build", "--preset", preset, "--target", target, "--parallel", str(self.jobs)])
            self._built.add((preset, target))

    def install(self, *packages):
        self._command([str(TOP / "scripts" / "install-packages"), *packages])

    def proof(self, bits, target, *arguments, limit=1800, listing=None):
        """Builds a program of tests/proof, runs it and reads the result that it writes to its --json file; what it
        shows on standard error is shown. What it prints goes to the file `listing`, where one is named. Exit code 0 or
        1 means that it came to its end."""
        preset = PRESETS[bits]
        self.build(preset, target)
        output = self.folder / f"{target}-{bits}.json"
        output.unlink(missing_ok=True)
        program = self.path(preset) / "tests" / "proof" / target
        command = [str(program), *arguments, "--json", str(output)]
        if listing is None:
            done = self.run(command, limit=limit)
        else:
            with (self.folder / listing).open("w") as lines:
                done = self.run(command, limit=limit, output=lines)
        if done.returncode not in (0, 1) or not output.exists():
            raise Failed(f"{target} ({bits} bit) ended with {done.returncode}")
        result = report.from_json(output.read_text())
        for figure in result.figures:
            figure.bits = bits
        result.findings = [f"{finding} ({bits} bit)" for finding in result.findings]
        return result

    def run(self, command, limit=600, environment=None, capture=False, output=sys.stderr):
        """Runs a command to its end within `limit` seconds. A failure is the caller's to judge."""
        try:
            return subprocess.run(command, cwd=TOP, timeout=limit, stdin=subprocess.DEVNULL, text=True,
                                  env={**os.environ, **(environment or {})},
                                  stdout=subprocess.PIPE if capture else output,
                                  stderr=subprocess.PIPE if capture else None)
        except subprocess.TimeoutExpired as late:
            raise Failed(f"{command[0]} did not end within {limit} s") from late

    def _command(self, command):
        log = self.folder / "build.log"
        with log.open("a") as output:
            done = subprocess.run(command, cwd=TOP, stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT)
        if done.returncode != 0:
            raise Failed(f"{' '.join(command)} failed with {done.returncode}: see {log.relative_to(TOP)}")


def timed(function, *arguments):
    start = time.monotonic()
    return function(*arguments), time.monotonic() - start
