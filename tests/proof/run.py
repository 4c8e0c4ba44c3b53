"""Runs the proofs; scripts/proof tells how."""

import argparse
import importlib
import pathlib
import platform
import re
import subprocess
import sys

import builds
import report

# In the order in which they run and are reported. Each is a module of parts/ with NAME, PROVES and run(builds).
PARTS = ("records", "allocations", "calls", "boundaries", "coverage", "codec", "library", "limits", "repetition")


def part(name):
    return importlib.import_module(f"parts.{name}")


def first_line(*command):
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout.splitlines()[0]


def description(mode):
    header = (builds.TOP / "include" / "vekmsg" / "version.h").read_text()
    numbers = re.findall(r"VEKMSG_VERSION_(?:MAJOR|MINOR|PATCH) (\d+)", header)
    compilers = ", ".join(dict.fromkeys(first_line(name, "--version") for name in ("g++",)))
    return {"mode": mode, "version": ".".join(numbers), "compilers": compilers,
            "machine": f"{platform.machine()}, {platform.system()} {platform.release().split('-')[0]}"}


def prove(module, run):
    builds.progress(f"== {module.NAME}: {module.PROVES}")
    try:
        return builds.timed(module.run, run)
    except builds.Failed as failure:
        return report.Result(findings=[f"could not be carried out: {failure}"]), 0.0


def main():
    parser = argparse.ArgumentParser(prog="scripts/proof")
    parser.add_argument("--full", action="store_true")
    parser.add_argument("--only", action="append", choices=PARTS)
    parser.add_argument("--json", type=pathlib.Path)
    options = parser.parse_args()

    mode = "full" if options.full else "quick"
    folder = builds.TOP / "build" / "proof"
    folder.mkdir(parents=True, exist_ok=True)
    (folder / "build.log").unlink(missing_ok=True)
    run = builds.Builds(options.full, folder)

    outcomes = []
    for name in PARTS:
        if options.only is None or name in options.only:
            module = part(name)
            result, seconds = prove(module, run)
            outcomes.append((module, result, seconds))

    about = description(mode)
    written = report.to_json(outcomes, about)
    (folder / "proof.json").write_text(written)
    (folder / "proof.md").write_text(report.page(outcomes, about))
    if options.json:
        options.json.write_text(written)
    if options.full and options.only is None:
        (builds.TOP / "docs" / "proof.md").write_text(report.page(outcomes, about))

    print(report.table(outcomes))
    open_findings = sum(len(result.findings) for _, result, _ in outcomes)
    seconds = sum(seconds for _, _, seconds in outcomes)
    print(f"{mode}: {len(outcomes)} parts, {open_findings} open findings, {seconds:.0f} s")
    sys.exit(1 if open_findings else 0)


if __name__ == "__main__":
    main()
