"""Compares codec_pipe, and in it the library, with the second codec, in runs of cases that a seed and a number give.

wire_compare.py PROGRAM SEED RUN...   prints the differences in these runs with any build of codec_pipe"""

import collections
import pathlib
import random
import re
import struct
import subprocess
import sys
import threading
from typing import NamedTuple

import wire_answers
import wire_cases

PAGE = pathlib.Path(__file__).resolve().parents[2] / "docs" / "wire-format.md"
RUN = 1000
ANSWER_LIMIT = 120  # seconds for a run; a pipe that takes longer hangs


class Case(NamedTuple):
    name: str
    kind: bytes
    body: bytes
    wanted: wire_answers.Answer


class Difference(NamedTuple):
    run: int
    index: int
    case: Case
    got: bytes | None  # None when there is no answer

    def sentence(self):
        place = f"{self.case.name} {self.index} of run {self.run}"
        if self.got is None:
            return f"{place} ends codec_pipe, or it gives no answer"
        return f"{place}: the answers differ from byte {self.first()} on"

    def first(self):
        """The first byte of the answer that differs."""
        pairs = zip(self.got, self.case.wanted.bytes)
        return next((at for at, (one, other) in enumerate(pairs) if one != other),
                    min(len(self.got), len(self.case.wanted.bytes)))

    def listing(self):
        lines = [self.sentence(), f"kind:   {self.case.kind.decode()}", f"case:   {self.case.body.hex()}",
                 f"wanted: {self.case.wanted.bytes.hex()}"]
        if self.got is not None:
            start = max(0, self.first() - 40)
            lines += [f"got:    {self.got.hex()}",
                      f"wanted from byte {start}: {self.case.wanted.bytes[start:start + 400]}",
                      f"got from byte {start}:    {self.got[start:start + 400]}"]
        return "\n".join(lines) + "\n"


class Outcome(NamedTuple):
    cases: collections.Counter
    accepted: collections.Counter
    records: int
    seen: set  # the numbers of the page's records that occurred
    differences: list


def page_records():
    """The records that the page shows, as (severity, text, pattern), with anything for what depends on the case."""
    shown = dict.fromkeys(re.findall(r"\b([EWD]) `([^`]+)`", PAGE.read_text()))
    return [(severity, text, pattern_of(text)) for severity, text in shown]


def pattern_of(text):
    numbers = re.sub(r"\d+", r"\\d+", re.escape(text))
    return re.compile(re.sub(r"\b(own|peer|other|panel|sensor)\b", ".*", numbers), re.DOTALL)


def element_case(name, encoded):
    return Case(name, b"E", encoded, wire_answers.answer_element(encoded))


def item_case(cases):
    encoded = cases.item()
    return Case("items", b"E", encoded, wire_answers.answer_item(encoded))


def message_case(cases):
    encoded = cases.message()
    return Case("messages", b"M", encoded, wire_answers.answer_message(encoded))


def writing_case(cases):
    message, element = cases.written()
    body = wire_answers.fields(message) + wire_answers.tree(element)
    return Case("writings", b"W", body, wire_answers.answer_writing(message, element))


def stream_case(cases):
    piece, stream = cases.stream()
    return Case("streams", b"S", wire_answers.number(piece) + stream, wire_answers.answer_stream(stream, piece))


def opened_stream_case(cases):
    piece, stream = cases.opened_stream()
    return Case("opened streams", b"O", wire_answers.number(piece) + stream, wire_answers.answer_opening(stream, piece))


def name_case(cases):
    name = cases.name()
    return Case("names", b"N", name, wire_answers.answer_name(name))


# What is made, in this share of a thousand.
MAKERS = (
    (449, lambda cases: element_case("payloads", cases.encoded())),
    (1, lambda cases: element_case("large payloads", cases.large())),
    (100, item_case),
    (250, message_case),
    (155, writing_case),
    (34, stream_case),
    (10, opened_stream_case),
    (1, name_case),
)
WEIGHTS = [weight for weight, _ in MAKERS]


def cases_of(seed, run):
    source = random.Random(f"{seed} {run}")
    cases = wire_cases.Cases(source)
    return [make(cases) for _, make in source.choices(MAKERS, WEIGHTS, k=RUN)]


class Pipe:
    def __init__(self, program):
        self._process = subprocess.Popen([program], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        peers = b"".join([wire_answers.text(name) for name in wire_answers.PEERS])
        self._ask([(b"K", peers)])
        self._answers(1)

    def answers(self, cases, meanwhile=lambda: None):
        """What the library makes of the cases, in their order, or None when it has not answered. `meanwhile` is done
        before the answers are awaited."""
        watch = threading.Timer(ANSWER_LIMIT, self._process.kill)
        watch.start()
        try:
            self._ask([(case.kind, case.body) for case in cases])
            meanwhile()
            return self._answers(len(cases))
        except (BrokenPipeError, struct.error):
            return None
        finally:
            watch.cancel()

    def close(self):
        try:
            self._process.stdin.close()
            self._process.wait(ANSWER_LIMIT)
        except (BrokenPipeError, subprocess.TimeoutExpired):
            self._process.kill()
            self._process.wait()
        self._process.stdout.close()

    def _ask(self, cases):
        batch = b"".join([kind + wire_answers.text(body) for kind, body in cases])
        self._process.stdin.write(wire_answers.text(batch))
        self._process.stdin.flush()

    def _answers(self, count):
        length, = struct.unpack(">I", self._process.stdout.read(4))
        batch = self._process.stdout.read(length)
        answers, position = [], 0
        for _ in range(count):
            length, = struct.unpack_from(">I", batch, position)
            position += 4 + length
            answers.append(batch[position - length:position])
        return answers


def fatal_case(program, run, cases):
    """The case that ends the pipe, when it does so again."""
    pipe = Pipe(program)
    try:
        for index, case in enumerate(cases):
            if pipe.answers([case]) is None:
                return Difference(run, index, case, None)
        return Difference(run, len(cases) - 1, cases[-1], None)
    finally:
        pipe.close()


def compare(program, seed, runs):
    counted, accepted, records, differences = collections.Counter(), collections.Counter(), 0, []
    unseen = dict(enumerate(page_records()))
    seen = set()
    pipe = Pipe(program)
    made = []  # the next run, made while the pipe works on this one
    following = iter(runs[1:])

    def make_next():
        made[:] = [cases_of(seed, run) for run in (next(following, None),) if run is not None]

    cases = cases_of(seed, runs[0])
    for run in runs:
        answers = pipe.answers(cases, make_next)
        if answers is None:
            differences.append(fatal_case(program, run, cases))
            break
        for index, (case, got) in enumerate(zip(cases, answers)):
            counted[case.name] += 1
            accepted[case.name] += case.wanted.is_accepted
            records += len(case.wanted.records)
            now = {number for number, (severity, _, pattern) in unseen.items()
                   for record in case.wanted.records if record[0] == severity and pattern.fullmatch(record[1])}
            for number in now:
                seen.add(number)
                del unseen[number]
            if got != case.wanted.bytes:
                differences.append(Difference(run, index, case, got))
        cases = made[0] if made else []
    pipe.close()
    return Outcome(counted, accepted, records, seen, differences)


def main():
    program, seed, *runs = sys.argv[1:]
    outcome = compare(program, seed, [int(run) for run in runs])
    for difference in outcome.differences:
        print(difference.listing())
    print(f"{sum(outcome.cases.values())} cases, {len(outcome.differences)} differences")
    sys.exit(1 if outcome.differences or not outcome.cases else 0)


if __name__ == "__main__":
    main()
