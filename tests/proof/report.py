"""What a proof finds, and how it is shown: as a table for people, as JSON, as a page."""

import dataclasses
import json


@dataclasses.dataclass
class Figure:
    """One counted number. `of` is what it is held against, `bits` the architecture, where either applies."""

    name: str
    value: int
    of: int | None = None
    bits: int | None = None
    unit: str = ""

    def text(self):
        number = f"{self.value:,}" if self.of is None else f"{self.value:,} of {self.of:,}"
        return f"{number} {self.unit}".rstrip()


@dataclasses.dataclass
class Result:
    """`findings` are what must not be: each is a sentence, and one makes the run fail. `remarks` are what a reader has
    to know beside the figures, such as each place that nothing can reach with its reason."""

    figures: list[Figure] = dataclasses.field(default_factory=list)
    findings: list[str] = dataclasses.field(default_factory=list)
    remarks: list[str] = dataclasses.field(default_factory=list)

    def add(self, other):
        self.figures += other.figures
        self.findings += other.findings
        self.remarks += [remark for remark in other.remarks if remark not in self.remarks]


def from_json(text):
    """The result that a program printed as {"figures": [...], "findings": [...], "remarks": [...]}."""
    read = json.loads(text)
    return Result([Figure(**figure) for figure in read.get("figures", [])], read.get("findings", []),
                  read.get("remarks", []))


def table(outcomes):
    """For a terminal: the parts with their figures, then every open finding."""
    lines = []
    for part, result, seconds in outcomes:
        state = f"{len(result.findings)} OPEN" if result.findings else "no open finding"
        lines.append(f"{part.NAME}: {state} ({seconds:.0f} s)")
        for figure in result.figures:
            bits = f" [{figure.bits} bit]" if figure.bits else ""
            lines.append(f"    {figure.name + bits:<60} {figure.text():>24}")
        lines += [f"    OPEN: {finding}" for finding in result.findings]
    return "\n".join(lines)


def to_json(outcomes, description):
    return json.dumps({
        **description,
        "parts": [{"name": part.NAME, "proves": part.PROVES, "seconds": round(seconds, 1), **dataclasses.asdict(result)}
                  for part, result, seconds in outcomes],
    }, indent=1) + "\n"


def page(outcomes, description):
    """For docs/: what was proved, with its figures and remarks."""
    lines = [
        "# Proof", "",
        "What has been enumerated and checked on the finished library, written by `scripts/proof --full`; every figure",
        "is counted by that run. How each part works stands at the head of its file in `tests/proof/parts/`.", "",
        f"Machine: {description['machine']}. Compilers: {description['compilers']}. Version "
        f"{description['version']}.", "",
    ]
    for part, result, seconds in outcomes:
        lines += [f"## {part.NAME}: {part.PROVES}", "", "| figure | 64 bit | 32 bit |", "|---|---|---|"]
        by_name = {}
        for figure in result.figures:
            by_name.setdefault(figure.name, {})[figure.bits or 64] = figure
        for name, by_bits in by_name.items():
            cells = [by_bits[bits].text() if bits in by_bits else "" for bits in (64, 32)]
            lines.append(f"| {name} | {cells[0]} | {cells[1]} |")
        lines += ["", f"Open findings: {len(result.findings)}. Time: {seconds:.0f} s.", ""]
        lines += [f"- OPEN: {finding}" for finding in result.findings]
        lines += [f"- {remark}" for remark in result.remarks]
        lines.append("")
    return "\n".join(lines).rstrip() + "\n"
