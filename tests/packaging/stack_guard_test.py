"""Whether the functions of the finished library that have arrays on the stack notice a write beyond them.

Arguments: the library, the compile commands of its build, the source folder. Looks at three things: each source is
compiled with the option, each function known to have such an array is there and checks its guard before it returns, and
no array in the sources is missing from the list of these functions.
"""

import json
import pathlib
import re
import subprocess
import sys

OPTION = "-fstack-protector-strong"

# Each array on the stack, as its source declares it, and the functions of the finished library in which it ends up. Where
# a compiler may take a function into its caller, that caller stands behind "or in".
ACCEPTING = ("VekSocket_::accepted( or in VekSocket_::accept( or in "
             "VekmsgTerminalImpl_::processPollEvents(VekmsgTerminalImpl_::Accepting_")
ARRAYS = {
    "foundation/log_record.cpp: char line[24]": "(anonymous namespace)::writeToStandardError(",
    "foundation/log_record.cpp: Line_ record": "(anonymous namespace)::writeToStandardError(",
    "foundation/text_output.cpp: char digits[10]": "writeUnformatted(std::ostream&, unsigned int)",
    "terminal/terminal_wait.cpp: pollfd entries[kPollFdEntries]": "VekmsgTerminalImpl_::pollFd(",
    "transport/socket.cpp: VekSockNativeAddr_ peer": [
        "(anonymous namespace)::hasPeer( or in VekSocket_::connecting( or in VekSocket_::check(", ACCEPTING],
    "transport/socket.cpp: VekSockNativeAddr_ native": ["VekSocket_::initialize(VekSocketAddress_ const&)",
                                                        "VekSocket_::connect()"],
    "transport/socket.cpp: VekSockNativeAddr_ local": ACCEPTING,
    "transport/socket.cpp: VekSockNativeAddr_ remote": ACCEPTING,
    "transport/socket_address.cpp: char dotted[kLongestDotted + 1]": 
        "VekSocketAddress_::setRealName(char const*, char or in VekSocketAddress_::setRealName(char const*)",
}

# Arrays that never reach the stack, with the reason.
IN_REGISTERS = {
    "message/element_binary.cpp: unsigned char bytes[kUintSize]": "copied as one number",
}

LOCAL_ARRAY = re.compile(r"^\s+(?:const )?((?:unsigned char|[\w:]+) (?!m_)\w+\[[^\]]*\])(?: =|;|\{)|"
                         r"^\s+((?:VekSockNativeAddr_|Line_) (?!m_)\w+)(?: =|;)")


def local_arrays(folder):
    found = set()
    for source in sorted((folder / "src").rglob("*.cpp")):
        for line in source.read_text().splitlines():
            match = LOCAL_ARRAY.match(line)
            if match and not line.lstrip().startswith("static"):
                found.add(f"{source.relative_to(folder / 'src')}: {match.group(1) or match.group(2)}")
    return found


def unguarded_sources(compile_commands, folder):
    """Of the library's sources; and how many there are."""
    commands = {entry["file"]: entry["command"].split() for entry in json.loads(compile_commands.read_text())
                if pathlib.Path(entry["file"]).is_relative_to(folder / "src")}
    return [file for file, command in commands.items() if OPTION not in command], len(commands)


def functions(library):
    """All functions of the library, and those that check their guard: those that call what ends the process."""
    listing = subprocess.run(["objdump", "--disassemble", "--demangle", "--no-show-raw-insn", str(library)],
                             capture_output=True, text=True, check=True).stdout
    present, guarded, name = set(), set(), ""
    for line in listing.splitlines():
        if match := re.match(r"[0-9a-f]+ <(.*)>:$", line):
            name = match.group(1)
            present.add(name)
        elif "<__stack_chk_fail" in line and "call" in line:
            guarded.add(name)
    return present, guarded


def faults(library, compile_commands, folder):
    found = []
    unguarded, sources = unguarded_sources(compile_commands, folder)
    if sources < 20:
        found.append(f"only {sources} sources of the library among the compile commands")
    found += [f"{file} is compiled without {OPTION}" for file in unguarded]

    declared = local_arrays(folder)
    listed = set(ARRAYS) | set(IN_REGISTERS)
    found += [f"array that is not on this test's list: {array}" for array in sorted(declared - listed)]
    found += [f"array that is no longer there: {array}" for array in sorted(listed - declared)]

    present, guarded = functions(library)
    for names in ARRAYS.values():
        for name in [names] if isinstance(names, str) else names:
            # The innermost function that is still one of its own has the array.
            places = [place for place in name.split(" or in ") if any(each.startswith(place) for each in present)]
            if not places:
                found.append(f"no function {name} in the library")
            elif not any(each.startswith(places[0]) for each in guarded):
                found.append(f"{places[0]} does not check its guard")
    return found, len(guarded)


def main():
    library, compile_commands, folder = (pathlib.Path(argument).resolve() for argument in sys.argv[1:])
    found, guarded = faults(library, compile_commands, folder)
    print("\n".join(found + [f"{guarded} functions check their guard"]))
    sys.exit(1 if found else 0)


if __name__ == "__main__":
    main()
