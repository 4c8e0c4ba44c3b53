"""Every record that the library can write. tests/proof/records.txt lists them; the finished library must have exactly
these places, the test suite must bring each of them to write, and a test must state what it wrote to the letter. The
tests leave notes of that (tests/support/record_notes.h)."""

import collections
import dataclasses
import functools
import re
import shutil

import log_sites
from builds import PRESETS, TOP
from report import Figure, Result

NAME = "records"
PROVES = "each record that the library can write is provoked and stated to the letter, and no other is written"

LIST = TOP / "tests" / "proof" / "records.txt"
EXPORTS = TOP / "tests" / "packaging" / "exports.txt"
INTERFACES = ("attribute.h", "element.h", "filter.h", "message.h")  # implemented inside, so that they are not exported
MOST_LEFT = 5  # places that nothing can reach
CUT = 2047  # a longer text is cut
CONVERSIONS = {"%s": "(?:.*)", "%d": "(?:-?[0-9]+)", "%u": "(?:[0-9]+)"}


@dataclasses.dataclass(frozen=True)
class Row:
    """What one place writes. Two places that write the same are two equal rows."""

    severity: int
    source: str
    signature: str
    text: str

    def __str__(self):
        return f"{self.severity} {self.source} {self.signature} \"{self.text}\""

    def function(self):
        return self.severity, self.source, log_sites.comparable(self.signature)

    def owner(self):
        """The name of the function alone."""
        return re.search(r"[\w:~]+$", self.signature.partition("(")[0])[0]


@dataclasses.dataclass(frozen=True)
class Note:
    """A record that a test took, with the place that wrote it."""

    severity: int
    source: str
    signature: str
    line: int
    ordinal: int
    text: str

    def __str__(self):
        return f"{self.severity} {self.source}:{self.line} {self.signature} {self.text!r}"

    def is_cut(self):
        return len(self.text) >= CUT

    def function(self):
        return self.severity, self.source, self.signature

    def place(self):
        return self.source, self.signature, self.line, self.ordinal


def read_list():
    """The rows, and of those that are left the reason why nothing can reach them."""
    rows, reasons = [], {}
    source = signature = ""
    for line in LIST.read_text().splitlines():
        text = line.strip()
        if not text or text.startswith("#"):
            continue
        depth = len(line) - len(line.lstrip())
        if depth == 0:
            source = text
        elif depth == 2:
            signature = text
        elif depth == 4:
            rows.append(Row(int(text[0]), source, signature, text[2:]))
        else:
            reasons[rows[-1]] = text
    return rows, reasons


def read_notes(folder):
    seen, asserted, calls = set(), set(), set()
    for path in folder.iterdir():
        for line in path.read_bytes().decode("latin-1").rstrip("\n").split("\n"):
            kind, *fields = [re.sub(r"\\x([0-9a-f]{2})", lambda found: chr(int(found[1], 16)), field)
                             for field in line.split("\t")]
            if kind == "call":
                calls.add(tuple(fields))
            else:
                severity, source, signature, place, ordinal, text = fields
                note = Note(int(severity), source, signature, int(place), int(ordinal), text)
                (asserted if kind == "asserted" else seen).add(note)
    return seen, asserted, calls


@functools.lru_cache(maxsize=None)
def pattern(text):
    pieces = re.split("(%[sdu])", text)
    return re.compile("".join(CONVERSIONS.get(piece) or re.escape(piece) for piece in pieces), re.DOTALL)


@functools.lru_cache(maxsize=None)
def cut_pattern(text):
    """What a text that is cut somewhere looks like."""
    rest = ""
    for piece in reversed(re.findall("%[sdu]|.", text, re.DOTALL)):
        rest = f"{CONVERSIONS.get(piece) or re.escape(piece)}(?:{rest})?"
    return re.compile(rest, re.DOTALL)


def matches(text, note):
    return (cut_pattern if note.is_cut() else pattern)(text).fullmatch(note.text) is not None


def check_list(rows, builds, bits, result):
    """The list against the places that the library has, and its texts against the library's constants."""
    sites, constants = log_sites.read(builds.library(bits))
    in_library = collections.Counter((site.severity, site.source, log_sites.comparable(site.signature))
                                     for site in sites)
    in_list = collections.Counter(row.function() for row in rows)
    surplus = 0
    for function in in_list.keys() | in_library.keys():
        difference = in_library[function] - in_list[function]
        surplus += abs(difference)
        if difference:
            result.findings.append(f"{function[1]} {function[2]} has {in_library[function]} places of severity "
                                   f"{function[0]}, the list {in_list[function]} ({bits} bit)")
    missing = list(missing_texts(rows, constants, builds.static_library(bits).read_bytes().decode("latin-1")))
    result.findings += [f"{missed} ({bits} bit)" for missed in missing]
    result.figures.append(Figure("surplus", surplus + len(missing), bits=bits))
    return len(sites)


def missing_texts(rows, constants, archive):
    """The static library holds every text. The shared one, which is optimised as a whole, may go without that of a
    guard that no caller inside can fail, but not without one that an application can cause by its arguments."""
    entries = public_functions()
    for text, owner in sorted({(row.text, row.owner()) for row in rows}):
        if text + "\0" not in archive:
            yield f"the static library does not hold the text \"{text}\""
        elif text + "\0" not in constants and owner in entries:
            yield f"the library does not hold the text \"{text}\" of {owner}"


def run_tests(builds, bits):
    """The notes of the whole test suite."""
    preset = PRESETS[bits]
    builds.build(preset)
    folder = builds.folder / f"records-{bits}"
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    done = builds.run(["ctest", "--preset", preset, "--parallel", str(builds.jobs), "--no-tests=error"],
                      limit=1800, capture=True, environment={"VEKMSG_RECORDS_FOLDER": str(folder)})
    (builds.folder / f"records-{bits}.log").write_text(done.stdout + done.stderr)
    failed = re.findall(r"^\s*\d+ - (.*\S) \((\w[\w ]*)\)$", done.stdout, re.MULTILINE)
    findings = [f"the test {name} fails: {how} ({bits} bit)" for name, how in failed if how != "Skipped"]
    if done.returncode != 0 and not findings:
        findings.append(f"the tests end with {done.returncode} ({bits} bit)")
    return read_notes(folder), findings


def check_records(rows, reasons, count, notes, bits, result):
    """Which rows are provoked: for each, a test stated what its place wrote. Of equal rows each has a place."""
    seen, asserted, _ = notes
    by_function = collections.defaultdict(set)
    for row in rows:
        by_function[row.function()].add(row)

    def is_unknown(note):
        count = sum(matches(row.text, note) for row in by_function[note.function()])
        return count == 0 if note.is_cut() else count != 1  # the start of a text may be that of several

    unknown = [note for note in seen | asserted if is_unknown(note)]
    for note in sorted(unknown, key=str)[:20]:
        result.findings.append(f"the list does not hold {str(note)[:300]} ({bits} bit)")

    places = collections.defaultdict(set)
    for note in asserted:
        for row in by_function[note.function()]:
            if not note.is_cut() and matches(row.text, note):
                places[row].add(note.place())
    provoked = 0
    for row, wanted in collections.Counter(rows).items():
        found = len(places[row])
        provoked += min(found, wanted)
        if found > wanted:
            result.findings.append(f"{found} places write {row}, of which the list has {wanted} ({bits} bit)")
        elif found == wanted and row in reasons:
            result.findings.append(f"{row} is provoked although it is listed as out of reach ({bits} bit)")
        elif found < wanted and row not in reasons:
            fired = any(matches(row.text, note) for note in seen if note.function() == row.function())
            result.findings.append(f"no test states {row}, which {'is' if fired else 'is not'} seen ({bits} bit)")
        elif found < wanted:
            result.remarks.append(f"Out of reach: {row}: {reasons[row]}")
    if len(reasons) > MOST_LEFT:
        result.findings.append(f"{len(reasons)} records are listed as out of reach, more than {MOST_LEFT}")

    result.figures += [Figure("provoked and stated to the letter", provoked, count, bits),
                       Figure("unknown", len(unknown), bits=bits),
                       Figure("different records that tests took", len(seen), bits=bits),
                       Figure("different records that tests stated", len(asserted), bits=bits)]


def exported_entries():
    """The functions that the library exports, without their parameters; tables and type information are none."""
    for line in EXPORTS.read_text().splitlines():
        if line and not re.match(r"#|\?|typeinfo|vtable", line):
            yield line.split("(")[0]


def virtual_entries():
    """The pure operations of the public interfaces, as "Class_::operation(types) const"."""
    for name in INTERFACES:
        text = (TOP / "include" / "vekmsg" / name).read_text()
        owner = re.search(r"class VEKMSG_API (\w+)", text)[1]
        for operation, parameters, end in re.findall(r"virtual [^;]*?(\w+)\(([^)]*)\)( const)? = 0;", text):
            types = [re.sub(r"(?<=[ *&])\w+$", "", parameter) for parameter in parameters.split(",")]  # without names
            yield f"{owner}::{operation}({','.join(types)}){end}"


def public_functions():
    """The names of what an application reaches: what is exported, and what implements the public interfaces."""
    names = set(exported_entries())
    for entry in virtual_entries():
        owner, _, operation = entry.partition("(")[0].partition("::")
        names.add(f"{owner}::{operation}")
        names.add(f"{owner[:-1]}Binary_::{operation}")
    return names


def check_calls(notes, bits, result):
    """Each public entry has its records stated in at least one way of calling it."""
    ways = collections.Counter("".join(entry.split()) for entry, _ in notes[2])
    entries = {"".join(entry.split()): entry for entry in (*exported_entries(), *virtual_entries())}
    stated = [entry for entry in entries if ways[entry]]
    result.findings += [f"no test states the records of {entries[entry]} ({bits} bit)"
                        for entry in entries if not ways[entry]]
    result.findings += [f"a test states the records of {entry}, which is no public entry ({bits} bit)"
                        for entry in sorted(ways) if entry not in entries]
    result.figures += [Figure("public entries with their records stated", len(stated), len(entries), bits),
                       Figure("ways of calling them", sum(ways.values()), bits=bits)]


def run(builds):
    result = Result()
    rows, reasons = read_list()
    for bits in (64, 32) if builds.is_full else (64,):
        count = check_list(rows, builds, bits, result)
        notes, findings = run_tests(builds, bits)
        result.findings += findings
        check_records(rows, reasons, count, notes, bits, result)
        check_calls(notes, bits, result)
    return result
