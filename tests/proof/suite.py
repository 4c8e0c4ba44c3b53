"""The test suite of a build, for the parts that run it or ask what it holds."""

import dataclasses
import json
import re
import xml.etree.ElementTree

import builds


@dataclasses.dataclass
class Outcome:
    name: str
    has_passed: bool
    output: str


def names(run, preset):
    """Of all tests that were found when the build was made."""
    listed = run.run(["ctest", "--test-dir", str(run.path(preset)), "--show-only=json-v1"], capture=True)
    if listed.returncode != 0:
        raise builds.Failed(f"the tests of {preset} cannot be listed")
    return [test["name"] for test in json.loads(listed.stdout)["tests"]]


def carry_out(run, preset, jobs, only=None, limit=3600):
    """The outcomes of all tests, or of those named in `only`. A test that fails is the caller's to judge."""
    results = run.folder / f"tests-{preset}.xml"
    results.unlink(missing_ok=True)
    command = ["ctest", "--test-dir", str(run.path(preset)), "--parallel", str(jobs), "--output-junit", str(results)]
    if only is not None:
        command += ["--tests-regex", "^(" + "|".join(re.escape(name) for name in only) + ")$"]
    run.run(command, limit=limit, capture=True)
    if not results.exists():
        raise builds.Failed(f"the tests of {preset} left no results")
    cases = xml.etree.ElementTree.parse(results).getroot().iter("testcase")
    return [Outcome(case.get("name"), case.get("status") == "run", case.findtext("system-out", "")) for case in cases]
