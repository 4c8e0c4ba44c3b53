#!/usr/bin/env python3
"""Runs the benchmark programs interleaved and reports medians, spreads and ratios."""

import argparse
import collections
import contextlib
import json
import os
import platform
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

import report

BASE = report.BASE
LIBRARY = report.LIBRARY
SAME_POLLS = report.SAME_POLLS
SAME_CALLS = report.SAME_CALLS
ASKING = "asking"  # where copies of the build stand whose library asks each socket in each pass
RECEIVES_OF_DRAINING = 3  # a header, a block, and one that would block
# Before each program: one that follows a long one without a rest was seen to take 8 % more, and behind a rest of this
# length no more. Why is not known.
REST = 0.03  # seconds
TIME_LIMIT = 150  # seconds, beyond the programs' own
AGAIN = "bare protocol again"  # a second run, so that more TCP regimes find a base to compare with
ALIKE = 0.25  # largest difference in segments per message between what is compared

Program = collections.namedtuple("Program", "name executable options")
OWN_PROGRAMS = [
    Program("bare blocking", "bare_transfer", ["--variant", "blocking"]),
    Program(BASE, "bare_transfer", []),
    Program(LIBRARY, "vekmsg_transfer", []),
    Program("libvekmsg in C", "vekmsg_transfer", ["--variant", "c"]),
]
ASKING_EACH = Program(report.ASKING_EACH, f"{ASKING}/vekmsg_transfer", [])
PEER_PROGRAMS = [
    Program("ZeroMQ", "peers/zeromq_transfer", []),
    Program("nng", "peers/nng_transfer", []),
    Program("nanomsg", "peers/nanomsg_transfer", []),
    Program("sd-bus", "peers/sdbus_transfer", []),
    Program("sd-bus, daemon", "peers/sdbus_transfer", ["--variant", "daemon"]),
    Program("gRPC", "peers/grpc_transfer", []),
    Program("Cap'n Proto", "peers/capnproto_transfer", []),
    Program("MQTT", "peers/mqtt_transfer", []),
]
WHOLE_MESSAGE = f"{LIBRARY}, whole message"
CODECS = {LIBRARY: "vekmsg_codec", "protobuf": "peers/protobuf_codec", "msgpack": "peers/msgpack_codec",
          "Cap'n Proto": "peers/capnproto_codec", "FlatBuffers": "peers/flatbuffers_codec"}
PAYLOADS = ("one number", "ten leaves", "hundred leaves")

Case = collections.namedtuple("Case", "transport mode size peers batch cores")
COUNTS = {"rtt": 20000, "stream": 40000, "burst": 8000, "fanin": 40000}
QUICK_PART = 20  # of those counts
PEER_PART = 4
COUNTED_PART = 10
MANY_PART = 4  # a pass over many connections takes long

# TCP joins what it is given while it may not send: small messages of one busy sender mostly travel joined, those of
# many one by one. In a network of their own, whose streams may have this many segments on their way from the start,
# nobody's are joined, and one and many can be compared.
SEGMENTS_ON_THEIR_WAY = 1000
OWN_NETWORK = ["unshare", "--map-root-user", "--net", "sh", "-c", f"""
ip link set lo up &&
for route in 127.0.0.0/8 127.0.0.1; do
  ip route change local $route dev lo table local src 127.0.0.1 initcwnd {SEGMENTS_ON_THEIR_WAY} || exit
done && exec "$@" """, "own-network"]


def cases():
    one = [Case(transport, mode, size, 1, 0, "one")
           for transport in report.TRANSPORTS for mode in ("rtt", "stream") for size in report.SIZES]
    placed = [Case(transport, mode, 64, 1, 0, cores)
              for transport in report.TRANSPORTS for mode in ("rtt", "stream") for cores in ("two", "free")]
    bursts = [Case(transport, "burst", 64, 1, batch, "one")
              for transport in report.TRANSPORTS for batch in report.BATCHES]
    fans = [Case(transport, "fanin", 64, peers, 0, "one")
            for transport in (*report.TRANSPORTS, report.APART) for peers in (1, *report.PEERS)]
    many = [Case(transport, "rtt", 64, peers, 0, "one") for transport in report.TRANSPORTS for peers in report.PEERS]
    return one + placed + bursts + fans + many


def progress(text):
    print(text, file=sys.stderr, flush=True)


class Runner:
    """Runs programs of one build and remembers which of them cannot do what."""

    def __init__(self, build, is_quick, asking=None):
        self.folder = os.path.join(build, "bench")
        self.builds = {"": build} | ({ASKING: asking} if asking else {})
        self.copies = None
        self.is_quick = is_quick
        self.left_out = collections.defaultdict(set)  # (program, why): cases
        self.missing = []
        self.cases = self.possible_cases()

    def possible_cases(self):
        made = subprocess.run([*OWN_NETWORK, "true"], capture_output=True, text=True, timeout=TIME_LIMIT, check=False)
        if made.returncode == 0:
            return cases()
        self.missing.append(f"{report.LOCAL[report.APART]}: no network of its own ({made.stderr.strip()})")
        return [case for case in cases() if case.transport != report.APART]

    def notes(self):
        return self.missing + [f"{name} in {len(left_out)} cases ({why}): {'; '.join(sorted(left_out))}"
                               for (name, why), left_out in self.left_out.items()]

    def has(self, executable):
        return os.path.exists(os.path.join(self.folder, executable))

    @contextlib.contextmanager
    def fresh_copies(self):
        """Own programs and libraries run as new files here. Copies of one file differ by some hundredths, probably by
        where their pages lie in memory, and keep the difference: a single file would show it in every round."""
        with tempfile.TemporaryDirectory(dir=self.folder) as self.copies:
            for name, build in self.builds.items():
                target = os.path.join(self.copies, name)
                os.makedirs(target, exist_ok=True)
                for file in ("bench/bare_transfer", "bench/vekmsg_transfer", "src/libvekmsg.so.1"):
                    shutil.copy(os.path.join(build, file), target)
            yield
        self.copies = None

    def path_of(self, executable):
        copy = os.path.join(self.copies or "", executable)
        return copy if self.copies and os.path.exists(copy) else os.path.join(self.folder, executable)

    def json_of(self, arguments, network=()):
        """Standard output as JSON; or, where the program has no such mode or fails, None and why."""
        path = self.path_of(arguments[0])
        beside = {**os.environ, "LD_LIBRARY_PATH": os.path.dirname(path)}
        try:
            result = subprocess.run([*network, path, *arguments[1:]], env=beside,
                                    capture_output=True, text=True, timeout=TIME_LIMIT, check=False)
        except subprocess.TimeoutExpired:
            return None, "over time"
        if result.returncode != 0:
            return None, (result.stderr.strip().splitlines() or [f"exit code {result.returncode}"])[-1]
        return json.loads(result.stdout), ""

    def transfer(self, program, case, part=1, more=()):
        count = COUNTS[case.mode] // part // (QUICK_PART if self.is_quick and "--counted" not in more else 1)
        is_apart = case.transport == report.APART
        arguments = [program.executable, *program.options, *more, "--transport", "tcp" if is_apart else case.transport,
                     "--mode", case.mode, "--size", str(case.size), "--count", str(max(count, 64)),
                     "--peers", str(case.peers), "--cores", case.cores]
        if case.batch:
            arguments += ["--batch", str(case.batch)]
        time.sleep(REST)
        line, why = self.json_of(arguments, OWN_NETWORK if is_apart else ())
        if line is None:
            if program not in PEER_PROGRAMS and "not available" not in why:
                sys.exit(f"{program.name}: {why}\n{' '.join(arguments)} failed")
            self.left_out[program.name, why].add(report.describe(case._asdict()))
        return line


def part_of(program, case):
    part = PEER_PART if program in PEER_PROGRAMS else 1
    return part * (MANY_PART if is_of_many(case) else 1)


def count_calls(runner):
    """Calls and allocations per unit, in runs of their own because counting takes time."""
    counted = {}
    with runner.fresh_copies():
        for case in runner.cases:
            if case.cores != "one" or case.transport == report.APART:
                continue
            for program in OWN_PROGRAMS + asking_each(runner, case):
                line = runner.transfer(program, case, COUNTED_PART, ["--counted"])
                if line:
                    counted[case, program.name] = {side: line[side] for side in ("sender", "receiver")}
    return counted


def asking_each(runner, case):
    """The library as it would be without asking the kernel once, where that matters."""
    return [ASKING_EACH] if ASKING in runner.builds and is_of_many(case) else []


def is_of_many(case):
    return case.mode == "rtt" and case.peers > 1


def same_polls(case, counted):
    """A bare program that polls as often as the library was seen to."""
    polls = [str(max(1, round(counted[case, LIBRARY][side]["poll"]))) for side in ("sender", "receiver")]
    return Program(SAME_POLLS, "bare_transfer", ["--polls", ",".join(polls)])


def same_calls(case, counted):
    """A bare program that makes every call that the library was seen to make; None where it makes others."""
    calls = [counted[case, LIBRARY][side] for side in ("sender", "receiver")]
    expected = {"send": 1, "recv": RECEIVES_OF_DRAINING, "accept": 0, "other": 0}
    if any(round(side[call]) != number for side in calls for call, number in expected.items()):
        return None
    return Program(SAME_CALLS, "bare_transfer", [*same_polls(case, counted).options, "--variant", "drain"])


def measure(runner, programs, rounds, counted):
    """Every program in every round, so that what disturbs the machine disturbs all of them."""
    measured = collections.defaultdict(dict)  # (case, program): round: line
    for turn in range(rounds):
        with runner.fresh_copies():
            for case in runner.cases:
                progress(f"round {turn + 1} of {rounds}: {report.describe(case._asdict())}")
                for program in programs_of(runner, programs, case, counted):
                    line = runner.transfer(program, case, part_of(program, case))
                    if line:
                        measured[case, program.name][turn] = line
    return measured


def programs_of(runner, programs, case, counted):
    """The given ones, which begin with the bare ones, and those that only this case has."""
    own = list(programs)
    if is_of_many(case):
        own[1:1] = [same_polls(case, counted), *filter(None, [same_calls(case, counted)]), *asking_each(runner, case)]
    if has_regimes(case):
        own.append(Program(AGAIN, "bare_transfer", []))
    return own


def has_regimes(case):
    """Small TCP messages on a stream travel joined or one to a segment, as it happens."""
    return case.transport == "tcp" and case.mode in report.RATES


def base_of(case, line, turn, measured):
    """The base of the same round, or where TCP joined the messages of one only, the most alike; None without one."""
    base = measured[case, BASE]
    if not has_regimes(case):
        return base.get(turn)

    def difference(other):
        return abs(other["sender"]["segments"] - line["sender"]["segments"])

    if turn in base and difference(base[turn]) <= ALIKE:
        return base[turn]
    nearest = min([*base.values(), *measured[case, AGAIN].values()], key=difference)
    return nearest if difference(nearest) <= ALIKE else None


def spread(values):
    return {"median": statistics.median(values), "lowest": min(values), "highest": max(values)}


def summarize(measured, counted):
    rows = []
    for (case, name), lines in measured.items():
        if name == AGAIN:
            continue
        pairs = [(line, base_of(case, line, turn, measured)) for turn, line in lines.items()]
        alike = [(line, base) for line, base in pairs if base]
        row = {**case._asdict(), "program": name, "rounds": len(lines),
               **{key: spread([line[key] for line in lines.values()]) for key in ("nanoseconds", "cpuNanoseconds")},
               "comparedRounds": len(alike)}
        for key in ("nanoseconds", "cpuNanoseconds"):
            if alike:
                row[f"{key}Ratio"] = spread([own[key] / other[key] for own, other in alike])
        if case.transport != "unix":
            row["segments"] = statistics.median(line["sender"]["segments"] for line in lines.values())
        if (case, name) in counted:
            row["calls"] = counted[case, name]
        rows.append(row)
    return rows


def measure_codecs(runner, rounds):
    seconds = "0.02" if runner.is_quick else "0.2"
    times = collections.defaultdict(list)
    facts = {}
    for turn in range(rounds):
        progress(f"round {turn + 1} of {rounds}: encoding and decoding")
        for name, executable in CODECS.items():
            if not runner.has(executable):
                continue
            result, why = runner.json_of([executable, f"--benchmark_min_time={seconds}", "--benchmark_format=json"])
            if result is None:
                sys.exit(f"{executable} failed: {why}")
            for entry in result["benchmarks"]:
                if entry.get("error_occurred"):
                    sys.exit(f"{executable}: {entry['error_message']}")
                operation, payload = entry["name"].split("/")
                codec = WHOLE_MESSAGE if operation.endswith("Message") else name
                key = operation.removesuffix("Message"), PAYLOADS[int(payload)], codec
                times[key].append(entry["cpu_time"])
                facts[key] = {"bytes": entry["bytes"], "allocations": entry["allocations"]}
    rows = []
    for (operation, payload, name), own in times.items():
        library = times[operation, payload, LIBRARY]
        rows.append({"operation": operation, "payload": payload, "codec": name, "nanoseconds": spread(own),
                     "ratio": spread([one / other for one, other in zip(own, library)]),
                     **facts[operation, payload, name]})
    return rows


def stripped_size(folder):
    with tempfile.TemporaryDirectory() as temporary:
        target = os.path.join(temporary, "stripped.so")
        subprocess.run(["strip", "-o", target, os.path.join(folder, "src", "libvekmsg.so")], check=True, timeout=60)
        return os.path.getsize(target)


def cost_figures(folders, rounds, is_quick, counted):
    """Once for each architecture. The calls of the other builds are counted here."""
    rows = []
    for folder in folders:
        runner = Runner(folder, is_quick)
        lines = []
        for turn in range(rounds):
            progress(f"round {turn + 1} of {rounds}: cost figures of {os.path.basename(folder)}")
            line, why = runner.json_of(["cost_figures"])
            if line is None:
                sys.exit(f"cost_figures failed: {why}")
            lines.append(line)
        row = {key: spread([line[key] for line in lines]) for key in report.COSTS}
        calls = counted if folder == folders[0] else count_calls(runner)
        row |= {"bits": lines[0]["bits"], "pageBytes": lines[0]["pageBytes"], "strippedBytes": stripped_size(folder),
                "calls": [{**case._asdict(), **sides} for (case, name), sides in calls.items() if name == LIBRARY]}
        rows.append(row)
    return rows


def machine():
    with open("/proc/cpuinfo", encoding="utf-8") as info:
        model = next((line.split(":", 1)[1].strip() for line in info if line.startswith("model name")), "unknown")
    return f"{model}, {os.cpu_count()} cores, {platform.system()} {platform.release()} {platform.machine()}"


def missing_peers(folder, runner):
    path = os.path.join(folder, "bench", "missing_peers.txt")
    if os.path.exists(path):
        with open(path, encoding="utf-8") as file:
            runner.missing += [line.strip() for line in file if line.strip()]


def write(path, text):
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


def run(arguments):
    is_quick = arguments.quick
    rounds = arguments.rounds or (3 if is_quick else 5)
    runner = Runner(arguments.programs, is_quick, arguments.asking)
    programs = list(OWN_PROGRAMS)
    if arguments.peers:
        missing_peers(arguments.programs, runner)
        programs += [program for program in PEER_PROGRAMS if runner.has(program.executable)]
    load = os.getloadavg()[0]
    progress("counting calls")
    counted = count_calls(runner)
    transfers = summarize(measure(runner, programs, rounds, counted), counted)
    codecs = measure_codecs(runner, rounds)
    folders = [arguments.programs] + ([arguments.programs32] if arguments.programs32 else [])
    costs = cost_figures(folders, rounds, is_quick, counted)
    notes = runner.notes()
    for note in notes:
        progress(note)
    return {"machine": machine(), "load": max(load, os.getloadavg()[0]), "isQuick": is_quick, "rounds": rounds,
            "transfers": transfers, "codecs": codecs, "costs": costs, "notes": notes}


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--programs")
    parser.add_argument("--programs32")
    parser.add_argument("--asking")
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--peers", action="store_true")
    parser.add_argument("--rounds", type=int)
    parser.add_argument("--json")
    parser.add_argument("--page")
    arguments = parser.parse_args()
    if arguments.page:
        with open(arguments.page, encoding="utf-8") as file:
            report.fill_page(json.load(file))
        return
    # Those of a full run are kept with the source.
    folder = os.path.join(arguments.programs if arguments.quick else os.path.dirname(__file__), "results")
    results = run(arguments)
    shutil.rmtree(folder, ignore_errors=True)
    os.makedirs(folder)
    content = json.dumps(results, indent=1) + "\n"
    write(os.path.join(folder, "results.json"), content)
    if arguments.json:
        write(arguments.json, content)
    text = report.whole(results)
    write(os.path.join(folder, "report.md"), text)
    for name, picture in report.pictures(results).items():
        write(os.path.join(folder, name), picture)
    print(text)
    progress(f"results are in {folder}")


if __name__ == "__main__":
    main()
