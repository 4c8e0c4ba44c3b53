"""A second decoder and encoder of the wire form, written from docs/wire-format.md alone, against the library.

wire_codec.py is that codec. wire_cases.py makes payloads, items, messages, whole streams and things to be written:
well-formed ones, odd ones that a reader has to take, and damaged ones. codec_pipe has the finished library deal with
each, by its public interface and over local sockets, and answers with what was decoded, sent and passed on to the byte,
what was refused, and all records. wire_answers.py says what the second codec makes of the same case. All has to be
equal, and each record that the page shows has to be among those compared.

Cases come in runs of a thousand. The same seed and number give the same run, on every machine and for 64 and 32 bit:

    VEKMSG_CODEC_SEED=2 scripts/proof --only codec                      other cases
    VEKMSG_CODEC_SEED=2 VEKMSG_CODEC_RUN=17 scripts/proof --only codec  run 17 of these alone

Each difference is written to build/proof/codec-BITS-SEED-RUN-CASE.txt, the case and both answers in hexadecimal."""

import collections
import concurrent.futures
import os
import sys

import wire_compare
from builds import PRESETS, progress
from report import Figure, Result

NAME = "codec"
PROVES = "a second codec, written from the wire page alone, agrees with the library on every case"

SEED, RUN = "VEKMSG_CODEC_SEED", "VEKMSG_CODEC_RUN"
RUNS = {(False, 64): 80, (False, 32): 20, (True, 64): 1000, (True, 32): 200}
SLICE = 10  # runs that a process does before it reports
ACCEPTED = {"payloads": "decoded", "large payloads": "decoded", "items": "whole", "messages": "read",
            "writings": "sent", "streams": "read to their end", "opened streams": "read to their end", "names": "sent"}
MOST_FINDINGS = 20


def run(builds):
    result = Result()
    seed = os.environ.get(SEED, "1")
    check_second_codec(builds, result)
    for bits in (64, 32):
        builds.build(PRESETS[bits], "codec_pipe")
        program = builds.path(PRESETS[bits]) / "tests" / "proof" / "codec_pipe"
        report(builds, result, bits, seed, compared(builds, bits, seed, str(program)))
    result.remarks.append(f"The cases come from seed {seed}; `{SEED}` gives others.")
    return result


def check_second_codec(builds, result):
    done = builds.run([sys.executable, "-B", "tests/proof/wire_codec_test.py"], limit=120)
    if done.returncode != 0:
        result.findings.append("the second codec does not do what the page shows")


def compared(builds, bits, seed, program):
    numbers = range(RUNS[builds.is_full, bits])
    if RUN in os.environ:
        numbers = [int(os.environ[RUN])]
    slices = [numbers[start:start + SLICE] for start in range(0, len(numbers), SLICE)]
    outcomes = []
    with concurrent.futures.ProcessPoolExecutor(builds.jobs) as workers:
        for outcome in workers.map(wire_compare.compare, *zip(*[(program, seed, part) for part in slices])):
            outcomes.append(outcome)
            done = min(len(outcomes) * SLICE, len(numbers))
            progress(f"codec ({bits} bit, seed {seed}): {done} of {len(numbers)} runs")
    return outcomes


def report(builds, result, bits, seed, outcomes):
    cases, accepted, differences = collections.Counter(), collections.Counter(), []
    for outcome in outcomes:
        cases += outcome.cases
        accepted += outcome.accepted
        differences += outcome.differences
    figures = [("cases", sum(cases.values()), None), ("records", sum(outcome.records for outcome in outcomes), None)]
    for name, word in ACCEPTED.items():
        figures.append((f"{name} that are {word}", accepted[name], cases[name]))
    shown = wire_compare.page_records()
    seen = set().union(*[outcome.seen for outcome in outcomes])
    figures += [("records of the page that occur", len(seen), len(shown)), ("differences", len(differences), None)]
    result.figures += [Figure(name, value, of, bits) for name, value, of in figures]
    if RUN not in os.environ:
        result.findings += [f"no case makes a record like `{text}` ({bits} bit, seed {seed})"
                            for number, (_, text, _) in enumerate(shown) if number not in seen]
    for difference in differences[:MOST_FINDINGS]:
        path = builds.folder / f"codec-{bits}-{seed}-{difference.run}-{difference.index}.txt"
        path.write_text(difference.listing())
        result.findings.append(f"{difference.sentence()} ({bits} bit, seed {seed}): {path.name}")
    if len(differences) > MOST_FINDINGS:
        result.findings.append(f"{len(differences) - MOST_FINDINGS} more differences ({bits} bit, seed {seed})")
