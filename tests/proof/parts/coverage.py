"""Counts what the tests reach of src/ and of the headers' inline code, in a build of its own by clang 19: lines,
functions, both sides of each branch, and each condition of a decision with several (MC/DC: some two runs of a test
differ in this condition and in the outcome, and in nothing else that was looked at).

What a template or an inline function holds counts once, whichever instantiation was run. So do the branches of a macro,
where it is defined; but each log site has to write its record and each exception barrier has to meet an exception.
What nothing can reach stands in unreachable.txt with its reason; the list and the count have to agree in both
directions."""

import bisect
import collections
import dataclasses
import json
import re
import shutil
import subprocess

from builds import TOP, Failed, progress
from report import Figure, Result

NAME = "coverage"
PROVES = "every line, branch and condition of the source that can be reached is reached by a test"

PRESETS = {64: "coverage", 32: "m32-coverage"}
LIST = TOP / "tests" / "proof" / "unreachable.txt"
COUNTED = ("src/", "include/")
# Kinds of regions in the export: a use of a macro, whose own regions are in another file; one condition of several.
EXPANSION = 1
CONDITION = 6

# What each use of a macro is for: which side of its branch, and how its absence reads.
MACRO_PURPOSES = {
    "src/foundation/log_record.h": ("log sites that wrote a record", 0, "never written"),
    "src/foundation/exception_barrier.h": ("exception barriers that met an exception", 1, "never met"),
}
KINDS = ("lines", "functions", "branch sides", "conditions (MC/DC)", *(kind for kind, _, _ in MACRO_PURPOSES.values()))


@dataclasses.dataclass(frozen=True, order=True)
class Hole:
    """One thing that was not reached. The text of its line finds it, whatever its number is."""

    file: str
    function: str
    text: str
    what: str
    kind: str = dataclasses.field(compare=False)

    def __str__(self):
        return f"{self.file} {self.function}: {self.what} in \"{self.text}\""


class Source:
    def __init__(self, file):
        self.lines = (TOP / file).read_text().split("\n")

    def line(self, number):
        return self.lines[number - 1].strip()

    def between(self, start, end):
        """The text of a region, its line ends and indents as blanks. Columns count bytes from 1."""
        (first, column), (last, end_column) = start, end
        lines = [line.encode() for line in self.lines[first - 1:last]]
        lines[-1] = lines[-1][:end_column - 1]
        lines[0] = lines[0][column - 1:]
        return " ".join(b" ".join(lines).decode().split())


class Count:
    """Reads an export of llvm-cov into holes and totals."""

    def __init__(self, export):
        data = json.loads(export)["data"][0]
        self.totals = collections.Counter()
        self.holes = collections.Counter()
        self._sources = {}
        self._spans = collections.defaultdict(list)  # file -> (first line, last line, name) of its functions
        self._functions = self._counted_functions(data["functions"])
        self._count_functions()
        self._count_branches()
        self._count_conditions()
        for file in data["files"]:
            name = relative(file["filename"])
            if name.startswith(COUNTED):
                self._count_lines(name, file)

    def _counted_functions(self, functions):
        counted = []
        self._elsewhere = []  # a test's use of a macro of the library counts for the macro
        for function, name in zip(functions, demangled([function["name"] for function in functions])):
            function["filenames"] = [relative(file) for file in function["filenames"]]
            if function["filenames"][0].startswith(COUNTED):
                first = function["regions"][0]
                self._spans[function["filenames"][0]].append((first[0], first[2], name))
                counted.append(function)
            else:
                self._elsewhere.append(function)
        return counted

    def _source(self, file):
        if file not in self._sources:
            self._sources[file] = Source(file)
        return self._sources[file]

    def _function_at(self, file, line):
        spans = [(last - first, name) for first, last, name in self._spans[file] if first <= line <= last]
        return min(spans)[1] if spans else "-"

    def _add(self, kind, file, line, whats):
        """Counts as many things as `whats` has members: None for each that was reached."""
        self.totals[kind] += len(whats)
        for what in filter(None, whats):
            self.holes[Hole(file, self._function_at(file, line), self._source(file).line(line), what, kind)] += 1

    def _count_functions(self):
        runs = collections.Counter()
        for function in self._functions:
            runs[(function["filenames"][0], function["regions"][0][0], function["regions"][0][1])] += function["count"]
        for (file, line, _), count in runs.items():
            self._add("functions", file, line, [None if count else "never called"])

    def _count_branches(self):
        decisions = {(function["filenames"][0], *record[:4])
                     for function in self._functions for record in function.get("mcdc_records", [])}
        branches = collections.defaultdict(lambda: [0, 0])
        uses = collections.defaultdict(lambda: [0, 0])
        for function in self._functions + self._elsewhere:
            places = expansions(function)
            for branch in function["branches"]:
                file = function["filenames"][branch[6]]
                if (file, *branch[:4]) in decisions:  # its conditions are counted
                    continue
                for side in (0, 1):
                    branches[(file, *branch[:4])][side] += branch[4 + side]
                    if branch[6] in places and file in MACRO_PURPOSES:
                        uses[(file, places[branch[6]])][side] += branch[4 + side]
        for (file, *region), sides in branches.items():
            if file.startswith(COUNTED):
                text = self._source(file).between(region[:2], region[2:])
                whats = [None if count else f"never {side}: {text}" for side, count in zip(("true", "false"), sides)]
                self._add("branch sides", file, region[0], whats)
        for (macro, places), sides in uses.items():
            kind, side, what = MACRO_PURPOSES[macro]
            file, line, _ = places[0]
            if file.startswith(COUNTED):
                self._add(kind, file, line, [None if sides[side] else what])

    def _count_conditions(self):
        decisions = {}
        for function in self._functions:
            file = function["filenames"][0]
            for record in function.get("mcdc_records", []):
                key = (file, *record[:4])
                reached = decisions.get(key, [False] * len(record[6]))
                decisions[key] = [one or other for one, other in zip(reached, record[6])]
        parts = collections.defaultdict(set)
        for function in self._functions:
            for branch in function["branches"]:
                if branch[8] == CONDITION:
                    parts[function["filenames"][branch[6]]].add(tuple(branch[:4]))
        for (file, *region), reached in decisions.items():
            inside = sorted(part for part in parts[file]
                            if part[:2] >= tuple(region[:2]) and part[2:] <= tuple(region[2:]))
            texts = [self._source(file).between(part[:2], part[2:]) for part in inside]
            # What the compiler has decided has no branch, is no condition at run time, and is never counted as reached.
            reached = list(reached)
            while len(texts) < len(reached) and False in reached:
                reached.remove(False)
            if len(texts) != len(reached):
                raise Failed(f"{file}:{region[0]} has {len(texts)} conditions and {len(reached)} results")
            whats = [None if done else f"never decides: {text}" for done, text in zip(reached, texts)]
            self._add("conditions (MC/DC)", file, region[0], whats)

    def _count_lines(self, name, file):
        for line, count in line_counts(file["segments"]).items():
            self._add("lines", name, line, [None if count else "never executed"])


def relative(file):
    return file.removeprefix(f"{TOP}/")


def expansions(function):
    """For each file number that stands for a use of a macro: where it is used, the outermost use first."""
    uses = {region[6]: (region[5], region[0], region[1]) for region in function["regions"] if region[7] == EXPANSION}
    places = {}
    for number in uses:
        chain = []
        at = number
        while at in uses:
            at, line, column = uses[at]
            chain.insert(0, (function["filenames"][at], line, column))
        places[number] = tuple(chain)
    return places


def demangled(names):
    """Without parameters and template arguments. A file's own functions are preceded by its name."""
    names = [name.rsplit(":", 1)[-1] for name in names]
    shown = subprocess.run(["llvm-cxxfilt-19"], input="\n".join(names), text=True, check=True, capture_output=True)
    return [plain(name) for name in shown.stdout.split("\n")]


def plain(name):
    """`int Class<x>::call<y>(z) const` as `Class::call`."""
    kept = ""
    depth = 0
    name = name.replace("(anonymous namespace)::", "").replace("operator()", "operator").replace("[abi:cxx11]", "")
    for character in name:
        if character == "(" and depth == 0 and kept:
            break
        depth += character in "<("
        if depth == 0:
            kept += character
        depth -= character in ">)"
    return kept.split(" ")[-1]


def line_counts(segments):
    """How often each line that holds code was run, as llvm-cov shows it, from the points where the count changes:
    [line, column, count, has a count, opens a region, is a gap]."""
    by_line = collections.defaultdict(list)
    for segment in segments:
        by_line[segment[0]].append(segment)
    starts = [segment[0] for segment in segments]
    counts = {}
    for line in range(segments[0][0], segments[-1][0] + 1) if segments else ():
        here = by_line[line]
        before = bisect.bisect_left(starts, line) - 1
        wrapping = segments[before] if before >= 0 else None
        opened = [segment[2] for segment in here if segment[3] and segment[4] and not segment[5]]
        is_skipped = bool(here) and not here[0][3] and here[0][4]
        if is_skipped or not (opened or wrapping and wrapping[3]):
            continue
        counts[line] = max(opened + [wrapping[2] if wrapping and (wrapping[3] or not opened) else 0])
    return counts


def read_list(bits):
    """The holes that unreachable.txt owns up to, each with its reason."""
    reasons = {}
    listed = collections.Counter()
    for paragraph in LIST.read_text().split("\n\n"):
        lines = [line for line in paragraph.split("\n") if line and not line.startswith("#")]
        if lines:
            holes, reason = read_paragraph(lines, bits)
            listed.update(holes)
            reasons.update((hole, reason) for hole in holes)
    return listed, reasons


def read_paragraph(lines, bits):
    """What nothing reaches for one reason. The head of the file shows how such a paragraph looks."""
    match = re.fullmatch(r"(\S+) (\S+)(?: \((32|64) bit\))?", lines[0])
    reason = " ".join(line.strip() for line in lines[1:]).partition(" because ")[2]
    if not match or not reason:
        raise Failed(f"{relative(str(LIST))} cannot be read at \"{lines[0]}\"")
    file, function, only = match.groups()
    holes = []
    text = None
    for line in lines[1:]:
        if line.startswith("    because "):
            break
        if line.startswith("        "):
            holes.append(Hole(file, function, text, line.strip(), ""))
        else:
            text = line.strip()
    return holes if only in (None, str(bits)) else [], f"because {reason}"


def measure(builds, bits):
    preset = PRESETS[bits]
    builds.build(preset)
    profiles = builds.folder / preset
    shutil.rmtree(profiles, ignore_errors=True)
    profiles.mkdir()
    progress(f"running all tests ({preset})")
    tests = builds.run(["ctest", "--preset", preset, "--parallel", str(builds.jobs), "--no-tests=error"], limit=1800,
                       environment={"LLVM_PROFILE_FILE": str(profiles / "%4m.profraw")}, capture=True)
    if tests.returncode != 0:
        (profiles / "tests.log").write_text(tests.stdout)
        raise Failed(f"tests of the build {preset} fail: see {relative(str(profiles))}/tests.log")

    merged = profiles / "all.profdata"
    tool(builds, "llvm-profdata-19", "merge", "-sparse", "-o", str(merged), *map(str, profiles.glob("*.profraw")))
    build = builds.path(preset)
    programs = [path for path in sorted((build / "tests").glob("*/*_test")) if path.is_file()]
    objects = [argument for path in programs for argument in ("-object", str(path))]
    export = tool(builds, "llvm-cov-19", "export", str(build / "src" / "libvekmsg.so"), *objects,
                  f"-instr-profile={merged}")
    (profiles / "export.json").write_text(export)
    return Count(export)


def tool(builds, *command):
    done = builds.run(list(command), capture=True)
    if done.returncode != 0:
        raise Failed(f"{command[0]} failed: {done.stderr.strip()}")
    return done.stdout


def judge(count, bits):
    listed, reasons = read_list(bits)
    result = Result()
    missed = collections.Counter()
    unreachable = collections.Counter()
    for hole, number in count.holes.items():
        missed[hole.kind] += number
        unreachable[hole.kind] += min(number, listed[hole])
    for kind in KINDS:
        reached = count.totals[kind] - missed[kind]
        result.figures.append(Figure(f"{kind}, of all", reached, count.totals[kind], bits))
        result.figures.append(Figure(f"{kind}, of those that can be reached", reached,
                                     count.totals[kind] - unreachable[kind], bits))
    result.findings += [f"{hole}: no test does it" for hole in sorted((count.holes - listed).elements())]
    result.findings += [f"{hole}: listed as unreachable, but it is reached or gone"
                        for hole in sorted((listed - count.holes).elements())]
    result.remarks += [f"{hole}: {reasons[hole]}" for hole in sorted(listed)]
    return result


def run(builds):
    result = Result()
    for bits in (64, 32) if builds.is_full else (64,):
        result.add(judge(measure(builds, bits), bits))
    return result
