"""The whole test suite again and again, on the release build: a test that fails once in many rounds is found here.

Most rounds have as many tests at a time as there are processors; every fifth has twice as many, so that each test waits
for others. Full: 50 rounds; quick: 2, the second of them loaded. What
failing tests wrote is left in repetition.txt.
"""

import collections

import builds as frame
import suite
from report import Figure, Result

NAME = "repetition"
PROVES = "the test suite passes however often it is run, also on a machine under load"

ROUNDS = 50
QUICK_ROUNDS = 2
LOADED_EVERY = 5


def loads(builds):
    """For each round, how many tests run at a time."""
    if not builds.is_full:
        return [builds.jobs] * (QUICK_ROUNDS - 1) + [2 * builds.jobs]
    return [2 * builds.jobs if number % LOADED_EVERY == 0 else builds.jobs for number in range(1, ROUNDS + 1)]


def run(builds):
    builds.build("release")
    failures = collections.Counter()
    at_a_time = loads(builds)
    carried_out, loaded = 0, 0
    for number, jobs in enumerate(at_a_time, 1):
        outcomes = suite.carry_out(builds, "release", jobs)
        carried_out += len(outcomes)
        loaded += jobs > builds.jobs
        failed = [outcome for outcome in outcomes if not outcome.has_passed]
        failures.update(outcome.name for outcome in failed)
        with (builds.folder / "repetition.txt").open("a" if number > 1 else "w") as file:
            file.writelines(f"round {number}: {outcome.name}\n{outcome.output}\n" for outcome in failed)
        frame.progress(f"{NAME}: round {number} of {len(at_a_time)}, {sum(failures.values())} failures")
    result = Result([
        Figure("rounds of the suite", len(at_a_time)),
        Figure("rounds under load", loaded),
        Figure("tests carried out", carried_out),
        Figure("tests that failed", sum(failures.values())),
    ])
    result.findings += [f"{name} failed {count} times in {len(at_a_time)} rounds" for name, count in failures.items()]
    if carried_out < len(at_a_time):
        result.findings.append("there are no tests")
    return result
