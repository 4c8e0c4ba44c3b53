"""Every limit of the library: what happens just below, at and just above it.

docs/limits.md names them all, each with the tests that hold it. This part compares the page with the tests of the
release build and with every number in the source, and carries out the tests that the page names: on 64 bit, in the full
run on 32 bit too.
"""

import sys

import builds as frame
import suite
from report import Figure, Result

sys.path.insert(0, str(frame.TOP / "tests" / "packaging"))
import limits_page_test as page  # noqa: E402

NAME = "limits"
PROVES = "every limit is documented, and what happens below, at and above it is held by tests"


def compare(builds):
    found, figures = page.checked(builds.path("release"), frame.TOP)
    return Result([
        Figure("limits listed", figures["limits"]),
        Figure("limits with a test", figures["covered"], of=figures["limits"]),
        Figure("tests found that the page names", figures["found"], of=figures["named"]),
        Figure("numbers and constants in the source, each on the page", figures["numbers"]),
    ], found)


def carry_out(builds, bits):
    named = page.page_of(frame.TOP).all_tests()
    outcomes = suite.carry_out(builds, frame.PRESETS[bits], builds.jobs, named)
    failed = sorted({outcome.name for outcome in outcomes if not outcome.has_passed})
    passed = {outcome.name for outcome in outcomes} - set(failed)
    missing = sorted(named - passed - set(failed))
    return Result([Figure("tests of limits that passed", len(passed), of=len(named), bits=bits)],
                  [f"{name} failed ({bits} bit)" for name in failed] +
                  [f"{name} was not carried out ({bits} bit)" for name in missing])


def run(builds):
    widths = (64, 32) if builds.is_full else (64,)
    for bits in widths:
        builds.build(frame.PRESETS[bits])
    result = compare(builds)
    for bits in widths:
        result.add(carry_out(builds, bits))
    return result
