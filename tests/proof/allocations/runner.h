#ifndef VEKMSG_TESTS_PROOF_RUNNER_H
#define VEKMSG_TESTS_PROOF_RUNNER_H

#include <map>
#include <string>
#include <vector>

#include "proof/allocations/failing_heap.h"
#include "proof/allocations/scenario.h"
#include "proof/proof_program.h"

/// Runs every scenario with its 1st, 2nd, ... last allocation failing in each mode, both in a thread that has
/// no used memory on its lists and in one that has, and judges what it leaves behind.
class Runner_ {
public:
    Runner_(const Scenarios_& scenarios, ProofReport_& report);

    /// `stride` leaves out allocations of long scenarios; 1 leaves out none.
    void proveAll(unsigned int stride);

    void reportFigures();

    /// Writes each place in the library from which memory was asked: its address in the file, a line each.
    bool writeCalls(const std::string& path) const;

    /// The allocations that each variant of each scenario makes; after proveAll().
    void list() const;

private:
    struct Variant_ {
        unsigned int m_scenario;
        bool m_isWarm;
    };
    struct Outcome_ {
        unsigned int m_allocations;
        unsigned int m_failures;
    };

    Outcome_ run(const Variant_& variant, const FailurePlan_& plan);
    void runStages(const Variant_& variant, const FailurePlan_& plan, Run_& run, Outcome_& outcome);
    void closeAbandoned();
    void judgeRemains(const std::vector<int>& descriptors, Run_& run);
    void prove(const Variant_& variant, unsigned int stride);
    void aimAtWhatNeverFailed();
    void addFindings(const std::string& label, const std::vector<std::string>& wrongs);
    std::string label(const Variant_& variant, const FailurePlan_& plan) const;

    const Scenarios_& m_scenarios;
    ProofReport_& m_report;
    FailingHeap_& m_heap = FailingHeap_::get();
    std::vector<std::pair<Variant_, unsigned int>> m_lengths;
    std::map<std::string, unsigned int> m_findings;  // by text, with how often
    std::map<std::string, std::string> m_firstPlaces;
    unsigned long long m_points = 0;
    unsigned long long m_pointsByMode[6] = {};
    unsigned long long m_aimedPoints = 0;
    unsigned long long m_abandoned = 0;
};

#endif
