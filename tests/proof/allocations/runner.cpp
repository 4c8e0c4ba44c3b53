#include "proof/allocations/runner.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <iostream>
#include <set>

#include "vekmsg/log.h"

namespace {

constexpr unsigned int kLimitInSec = 60;         // for one run
constexpr unsigned int kLongScenario = 20;       // allocations from which on a stride is used
constexpr unsigned int kVeryLongScenario = 100;  // the same where one fails
constexpr unsigned int kMostAimedRounds = 10;

constexpr FailureMode_ kModes[] = {FailureMode_::One, FailureMode_::AllAfter, FailureMode_::NonThrowing,
                                   FailureMode_::Throwing, FailureMode_::EveryOther};

const char* nameOf(FailureMode_ mode) {
    switch (mode) {
        case FailureMode_::One:
            return "one fails";
        case FailureMode_::AllAfter:
            return "all from there on fail";
        case FailureMode_::NonThrowing:
            return "non-throwing ones fail";
        case FailureMode_::Throwing:
            return "throwing ones fail";
        case FailureMode_::EveryOther:
            return "every other fails";
        default:
            return "none fails";
    }
}

std::vector<int> openDescriptors() {
    std::vector<int> descriptors;
    DIR* p_folder = opendir("/proc/self/fd");
    while (const dirent* p_entry = readdir(p_folder)) {
        const int descriptor = std::atoi(p_entry->d_name);
        if (p_entry->d_name[0] != '.' && descriptor != dirfd(p_folder)) descriptors.push_back(descriptor);
    }
    closedir(p_folder);
    std::sort(descriptors.begin(), descriptors.end());
    return descriptors;
}

// A run that ends the process, or does not end itself, can only be named: what it holds is not in order.

char g_label[256] = "";

void tellPoint(const char* p_what) {
    const auto tell = [](const char* p_text) { return write(STDERR_FILENO, p_text, std::strlen(p_text)); };
    if (tell(g_label) >= 0 && tell(": ") >= 0 && tell(p_what) >= 0 && tell("\n") >= 0) _exit(3);
    _exit(4);
}

void onSignal(int number) {
    tellPoint(number == SIGALRM ? "does not end" : "ends the process");
}

void onTerminate() {
    tellPoint("an exception that nobody catches");
}

void watchForTheWorst() {
    for (const int number : {SIGALRM, SIGSEGV, SIGBUS, SIGABRT, SIGFPE, SIGILL}) signal(number, onSignal);
    std::set_terminate(onTerminate);
}

/// All records are formatted, as for an application that wants them.
void takeRecord(void*, int, const LogSite*, const char*) {}

}  // namespace

Runner_::Runner_(const Scenarios_& scenarios, ProofReport_& report)
    : m_scenarios(scenarios), m_report(report) {
    watchForTheWorst();
    vekmsg_log_set_sink(takeRecord, nullptr);
    vekmsg_log_set_threshold(7);
}

std::string Runner_::label(const Variant_& variant, const FailurePlan_& plan) const {
    std::string text = m_scenarios[variant.m_scenario].m_name + (variant.m_isWarm ? " [warm, " : " [");
    text += nameOf(plan.m_mode);
    if (plan.m_mode != FailureMode_::None) text += ", " + std::to_string(plan.m_number);
    if (plan.isAimed()) text += ", aimed";
    return text + "]";
}

Runner_::Outcome_ Runner_::run(const Variant_& variant, const FailurePlan_& plan) {
    const std::string label = this->label(variant, plan);
    std::strncpy(g_label, label.c_str(), sizeof(g_label) - 1);
    alarm(kLimitInSec);
    const std::vector<int> descriptors = openDescriptors();
    Run_ run;
    Outcome_ outcome{0, 0};
    runStages(variant, plan, run, outcome);
    judgeRemains(descriptors, run);
    alarm(0);
    addFindings(label, run.wrongs());
    return outcome;
}

void Runner_::runStages(const Variant_& variant, const FailurePlan_& plan, Run_& run, Outcome_& outcome) {
    std::unique_ptr<Scenario_> p_scenario;
    const auto stage = [&](const char* p_name, const std::function<void()>& step) {
        run.at(p_name);
        try {
            step();
        } catch (const std::exception& exception) {
            run.require(false, exception.what());
        }
    };
    const auto prepare = [&] {
        p_scenario = m_scenarios[variant.m_scenario].m_make();
        p_scenario->prepare();
    };
    const auto act = [&] {
        m_heap.begin(plan, variant.m_scenario, variant.m_isWarm);
        p_scenario->act(run);
        outcome = {m_heap.allocations(), m_heap.failures()};
        closeAbandoned();
    };
    const auto proveUse = [&] {
        p_scenario->proveUse(run);
        p_scenario.reset();
    };
    const auto warmUp = [&] {
        Run_ unjudged;
        prepare();
        m_heap.begin(FailurePlan_(), variant.m_scenario, true);
        p_scenario->act(unjudged);
        p_scenario->proveUse(unjudged);
        p_scenario.reset();
    };
    const auto inWatchedThread = [](const std::function<void()>& work) {
        inFreshThread([&] {
            FailingHeap_::watchThisThread();
            work();
        });
    };
    if (variant.m_isWarm) {
        inWatchedThread([&] {
            stage("warming up", warmUp);
            stage("preparing", prepare);
            stage("acting", act);
        });
    } else {
        inWatchedThread([&] { stage("preparing", prepare); });
        inWatchedThread([&] { stage("acting", act); });
    }
    inWatchedThread([&] {
        stage("proving the use", proveUse);
        p_scenario.reset();
    });
}

/// Those which the library leaves open, as is its way, when it has accepted a descriptor and has no memory to
/// make a socket of it.
void Runner_::closeAbandoned() {
    for (const int descriptor : m_heap.abandoned()) {
        if (descriptor == -1 || fcntl(descriptor, F_GETFD) == -1) continue;
        close(descriptor);
        ++m_abandoned;
    }
}

void Runner_::judgeRemains(const std::vector<int>& descriptors, Run_& run) {
    run.at("after the run");
    for (const int descriptor : openDescriptors()) {
        if (std::binary_search(descriptors.begin(), descriptors.end(), descriptor)) continue;
        run.require(false, "a descriptor is left open");
        close(descriptor);
    }
    if (m_heap.heldBlocks() == 0) return;
    run.require(false, ("memory is left: " + m_heap.siteOfHeldBlock()).c_str());
    m_heap.forgetHeldBlocks();
}

void Runner_::addFindings(const std::string& label, const std::vector<std::string>& wrongs) {
    for (const std::string& wrong : wrongs) {
        const std::string scenario = label.substr(0, label.find(" ["));
        const std::string text = scenario + ": " + wrong;
        if (m_findings[text]++ == 0) m_firstPlaces[text] = label.substr(scenario.size() + 1);
    }
}

void Runner_::prove(const Variant_& variant, unsigned int stride) {
    const unsigned int length = run(variant, FailurePlan_()).m_allocations;
    m_lengths.emplace_back(variant, length);
    for (const FailureMode_ mode : kModes) {
        const bool isWhole = length < (mode == FailureMode_::One ? kVeryLongScenario : kLongScenario);
        for (unsigned int number = 1; number <= length; number += isWhole ? 1 : stride) {
            FailurePlan_ plan;
            plan.m_mode = mode;
            plan.m_number = number;
            if (run(variant, plan).m_failures == 0) continue;
            ++m_points;
            ++m_pointsByMode[static_cast<unsigned int>(mode)];
        }
    }
}

void Runner_::proveAll(unsigned int stride) {
    for (unsigned int scenario = 0; scenario < m_scenarios.size(); ++scenario) {
        prove({scenario, false}, stride);
        prove({scenario, true}, stride);
        showProgress("allocations: scenarios", scenario + 1, m_scenarios.size());
    }
    aimAtWhatNeverFailed();
}

/// Some sites are reached only after other allocations have failed, and then were not the ones to fail: the
/// run that saw such a site first is made again with that site failing too.
void Runner_::aimAtWhatNeverFailed() {
    for (unsigned int round = 0; round < kMostAimedRounds; ++round) {
        bool isDone = true;
        for (std::size_t i = 0; i < m_heap.sites().size(); ++i) {
            const AllocationSite_ site = m_heap.sites()[i];
            if (site.m_failures != 0) continue;
            FailurePlan_ plan = site.m_plan;
            plan.addAim(static_cast<int>(i));
            if (run({site.m_scenario, site.m_isWarm}, plan).m_failures != 0) ++m_aimedPoints;
            isDone = false;
        }
        if (isDone) return;
    }
}

void Runner_::reportFigures() {
    const auto& sites = m_heap.sites();
    const auto count = [&](const std::function<bool(const AllocationSite_&)>& isMeant) {
        return static_cast<unsigned long long>(std::count_if(sites.begin(), sites.end(), isMeant));
    };
    m_report.addFigure("scenarios", m_scenarios.size());
    m_report.addFigure("points (runs with a failure)", m_points + m_aimedPoints);
    for (const FailureMode_ mode : kModes)
        m_report.addFigure(std::string("points where ") + nameOf(mode),
                           m_pointsByMode[static_cast<unsigned int>(mode)]);
    m_report.addFigure("points aimed at sites behind a failure", m_aimedPoints);
    m_report.addFigure("allocation sites failed",
                       count([](const AllocationSite_& s) { return s.m_failures != 0; }), sites.size());
    m_report.addFigure("allocation sites reached without a failure",
                       count([](const AllocationSite_& s) { return s.m_isSeenUnfailed; }));
    m_report.addFigure("descriptors left by the accept path", m_abandoned);
    m_report.addFigure("functions noted for a thread's end", m_heap.threadEnds());
    if (m_heap.fatalThreadEnds() != 0)
        m_report.addFinding("a function is noted for a thread's end while memory is gone, " +
                            std::to_string(m_heap.fatalThreadEnds()) + " times");
    for (const AllocationSite_& site : sites)
        if (site.m_failures == 0)
            m_report.addFinding("never failed: " + m_heap.describe(site) + ", seen in " +
                                label({site.m_scenario, site.m_isWarm}, site.m_plan));
    for (const auto& [variant, length] : m_lengths)
        if (length == 0 && !variant.m_isWarm)
            m_report.addFinding(m_scenarios[variant.m_scenario].m_name + ": makes no allocation");
    for (const auto& [text, times] : m_findings)
        m_report.addFinding(text + " " + m_firstPlaces[text] + ", " + std::to_string(times) + " times");
}

bool Runner_::writeCalls(const std::string& path) const {
    std::ofstream file(path);
    for (const AllocationSite_& site : m_heap.sites()) file << std::hex << site.m_frames[0] << '\n';
    file.close();
    return !file.fail();
}

void Runner_::list() const {
    for (const auto& [variant, length] : m_lengths)
        std::cout << m_scenarios[variant.m_scenario].m_name << (variant.m_isWarm ? " (warm)" : "") << ": "
                  << length << " allocations\n";
    for (const AllocationSite_& site : m_heap.sites())
        std::cout << "site " << m_heap.describe(site) << ": failed " << site.m_failures << " times\n";
}
