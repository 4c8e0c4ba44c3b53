"""Tables and pictures of benchmark results, and the tables of docs/performance.md."""

import os
import re

TRANSPORTS = ("unix", "tcp")
SIZES = (64, 1024, 8192)
BATCHES = (1, 2, 10)
PEERS = (10, 50, 90)
RATES = ("stream", "fanin")  # more is better; the others are times
COSTS = ("pagesPerTerminal", "pagesPerConnection", "pagesPerQueuedMessage", "microsecondsToFirstMessage")
SEGMENTS = ("On TCP \"at\" says how many segments a message took: what is joined is compared with what is joined, and "
            "\"no base\" means that no run of the bare program was joined alike.")
CODEC_WORDS = "Processor time, ratio to the library: above 1 is slower than it."
BASE = "bare protocol"
SAME_POLLS = "bare, same polls"
SAME_CALLS = "bare, same calls"
LIBRARY = "libvekmsg"
ASKING_EACH = f"{LIBRARY}, asking each"
CALLS = ("send", "recv", "accept", "poll", "other")
MODES = {"rtt": "round trip", "stream": "one way", "burst": "burst", "fanin": "fan-in"}
APART = "tcp apart"  # TCP where no message is joined with another: see run.py
LOCAL = {"unix": "local", "tcp": "TCP", APART: "TCP apart"}
PLACES = {"one": "one core", "two": "one core each", "free": "free"}
PAGE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "docs", "performance.md")


def describe(case):
    words = [LOCAL[case["transport"]], MODES[case["mode"]], f"{case['size']} bytes"]
    if case["peers"] > 1:
        words.append(f"{case['peers']} peers")
    if case["batch"]:
        words.append(f"{case['batch']} and a reply")
    return ", ".join(words + [PLACES[case["cores"]]])


def case_of(transport, mode, size=64, peers=1, batch=0, cores="one"):
    return {"transport": transport, "mode": mode, "size": size, "peers": peers, "batch": batch, "cores": cores}


class Results:
    """Finds rows by case and program."""

    def __init__(self, results):
        self.transfers = results["transfers"]
        self.programs = list(dict.fromkeys(row["program"] for row in self.transfers))

    def row(self, case, program):
        for row in self.transfers:
            if row["program"] == program and all(row[key] == value for key, value in case.items()):
                return row
        return None


def table(heads, rows):
    lines = ["| " + " | ".join(heads) + " |", "|" + "---|" * len(heads)]
    return "\n".join(lines + ["| " + " | ".join(row) + " |" for row in rows])


def spread_text(spread):
    return f"{spread['median']:.2f} ({spread['lowest']:.2f} to {spread['highest']:.2f})"


def inverse(spread):
    return {"median": 1 / spread["median"], "lowest": 1 / spread["highest"], "highest": 1 / spread["lowest"]}


def ratio_cell(row, key):
    if row is None:
        return ""
    is_rate = row["mode"] in RATES
    segments = f" at {row['segments']:.2f}" if is_rate and "segments" in row else ""
    if key not in row:
        return f"no base{segments}"
    return spread_text(inverse(row[key]) if is_rate else row[key]) + segments


def ratio_table(results, cases, names):
    """Once by the clock and once in processor time."""
    by_clock, by_processor = (one_ratio_table(results, cases, names, key) for key in ("nanoseconds", "cpuNanoseconds"))
    return f"{by_clock}\n\nIn processor time of all processes, which other programs disturb least:\n\n{by_processor}"


def one_ratio_table(results, cases, names, key):
    rows = []
    for program in results.programs:
        cells = [ratio_cell(results.row(case, program), f"{key}Ratio") for case in cases]
        if any(cells):
            rows.append([program, *cells])
    base = [results.row(case, BASE) for case in cases]
    rows.append([f"*{BASE}, us*", *(f"{row[key]['median'] / 1000:.2f}" if row else "" for row in base)])
    return table(["program", *names], rows)


def size_table(results, mode):
    cases = [case_of(transport, mode, size) for transport in TRANSPORTS for size in SIZES]
    return ratio_table(results, cases, [f"{LOCAL[case['transport']]} {case['size']}" for case in cases])


def place_table(results):
    cases = [case_of(transport, mode, cores=cores)
             for transport in TRANSPORTS for mode in ("rtt", "stream") for cores in ("two", "free")]
    names = [f"{LOCAL[case['transport']]} {MODES[case['mode']]}, {PLACES[case['cores']]}" for case in cases]
    return ratio_table(results, cases, names)


def quotient_tables(results, cases, names, words, other_of, is_rate=False):
    """Medians divided by those of another row, `other_of(case, program)`: by the clock and in processor time."""
    parts = []
    for key, unit in (("nanoseconds", "by the clock"), ("cpuNanoseconds", "in processor time")):
        rows = []
        for program in results.programs:
            pairs = [(results.row(case, program), other_of(case, program)) for case in cases]
            times = [[row[key]["median"] for row in pair] if all(pair) else None for pair in pairs]
            cells = [f"{pair[is_rate] / pair[not is_rate]:.2f}" if pair else "" for pair in times]
            if any(cells):
                rows.append([program, *cells])
        parts += [f"{words}, {unit}:", table(["program", *names], rows)]
    return "\n\n".join(parts)


def burst_table(results):
    cases = [case_of(transport, "burst", batch=batch) for transport in TRANSPORTS for batch in BATCHES]
    names = [f"{LOCAL[case['transport']]} {case['batch']}" for case in cases]
    own = quotient_tables(results, cases, names, "Time as a multiple of the program's own with one message and a reply",
                          lambda case, program: results.row(case | {"batch": 1}, program))
    return f"{ratio_table(results, cases, names)}\n\n{own}"


def fan_table(results):
    cases = [case_of(transport, "fanin", peers=peers) for transport in (*TRANSPORTS, APART) for peers in (1, *PEERS)]
    names = [f"{LOCAL[case['transport']]} {case['peers']}" for case in cases]
    own = quotient_tables(results, cases, names, "Rate as a multiple of the program's own with one sender",
                          lambda case, program: results.row(case | {"peers": 1}, program), is_rate=True)
    return f"{ratio_table(results, cases, names)}\n\n{own}"


def many_table(results):
    cases = [case_of(transport, "rtt", peers=peers) for transport in TRANSPORTS for peers in PEERS]
    names = [f"{LOCAL[case['transport']]} {case['peers']}" for case in cases]
    tables = [quotient_tables(results, cases, names, f"Time as a multiple of *{base}*",
                              lambda case, _, base=base: results.row(case, base))
              for base in (SAME_POLLS, SAME_CALLS)]
    return "\n\n".join([ratio_table(results, cases, names), *tables, many_calls_table(results, cases, names)])


def many_calls_table(results, cases, names):
    """Beside those of the library that asks each socket, with what part of them are made."""
    rows = []
    for program in (LIBRARY, ASKING_EACH):
        found = [results.row(case, program) for case in cases]
        rows.append([program, *(f"{calls_of(row):.1f}" if row else "" for row in found)])
    pairs = [[results.row(case, program) for program in (LIBRARY, ASKING_EACH)] for case in cases]
    rows.append(["part of them", *(f"{calls_of(own) / calls_of(other):.2f}" if own and other else ""
                                   for own, other in pairs)])
    words = "Calls to the kernel for a round trip, in both processes together, counted:"
    return f"{words}\n\n{table(['program', *names], rows)}"


def calls_of(row):
    return sum(side[call] for side in row["calls"].values() for call in CALLS)


def codec_table(results, operation):
    payloads = list(dict.fromkeys(row["payload"] for row in results["codecs"]))
    rows = []
    for codec in dict.fromkeys(row["codec"] for row in results["codecs"]):
        cells = [codec]
        for payload in payloads:
            row = next(row for row in results["codecs"]
                       if (row["codec"], row["payload"], row["operation"]) == (codec, payload, operation))
            cells.append(f"{row['nanoseconds']['median']:.0f} ns, {spread_text(row['ratio'])}, "
                         f"{row['bytes']:.0f} bytes, {row['allocations']:.1f} allocations")
        rows.append(cells)
    return table(["codec", *payloads], rows)


def cost_table(results):
    costs = results["costs"]
    rows = [["stripped `.so`, bytes", *(f"{row['strippedBytes']}" for row in costs)]]
    names = {"pagesPerTerminal": "pages per terminal", "pagesPerConnection": "pages per idle connection",
             "pagesPerQueuedMessage": "pages per queued message of 64 bytes",
             "microsecondsToFirstMessage": "process start to first message, us"}
    for key in COSTS:
        rows.append([names[key], *(spread_text(row[key]) for row in costs)])
    return table(["figure", *(f"{row['bits']} bit" for row in costs)], rows)


def calls_table(results):
    keys = (*CALLS, "allocations")
    rows = []
    for cost in results["costs"]:
        for case in cost["calls"]:
            if case["size"] != 64:
                continue
            for side in ("sender", "receiver"):
                rows.append([f"{cost['bits']}", describe(case), side, *(f"{case[side][key]:.2f}" for key in keys)])
    return table(["bits", "case", "side", *keys], rows)


def sections(results):
    """Title, words and table of each part, by the name that the page knows it by."""
    found = Results(results)
    return {
        "round-trip": ("Round trip", "Time as a ratio: below 1 is faster.", size_table(found, "rtt")),
        "one-way": ("One way", f"Rate as a ratio: above 1 is faster. {SEGMENTS}", size_table(found, "stream")),
        "places": ("Other placements", "64 bytes. Round trip: below 1 is faster. One way: above 1 is faster.",
                   place_table(found)),
        "burst": ("Burst", "So many messages of 64 bytes, then one reply. Time as a ratio: below 1 is faster.",
                  burst_table(found)),
        "fan-in": ("Fan-in", f"So many senders of 64 bytes. Rate as a ratio: above 1 is faster. {SEGMENTS}",
                   fan_table(found)),
        "many": ("Many connections, one busy", "Round trip of 64 bytes. Time as a ratio: below 1 is faster.",
                 many_table(found)),
        "encode": ("Encoding", CODEC_WORDS,
                   codec_table(results, "encode")),
        "decode": ("Decoding, every value read once", CODEC_WORDS,
                   codec_table(results, "decode")),
        "costs": ("Costs besides time", "Pages are those that become resident and private.", cost_table(results)),
        "calls": ("Calls and allocations of the library", "Counted, per round trip, message or burst of 64 bytes.",
                  calls_table(results)),
    }


def conditions(results):
    kind = "a quick run, which only shows that everything works" if results["isQuick"] else "a full run"
    return (f"{results['machine']}; {kind}; medians of {results['rounds']} rounds with the lowest and the highest; "
            f"load {results['load']:.1f} (an idle machine shows about 1 during a run). Ratios are to {BASE} in the "
            "same round.")


def whole(results):
    lines = ["# Benchmark report", "", conditions(results), ""]
    for title, words, text in sections(results).values():
        lines += [f"## {title}", "", words, "", text, ""]
    lines += ["## Left out", ""] + [f"- {note}" for note in results["notes"] or ["nothing"]]
    return "\n".join(lines) + "\n"


def fill_page(results):
    """Puts each table between its two marks: <!-- table NAME --> and <!-- end NAME -->."""
    with open(PAGE, encoding="utf-8") as file:
        page = file.read()
    parts = {name: f"{words}\n\n{text}" for name, (_, words, text) in sections(results).items()}
    parts["conditions"] = conditions(results)
    for name, text in parts.items():
        pattern = rf"(<!-- table {name} -->\n).*?(<!-- end {name} -->)"
        page, count = re.subn(pattern, lambda match, text=text: f"{match[1]}{text}\n{match[2]}", page, flags=re.S)
        if count != 1:
            raise SystemExit(f"{PAGE} has {count} places for the table {name}")
    with open(PAGE, "w", encoding="utf-8") as file:
        file.write(page)


COLOURS = ("#9aa5b1", "#52606d", "#2680c2", "#62b0e8", "#c65d21", "#e0a458", "#7b5ea7", "#3f9142", "#8db580", "#b33951",
           "#c9ada7", "#1f7a8c", "#d4c400", "#5c4d3c", "#f28482")


def picture(results, title, unit, groups):
    """Bars for each group and program, with whiskers from lowest to highest. `groups`: name and case."""
    found = Results(results)
    shown = [(name, [(program, found.row(case, program)) for program in found.programs]) for name, case in groups]
    shown = [(name, [(program, row) for program, row in rows if row]) for name, rows in shown]
    highest = max(row["nanoseconds"]["highest"] for _, rows in shown for _, row in rows) / 1000
    bar, gap, left, top, height = 14, 40, 70, 50, 280
    width = sum(len(rows) * bar + gap for _, rows in shown)
    bottom = top + height
    legend = [program for program in found.programs if any(program == own for _, rows in shown for own, _ in rows)]
    legend_lines = (len(legend) + 3) // 4
    total = max(left + width + 20, 860), bottom + 60 + 20 * legend_lines + 10

    def y_of(value):
        return bottom - height * value / highest

    out = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{total[0]}" height="{total[1]}" font-family="sans-serif" '
           'font-size="12">', f'<rect width="{total[0]}" height="{total[1]}" fill="white"/>',
           f'<text x="{left}" y="26" font-size="16">{title}</text>',
           f'<line x1="{left}" y1="{bottom}" x2="{left + width}" y2="{bottom}" stroke="#333"/>',
           f'<line x1="{left}" y1="{top}" x2="{left}" y2="{bottom}" stroke="#333"/>',
           f'<text transform="translate(18,{top + height / 2}) rotate(-90)" text-anchor="middle">microseconds, less is '
           'better</text>',
           f'<text x="{left + width / 2}" y="{bottom + 42}" text-anchor="middle">{unit}</text>']
    for step in range(6):
        value = highest * step / 5
        out += [f'<text x="{left - 8}" y="{y_of(value) + 4:.1f}" text-anchor="end">{value:.1f}</text>',
                f'<line x1="{left}" y1="{y_of(value):.1f}" x2="{left + width}" y2="{y_of(value):.1f}" stroke="#ddd"/>']
    x = left + gap / 2
    for name, rows in shown:
        out.append(f'<text x="{x + len(rows) * bar / 2:.1f}" y="{bottom + 20}" text-anchor="middle">{name}</text>')
        for program, row in rows:
            median, lowest, highest_here = (row["nanoseconds"][key] / 1000 for key in ("median", "lowest", "highest"))
            colour = COLOURS[found.programs.index(program) % len(COLOURS)]
            middle = x + (bar - 2) / 2
            out += [f'<rect x="{x:.1f}" y="{y_of(median):.1f}" width="{bar - 2}" height="{bottom - y_of(median):.1f}" '
                    f'fill="{colour}"/>',
                    f'<line x1="{middle:.1f}" y1="{y_of(lowest):.1f}" x2="{middle:.1f}" y2="{y_of(highest_here):.1f}" '
                    'stroke="#000" stroke-width="1"/>']
            x += bar
        x += gap
    for place, program in enumerate(legend):
        colour = COLOURS[found.programs.index(program) % len(COLOURS)]
        left_of, top_of = left + place % 4 * 150, bottom + 60 + place // 4 * 20
        out.append(f'<rect x="{left_of}" y="{top_of}" width="12" height="12" fill="{colour}"/>'
                   f'<text x="{left_of + 18}" y="{top_of + 11}">{program}</text>')
    return "\n".join(out + ["</svg>", ""])


def pictures(results):
    files = {}
    for transport in TRANSPORTS:
        place = f"{LOCAL[transport]} sockets, one core, medians with lowest and highest"
        for mode in ("rtt", "stream"):
            unit = "round trip" if mode == "rtt" else "message, one way"
            files[f"{transport}-{mode}.svg"] = picture(
                results, f"Time per {unit}: {place}", "payload in bytes",
                [(str(size), case_of(transport, mode, size)) for size in SIZES])
        files[f"{transport}-burst.svg"] = picture(
            results, f"Time per burst: {place}", "messages of 64 bytes before the reply",
            [(str(batch), case_of(transport, "burst", batch=batch)) for batch in BATCHES])
        files[f"{transport}-fanin.svg"] = picture(
            results, f"Time per message, fan-in: {place}", "senders of 64 bytes",
            [(str(peers), case_of(transport, "fanin", peers=peers)) for peers in (1, *PEERS)])
        files[f"{transport}-many.svg"] = picture(
            results, f"Round trip with many connections: {place}", "open connections, one of them busy, 64 bytes",
            [(str(peers), case_of(transport, "rtt", peers=peers)) for peers in PEERS])
    return files
