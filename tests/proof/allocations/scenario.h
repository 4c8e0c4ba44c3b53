#ifndef VEKMSG_TESTS_PROOF_SCENARIO_H
#define VEKMSG_TESTS_PROOF_SCENARIO_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "proof/allocations/failing_heap.h"

/// One run of a scenario: makes its calls of the library, in which allocations fail by plan, and takes what
/// is wrong with their results.
class Run_ {
public:
    /// Makes one call. An exception that leaves it is a finding, and the result then that of nothing.
    template <class Call>
    auto call(const char* p_operation, Call call) -> decltype(call()) {
        const unsigned int before = FailingHeap_::get().failures();
        const Struck_ struck{*this, before};
        m_p_operation = p_operation;
        try {
            const FailingHeap_::Armed_ armed;
            return call();
        } catch (...) {
            require(false, "an exception leaves");
        }
        return decltype(call())();
    }

    /// The same for a call whose result says whether it succeeded, which it has to with all its memory.
    template <class Call>
    auto succeeds(const char* p_operation, Call call) -> decltype(call()) {
        auto result = this->call(p_operation, call);
        require(static_cast<bool>(result) || hasStruckInCall(), "fails with all its memory");
        return result;
    }

    /// Whether an allocation failed in the last call, or in this run so far.
    bool hasStruckInCall() const { return m_hasStruckInCall; }
    static bool hasStruck() { return FailingHeap_::get().failures() != 0; }

    /// What has to hold after the last call.
    void require(bool holds, const char* p_what) {
        if (holds) return;
        const FailingHeap_::Unwatched_ unwatched;
        m_wrongs.push_back(std::string(m_p_operation) + ": " + p_what);
    }

    /// What has to hold only where nothing has failed.
    void requireUntouched(bool holds, const char* p_what) { require(holds || hasStruck(), p_what); }

    /// Names what is being done for the findings, where it is not a call().
    void at(const char* p_step) { m_p_operation = p_step; }

    const std::vector<std::string>& wrongs() const { return m_wrongs; }

private:
    /// Notes at the end of a call, however it ends, whether an allocation failed in it.
    struct Struck_ {
        Run_& m_run;
        unsigned int m_before;
        ~Struck_() { m_run.m_hasStruckInCall = FailingHeap_::get().failures() != m_before; }
    };

    const char* m_p_operation = "";
    bool m_hasStruckInCall = false;
    std::vector<std::string> m_wrongs;
};

/// One situation and the calls made in it.
class Scenario_ {
public:
    virtual ~Scenario_() = default;

    /// With memory: brings the situation about.
    virtual void prepare() = 0;

    /// The calls under proof.
    virtual void act(Run_& run) = 0;

    /// With memory again: the objects still work.
    virtual void proveUse(Run_& run) = 0;
};

struct ScenarioEntry_ {
    std::string m_name;
    std::function<std::unique_ptr<Scenario_>()> m_make;
};

using Scenarios_ = std::vector<ScenarioEntry_>;

/// A scenario in the situation that `Situation` brings about with prepare(), and proves of use with
/// proveUse(run).
template <class Situation>
class Acting_ : public Scenario_ {
public:
    using Arrange_ = void (*)(Situation&);
    using Act_ = void (*)(Situation&, Run_&);

    Acting_(Arrange_ arrange, Act_ act) : m_arrange(arrange), m_act(act) {}

    void prepare() override {
        m_situation.prepare();
        if (m_arrange != nullptr) m_arrange(m_situation);
    }
    void act(Run_& run) override { m_act(m_situation, run); }
    void proveUse(Run_& run) override { m_situation.proveUse(run); }

private:
    Situation m_situation;
    Arrange_ m_arrange;
    Act_ m_act;
};

/// Adds scenarios of one situation to a list.
template <class Situation>
class ScenariosOf_ {
public:
    using Acting = Acting_<Situation>;

    explicit ScenariosOf_(Scenarios_& list) : m_list(list) {}

    void add(const char* p_name, typename Acting::Arrange_ arrange, typename Acting::Act_ act) {
        m_list.push_back({p_name, [arrange, act] { return std::make_unique<Acting>(arrange, act); }});
    }
    void add(const char* p_name, typename Acting::Act_ act) { add(p_name, nullptr, act); }

private:
    Scenarios_& m_list;
};

void addMessageScenarios(Scenarios_& list);
void addTerminalScenarios(Scenarios_& list);
void addStreamScenarios(Scenarios_& list);
void addCScenarios(Scenarios_& list);

#endif
