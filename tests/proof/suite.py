"""The test suite of a build, for the parts that carry it out."""

import dataclasses
import re
import xml.etree.ElementTree

import builds


@dataclasses.dataclass
class Outcome:
    name: str  # a test with parameters has the same name for all of them
    has_passed: bool
    output: str


def plain_name(name):
    match = re.match(r"(?:\w+/)?(\w+\.\w+)", name)
    return match.group(1) if match else name


def carry_out(run, preset, jobs, only=None, limit=3600):
    """The outcomes of all tests, or of those named in `only`. A test that fails is the caller's to judge."""
    results = run.folder / f"tests-{preset}.xml"
    results.unlink(missing_ok=True)
    command = ["ctest", "--test-dir", str(run.path(preset)), "--parallel", str(jobs), "--output-junit", str(results)]
    if only is not None:
        names = "|".join(re.escape(name) for name in sorted(only))
        command += ["--tests-regex", f"^([A-Za-z0-9_]+/)?({names})(/.*)?$"]
    run.run(command, limit=limit, capture=True)
    if not results.exists():
        raise builds.Failed(f"the tests of {preset} left no results")
    cases = xml.etree.ElementTree.parse(results).getroot().iter("testcase")
    return [Outcome(plain_name(case.get("name")), case.get("status") == "run",
                    ended(case) + case.findtext("system-out", ""))
            for case in cases]


def ended(case):
    """How a failing test ended: a signal or the time limit shows nowhere else."""
    failure = case.find("failure")
    return f"{failure.get('message')} after {case.get('time')} s\n" if failure is not None else ""
