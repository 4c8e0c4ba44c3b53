"""Every call that the library makes of the system, at every place where it makes it, failing in every way.

tests/proof/calls holds the program. It takes over the calls of the delivered library by definitions of its own, which
the dynamic linker prefers, and moves the library's clock. What counts is the cell: one place, told by where the call
returns to, and one error that applies to that call. A table of situations brings each call about, has it fail, and
states what has to come of it: the result of the public call, each record, and that the component works afterwards.
After each case no descriptor and no memory may be missing, and a time limit ends a case that hangs. The places are
held against the disassembly of the library, its imports against the calls that are taken over.

A listing of all cells goes to build/proof/calls-64.txt and calls-32.txt."""

from report import Result

NAME = "calls"
PROVES = "whatever a system call reports, at whatever place, ends as described and leaves a component that works"


def run(builds):
    result = Result()
    builds.install("binutils")
    for bits in (64, 32):
        quick = [] if builds.is_full else ["--quick"]
        result.add(builds.proof(bits, "call_proof", *quick, "--list", listing=f"calls-{bits}.txt"))
    return result
