#!/usr/bin/env python3
"""Runs the benchmark programs interleaved and reports medians, spreads and ratios."""

import argparse
import json
import os
import platform
import statistics
import subprocess
import sys

TRANSPORTS = ("unix", "tcp")
MODES = ("rtt", "stream")
SIZES = (64, 1024, 8192)
PROGRAMS = {  # name in the report: program and its own options
    "bare blocking": ("bare_transfer", ["--blocking"]),
    "bare protocol": ("bare_transfer", []),
    "libvekmsg": ("vekmsg_transfer", []),
}
BASE = "bare protocol"
CORES = "one"  # cross-core wake-ups vary more than what is being measured
MODE_NAMES = {"rtt": "round trip", "stream": "one way"}
COUNTS = {"rtt": 20000, "stream": 40000}


def progress(text):
    print(text, file=sys.stderr, flush=True)


def run(programs, arguments):
    result = subprocess.run([os.path.join(programs, arguments[0]), *arguments[1:]], capture_output=True, text=True,
                            timeout=300)
    if result.returncode != 0:
        sys.exit(f"{' '.join(arguments)} failed: {result.stderr.strip()}")
    return json.loads(result.stdout)


def transfers(programs, rounds, counts):
    """Every program in every round, so that what disturbs the machine disturbs all of them."""
    measured = {}
    for turn in range(rounds):
        for transport in TRANSPORTS:
            for mode in MODES:
                progress(f"round {turn + 1} of {rounds}: {transport} {MODE_NAMES[mode]}")
                for size in SIZES:
                    for name, (program, options) in PROGRAMS.items():
                        line = run(programs, [program, *options, "--transport", transport, "--mode", mode, "--size",
                                              str(size), "--count", str(counts[mode]), "--cores", CORES])
                        measured.setdefault((transport, mode, size, name), []).append(line)
    return measured


def summarize(measured):
    rows = []
    for (transport, mode, size, name), lines in measured.items():
        times = [line["nanosecondsPerMessage"] for line in lines]
        bases = [line["nanosecondsPerMessage"] for line in measured[(transport, mode, size, BASE)]]
        ratios = [time / base for time, base in zip(times, bases)]
        last = lines[-1]
        rows.append({
            "transport": transport, "mode": mode, "size": size, "program": name, "rounds": len(lines),
            "nanosecondsPerMessage": statistics.median(times),
            "ratio": statistics.median(ratios), "ratioLowest": min(ratios), "ratioHighest": max(ratios),
            "sender": last["sender"], "receiver": last["receiver"],
        })
    return rows


def codec(programs, quick):
    progress("encoding and decoding")
    seconds = "0.05" if quick else "0.5"
    result = run(programs, ["codec_bench", f"--benchmark_min_time={seconds}", "--benchmark_format=json",
                            "--benchmark_repetitions=3"])
    payloads = ("one number", "ten leaves", "hundred leaves")
    rows = []
    for entry in result["benchmarks"]:
        if entry.get("aggregate_name") == "median":
            operation, payload = entry["run_name"].split("/")[:2]
            rows.append({"operation": operation, "payload": payloads[int(payload)], "bytes": entry["bytes"],
                         "nanoseconds": entry["cpu_time"], "allocations": entry["allocations"]})
    return rows


def calls(row):
    counted = {key: row["sender"][key] + row["receiver"][key] for key in row["sender"]}
    return " ".join(f"{counted[key]:.2f}" for key in ("send", "recv", "accept", "poll", "allocations"))


def report(results):
    lines = ["# Benchmark report", "",
             f"{results['machine']}, both processes on {CORES} core, medians of {results['rounds']} rounds. "
             f"Ratios are to {BASE} in the same round: below 1 is faster.", "",
             "## Transfers", "",
             "Calls and allocations are per message, both processes together.", "",
             "| transport | mode | bytes | program | us per message | ratio (lowest to highest) "
             "| send recv accept poll allocations |",
             "|---|---|---|---|---|---|---|"]
    for row in results["transfers"]:
        lines.append(f"| {row['transport']} | {MODE_NAMES[row['mode']]} | {row['size']} | {row['program']} "
                     f"| {row['nanosecondsPerMessage'] / 1000:.2f} | {row['ratio']:.2f} "
                     f"({row['ratioLowest']:.2f} to {row['ratioHighest']:.2f}) | {calls(row)} |")
    lines += ["", "## Encoding and decoding", "",
              "| operation | payload | bytes | ns | allocations |", "|---|---|---|---|---|"]
    for row in results["codec"]:
        lines.append(f"| {row['operation']} | {row['payload']} | {row['bytes']:.0f} | {row['nanoseconds']:.0f} "
                     f"| {row['allocations']:.2f} |")
    return "\n".join(lines) + "\n"


def picture(results, transport, mode):
    """Bars: microseconds per message for each size and program."""
    rows = [row for row in results["transfers"] if row["transport"] == transport and row["mode"] == mode]
    highest = max(row["nanosecondsPerMessage"] for row in rows)
    colours = dict(zip(PROGRAMS, ("#9aa5b1", "#52606d", "#2680c2")))
    left, top, width, height, bar = 70, 50, 560, 240, 44
    out = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{left + width + 20}" height="{top + height + 90}" '
           'font-family="sans-serif" font-size="12">',
           f'<text x="{left}" y="24" font-size="16">{MODE_NAMES[mode]}, {transport}: time per message</text>',
           f'<line x1="{left}" y1="{top + height}" x2="{left + width}" y2="{top + height}" stroke="#333"/>',
           f'<line x1="{left}" y1="{top}" x2="{left}" y2="{top + height}" stroke="#333"/>',
           f'<text transform="translate(18,{top + height / 2}) rotate(-90)" text-anchor="middle">microseconds</text>',
           f'<text x="{left + width / 2}" y="{top + height + 44}" text-anchor="middle">payload in bytes</text>']
    for step in range(5):
        value = highest * step / 4
        y = top + height - height * step / 4
        out.append(f'<text x="{left - 8}" y="{y + 4:.1f}" text-anchor="end">{value / 1000:.1f}</text>')
    for index, size in enumerate(SIZES):
        group = left + 20 + index * width / len(SIZES)
        out.append(f'<text x="{group + 1.5 * bar:.1f}" y="{top + height + 20}" text-anchor="middle">{size}</text>')
        for place, name in enumerate(PROGRAMS):
            row = next(row for row in rows if row["size"] == size and row["program"] == name)
            tall = height * row["nanosecondsPerMessage"] / highest
            out.append(f'<rect x="{group + place * bar:.1f}" y="{top + height - tall:.1f}" width="{bar - 6}" '
                       f'height="{tall:.1f}" fill="{colours[name]}"/>')
    for place, (name, colour) in enumerate(colours.items()):
        x = left + place * 150
        out.append(f'<rect x="{x}" y="{top + height + 58}" width="12" height="12" fill="{colour}"/>'
                   f'<text x="{x + 18}" y="{top + height + 69}">{name}</text>')
    return "\n".join(out + ["</svg>", ""])


def machine():
    with open("/proc/cpuinfo", encoding="utf-8") as info:
        model = next((line.split(":", 1)[1].strip() for line in info if line.startswith("model name")), "unknown")
    return f"{model}, {os.cpu_count()} cores, {platform.system()} {platform.machine()}"


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--programs", required=True)
    parser.add_argument("--results", required=True)
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--rounds", type=int)
    parser.add_argument("--json")
    arguments = parser.parse_args()
    rounds = arguments.rounds or (3 if arguments.quick else 5)
    counts = {mode: count // 20 if arguments.quick else count for mode, count in COUNTS.items()}

    results = {"machine": machine(), "rounds": rounds, "base": BASE,
               "transfers": summarize(transfers(arguments.programs, rounds, counts)),
               "codec": codec(arguments.programs, arguments.quick)}
    os.makedirs(arguments.results, exist_ok=True)
    files = {"results.json": json.dumps(results, indent=2) + "\n", "report.md": report(results)}
    for transport in TRANSPORTS:
        for mode in MODES:
            files[f"{transport}-{mode}.svg"] = picture(results, transport, mode)
    for name, content in files.items():
        with open(os.path.join(arguments.results, name), "w", encoding="utf-8") as file:
            file.write(content)
    if arguments.json:
        with open(arguments.json, "w", encoding="utf-8") as file:
            file.write(files["results.json"])
    print(files["report.md"])
    progress(f"results are in {arguments.results}")


if __name__ == "__main__":
    main()
