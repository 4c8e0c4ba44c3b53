"""Operations without memory: each scenario is run again with its 1st, 2nd, ... last allocation failing, in five modes.

tests/proof/allocations holds the program: scenarios, a heap that fails by plan and knows where in the library each
allocation comes from, and a runner that looks at what is left behind. Beside what the program counts, the calls of
`operator new` that stand in the library's code are compared with those that the scenarios came through."""

import collections
import re
import subprocess

from report import Figure, Result

NAME = "allocations"
PROVES = "without memory every operation gives its documented result, leaks nothing and leaves its object usable"

# What the library may ask for memory by: the program fails all of these.
ALLOCATORS = re.compile(r"_Zn[wa][mj](RKSt9nothrow_t)?$|malloc$|calloc$|realloc$")
OTHER_ALLOCATORS = re.compile(r"_Zn[wa][mj].*align_val_t|"
                              r"(posix_memalign|aligned_alloc|memalign|valloc|strn?dup|asprintf)$")

# Calls that no scenario can reach, by part of the function's name: how many there may be in such a function, and why.
UNREACHED = {
    "VekmsgTerminal_::receiveRawPayload": (2, "a text just made has no more room than its own"),
}

CALL = re.compile(r"^\s*[0-9a-f]+:\s+(?:bnd |addr32 )?(call|jmp)\s+(?:\*0x[0-9a-f]+\(%rip\)\s+# )?[0-9a-f]+ <(\w+)(@[\w.]+)?>")
FUNCTION = re.compile(r"^[0-9a-f]+ <(.+)>:$")


def run(builds):
    result = Result(remarks=[
        "A peer's descriptor that was accepted and finds no memory for its socket is left open by design: the runner "
        "counts it, closes it and goes on.",
        "Noting a function for the end of a thread is not failed, because glibc ends the process itself when it finds "
        "no memory for that. The library asks for such memory on trial first, and that is failed: it then keeps nothing.",
        "A sub-element that is set while the look-up finds no memory is added as a second one with its tag: the "
        "look-up has found nothing.",
        "A directory that is read without memory is read in part, with a record, and the terminal opens with that.",
    ])
    for bits in (64, 32):
        arguments = [] if builds.is_full else ["--quick"]
        result.add(builds.proof(bits, "allocation_proof", *arguments))
        result.add(compare_calls(builds, bits))
    return result


def compare_calls(builds, bits):
    seen = {int(line, 16) for line in (builds.folder / f"allocation_proof-{bits}.json.calls").read_text().split()}
    calls, others = static_calls(builds.library(bits))
    result = Result(findings=[f"asks for memory in a way that never fails here: {name} ({bits} bit)"
                              for name in others])
    result.figures.append(Figure("calls of operator new in the library reached",
                                 sum(not seen.isdisjoint(returns) for _, returns, _ in calls), of=len(calls),
                                 bits=bits))
    unreached, unreachable = {}, 0
    for address, returns, function in calls:
        if seen.isdisjoint(returns):
            unreached.setdefault(function, []).append(address)
    for function, addresses in unreached.items():
        part = part_of(function)
        allowed, reason = UNREACHED.get(part, (0, ""))
        if len(addresses) > allowed:
            places = ", ".join(hex(address) for address in addresses)
            result.findings.append(f"operator new is not reached in {shortened(function)} at {places} ({bits} bit)")
            continue
        unreachable += len(addresses)
        if (remark := f"Calls of operator new not reached, {part}: {reason}.") not in result.remarks:
            result.remarks.append(remark)
    result.figures.append(Figure("calls of operator new that nothing can reach", unreachable, bits=bits))
    return result


def static_calls(library):
    """The calls as (address, where they return to, function), and other functions called that ask for memory. A function
    that ends with such a call by a jump returns to where it was called from itself."""
    listing = subprocess.run(["objdump", "-d", "-C", "--no-show-raw-insn", str(library)], capture_output=True,
                             text=True, check=True).stdout
    mangled = subprocess.run(["objdump", "-d", "--no-show-raw-insn", str(library)], capture_output=True, text=True,
                             check=True).stdout
    calls, jumps, returns, others = [], [], collections.defaultdict(set), set()
    function, symbol, called = "", "", ""
    for line, shown in zip(mangled.splitlines(), listing.splitlines()):
        if FUNCTION.match(line):
            function, symbol = FUNCTION.match(shown).group(1), FUNCTION.match(line).group(1)
        address = re.match(r"^\s*([0-9a-f]+):", line)
        if called and address:
            behind = int(address.group(1), 16)
            returns[called].add(behind)
            if ALLOCATORS.match(called):
                calls.append((behind, {behind}, function))
        call = CALL.match(line)
        called = call.group(2) if call and call.group(1) == "call" else ""
        if call and OTHER_ALLOCATORS.match(call.group(2)):
            others.add(f"{call.group(2)} in {shortened(function)}")
        elif call and call.group(1) == "jmp" and ALLOCATORS.match(call.group(2)):
            jumps.append((int(address.group(1), 16), symbol, function))
    calls += [(place, returns[symbol], function) for place, symbol, function in jumps]
    return calls, sorted(others)


def part_of(function):
    return next((part for part in UNREACHED if part in function), None)


def shortened(function):
    """Without the arguments of templates."""
    while (shorter := re.sub(r"<[^<>]*>", "", function)) != function:
        function = shorter
    return function
