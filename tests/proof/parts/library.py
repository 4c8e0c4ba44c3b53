"""The finished shared library: how it is linked, what it exports, and that its host process is left alone.

Each check is a test of tests/packaging, which looks into the delivered file or uses it as an application does: linked
to it, or loading it while it runs. They are carried out here on the release build of each architecture.
"""

import re

import builds as frame
import suite
from report import Figure, Result

NAME = "library"
PROVES = "the finished library is hardened, exports what is documented and leaves its host alone"

TARGETS = ("packaging_test", "host_process_test", "loaded_library_test")
GUARDS = "SharedLibrary.functionsWithArraysOnTheStackCheckTheirGuard"

CHECKS = {
    "SharedLibrary.isResolvedAndSealedWhenItIsLoaded": "full RELRO: relocations are done and sealed at load",
    GUARDS: "every function with an array on the stack has a stack protector, and every source is compiled with it",
    "SharedLibrary.wantsNoExecutableStack": "the stack is not executable",
    "SharedLibrary.carriesNoSearchPath": "no run path",
    "SharedLibrary.leavesItsCodeAsItIsInTheFile": "no text relocations",
    "SharedLibrary.exportsExactlyTheListedNames": "the documented names are exported and no others",
    "SharedLibrary.everyExportedNameBearsTheVersionNode": "each exported name has the version of the interface",
    "SharedLibrary.itsNameCarriesTheMajorVersion": "the name to load it by carries the major version",
    "SharedLibrary.needsTheStandardLibraryAlone": "it needs the standard library and nothing else",
    "SharedLibrary.everyNameThatItTakesComesFromTheStandardLibrary": "every name it takes is the standard library's",
    "HostProcess.keepsItsSignals": "dispositions, masks and the alternate stack of signals stay",
    "HostProcess.keepsItsTimers": "interval timers stay",
    "HostProcess.keepsItsFileMaskAndIdentity": "the file mode mask, identities and capabilities stay",
    "HostProcess.keepsItsLocale": "the locales of C and C++ and the floating-point environment stay",
    "HostProcess.keepsItsFolder": "the working directory stays",
    "HostProcess.keepsItsEnvironment": "the environment stays",
    "HostProcess.keepsItsLimitsAndPriority": "resource limits and the priority stay",
    "HostProcess.keepsItsDescriptors": "no descriptor is left, and the flags of the others stay",
    "HostProcess.keepsItsStandardStreams": "buffers and formatting of the standard streams stay",
    "HostProcess.keepsItsHandlersOfLastResort": "the terminate and new handlers stay",
    "HostProcess.getsNoThread": "no thread is made",
    "HostProcess.isNotEndedByAPeerThatWent": "SIGPIPE with its default action never comes",
    "HostProcess.getsNothingOnStandardOutput": "nothing is written on standard output",
    "HostProcess.getsRecordsAndNothingElseOnStandardError": "records alone are written on standard error",
    "HostProcess.keepsErrnoWhenARecordIsWritten": "writing a record keeps errno",
    "HostProcess.mayExitWithATerminalOpen": "an exit with a terminal open is an ordinary one",
    "HostProcess.mayLeaveATerminalToTheEndOfTheProgram": "a static terminal closes after main, with its socket file",
    "LoadedLibrary.neverUsedItGoesAtOnce": "loaded and not used, it is unloaded whole",
    "LoadedLibrary.goesWithEverythingWhenItsThreadHasEnded": "loaded, used and unloaded ten times, it leaves no memory",
    "LoadedLibrary.unloadedByTheThreadThatUsedItItStaysUntilThatThreadEnds": "unloading under a thread is safe",
    "LoadedLibrary.anExitAfterUnloadingIsAnOrdinaryOne": "an exit after unloading is an ordinary one",
}


def exported_names(builds, bits):
    listed = builds.run(["nm", "--dynamic", "--defined-only", str(builds.library(bits))], capture=True)
    if listed.returncode != 0:
        raise frame.Failed("the library's symbols cannot be listed")
    return [line for line in listed.stdout.splitlines() if line.split()[1] != "A"]


def check(builds, bits):
    preset = frame.PRESETS[bits]
    for target in TARGETS:
        builds.build(preset, target)
    outcomes = {outcome.name: outcome for outcome in suite.carry_out(builds, preset, builds.jobs, CHECKS, limit=600)}
    passed = [name for name in CHECKS if name in outcomes and outcomes[name].has_passed]
    result = Result([
        Figure("size of the library", builds.library(bits).stat().st_size, bits=bits, unit="bytes"),
        Figure("exported names", len(exported_names(builds, bits)), bits=bits),
        Figure("checks passed", len(passed), of=len(CHECKS), bits=bits),
    ])
    for name, holds in CHECKS.items():
        if name not in outcomes:
            result.findings.append(f"{name} is not among the tests ({bits} bit)")
        elif name not in passed:
            result.findings.append(f"does not hold: {holds} ({name}, {bits} bit)")
    guards = re.search(r"(\d+) functions check their guard", outcomes[GUARDS].output if GUARDS in outcomes else "")
    if guards:
        result.figures.append(Figure("functions with a stack protector", int(guards.group(1)), bits=bits))
    return result


def run(builds):
    result = Result(remarks=[f"{holds} (`{name}`)" for name, holds in CHECKS.items()])
    for bits in (64, 32):
        result.add(check(builds, bits))
    return result
