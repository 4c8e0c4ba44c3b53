#ifndef VEKMSG_TESTS_BOUNDARY_RUN_H
#define VEKMSG_TESTS_BOUNDARY_RUN_H

#include <iostream>
#include <string>
#include <vector>

#include "proof/boundaries/side_by_side.h"
#include "proof/proof_program.h"

/// Runs groups of like cases, numbered from 0, and counts what they find.
class BoundaryRun_ {
public:
    explicit BoundaryRun_(const ProofOptions_& options) : m_options(options) {}

    SideBySide_& reader() { return m_reader; }

    /// What is run from here on counts for this figure.
    void beginFigure(const std::string& name);

    /// Runs `check` with the number of each case; it returns the difference that it has found, or nothing.
    /// The quick run takes a share of them: the first and the last, those about the greatest sizes, and some
    /// of all others.
    template <class Check>
    void each(const std::string& group, unsigned int whole, Check check) {
        unsigned int done = 0;
        for (unsigned int number = 0; number < whole; ++number) {
            if (m_options.m_isQuick && !isInShare(number, whole)) continue;
            if (m_options.m_isListing) std::cout << group << ", " << number << '\n';
            ++done;
            const std::string difference = check(number);
            if (!difference.empty()) addDifference(group + ", " + std::to_string(number) + ": " + difference);
            if ((done & 0xffU) == 0) showProgress(group, number, whole);
        }
        m_figures.back().m_done += done;
        m_figures.back().m_whole += whole;
    }

    /// Writes the report; the program's exit code.
    int finish();

private:
    static bool isInShare(unsigned int number, unsigned int whole);
    void addDifference(const std::string& sentence);

    struct Figure_ {
        std::string m_name;
        unsigned long long m_done;
        unsigned long long m_whole;
    };

    const ProofOptions_ m_options;
    SideBySide_ m_reader;
    ProofReport_ m_report;
    std::vector<Figure_> m_figures;
    unsigned long long m_differences = 0;
};

/// All splits in two of a greatest block, all ways to cut a name block and a skipped block, and all ways to
/// cut short messages in three.
void proveCuts(BoundaryRun_& run);

/// Every value of each 16-bit field of block headers, of a message's header items and of elements.
void proveFields(BoundaryRun_& run);

/// Every truncation of every sample: of its payload, of its message, and of its stream.
void proveTruncations(BoundaryRun_& run);

#endif
