// Every operation without memory: each scenario is run again and again, with another allocation failing each
// time.

#include "proof/allocations/library_map.h"
#include "proof/allocations/runner.h"
#include "proof/allocations/scenario.h"
#include "proof/proof_program.h"

int main(int argc, char** argv) {
    const ProofOptions_ options(argc, argv);
    const LibraryMap_ library;
    FailingHeap_::get().setLibrary(library);

    Scenarios_ scenarios;
    addMessageScenarios(scenarios);
    addTerminalScenarios(scenarios);
    addStreamScenarios(scenarios);
    addCScenarios(scenarios);

    ProofReport_ report;
    Runner_ runner(scenarios, report);
    runner.proveAll(options.m_isQuick ? 7 : 1);
    runner.reportFigures();
    if (options.m_isListing) runner.list();
    // Beside the result, for whoever compares with the calls that stand in the library.
    if (!runner.writeCalls(options.m_json + ".calls")) report.addFinding("the calls cannot be written");
    return report.write(options.m_json);
}
