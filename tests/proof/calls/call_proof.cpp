// Every call that the finished library makes of the system, at every place where it makes it, failing in
// every way that applies there; every short count of a block's bytes; and every limit of time.
//
// A cell is a place and an error. It is done when a situation has made exactly that call fail so and all that
// has to come of it has come, as the situation states.

#include <algorithm>
#include <cerrno>
#include <iostream>
#include <map>
#include <set>

#include "proof/calls/case_runner.h"
#include "proof/calls/limits.h"
#include "proof/calls/places.h"
#include "proof/calls/short_counts.h"
#include "proof/calls/situations.h"
#include "proof/proof_program.h"

namespace {

constexpr unsigned int kMostInterruptions = 3;
constexpr std::size_t kMostFindings = 40;

Situations_ allSituations() {
    Situations_ all;
    for (const auto& part : {openingSituations(), readingSituations(), acceptingSituations(),
                             connectingSituations(), sendingSituations(), waitingSituations()})
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

class CallProof_ {
public:
    explicit CallProof_(const ProofOptions_& options) : m_options(options), m_library("libvekmsg.so") {}

    int run() {
        checkImports();
        warmUp();
        playSituations();
        checkPlaces();
        playCases("time limits", timeLimits());
        playCases("waits", waitLimits());
        playCases("calls that move nothing", emptyResults());
        playCases("names in pieces", namesInPieces());
        playShortCounts();
        m_report.addFigure("descriptors left open by failing accepts, as described",
                           m_runner.leftDescriptors());
        if (isHopeless()) m_report.addFinding("too much goes wrong: the rest was not played");
        return m_report.write(m_options.m_json);
    }

private:
    void checkImports() {
        for (const std::string& name : m_library.callsNotTakenOver())
            m_report.addFinding("the library calls " + name + ", which is not taken over");
        m_report.addRemark(
            "a file is read through the standard library's stream: its fopen, read and fclose are failed, "
            "not the calls inside these");
        m_report.addRemark("what memory and threads need of the system is not among these calls");
    }

    /// Statics of the test's own helpers are made here and not inside the first case, where they would count
    /// as lost memory.
    void warmUp() {
        for (const Transport_ transport : {kLocal, kTcp}) {
            const auto works = [](Scene_& scene) { scene.works(); };
            m_runner.play("warming up", transport, works);
            judge("nothing fails", m_runner.play("nothing fails", transport, works));
        }
    }

    bool judge(const std::string& name, const Verdict_& verdict) {
        if (m_options.m_isListing) std::cout << (verdict.isGood() ? "ok    " : "WRONG ") << name << '\n';
        if (verdict.isGood()) return true;
        ++m_findings;
        m_report.addFinding(name + ": " + verdict.faults().front());
        return false;
    }

    void playSituations() {
        const Situations_ situations = allSituations();
        unsigned long done = 0;
        unsigned long whole = 0;
        for (const Situation_& situation : situations) whole += situation.errors().size();
        for (const Situation_& situation : situations) {
            for (const int error : situation.errors()) {
                playCell(situation, {error, 1});
                showProgress("calls that fail", ++done, whole);
            }
            for (unsigned int times = 2; times <= kMostInterruptions; ++times)
                playCell(situation, {EINTR, times});
        }
        m_report.addFigure("situations", situations.size());
        m_report.addFigure("failing calls played", m_goodPlays, m_plays);
        m_report.addFigure("pending errors played", m_goodPending, m_pending);
        m_report.addFigure("runs with EINTR once to three times", m_goodInterrupted, m_interrupted);
    }

    void playCell(const Situation_& situation, const Failure_& failure) {
        const std::string name = std::string(SystemCalls_::name(situation.m_call)) + ", " + situation.name() +
                                 ", " + nameOfError(failure.m_error) +
                                 (failure.m_times > 1 ? " x " + std::to_string(failure.m_times) : "");
        if (!situation.m_isPendingError && failure.m_error == EINTR) ++m_interrupted;
        if (failure.m_times == 1) ++(situation.m_isPendingError ? m_pending : m_plays);
        if (isHopeless()) return;

        forgetCalls();
        Verdict_ verdict = m_runner.play(name, situation.m_transport,
                                         [&](Scene_& scene) { situation.m_play(scene, failure); });
        std::string places;
        bool isStruck = false;
        for (const SeenPlace_& seen : seenPlaces()) {
            const std::string place = noteSeen(seen);
            if (!seen.m_isStruck || seen.m_call != situation.m_call) continue;
            isStruck = true;
            places += " at " + place;
            if (verdict.isGood() && !situation.m_isPendingError) m_done[place].insert(failure.m_error);
        }
        verdict.expect(isStruck, "the call was not made");
        if (!judge(name + places, verdict)) return;
        if (!situation.m_isPendingError && failure.m_error == EINTR) ++m_goodInterrupted;
        if (failure.m_times == 1) ++(situation.m_isPendingError ? m_goodPending : m_goodPlays);
    }

    /// Where this much goes wrong, the rest would only take long: each case may wait for what never comes.
    bool isHopeless() const { return m_findings >= kMostFindings; }

    /// The name of the place, "listen in VekSocket_::listen(unsigned int) (0x1cad6)".
    std::string noteSeen(const SeenPlace_& seen) {
        const CallSite_* p_site = m_library.siteOf(seen.m_p_return);
        if (p_site == nullptr && seen.m_call < SystemCalls_::Read)
            m_report.addFinding(std::string("a call from where the disassembly shows none: ") +
                                SystemCalls_::name(seen.m_call));
        std::string name =
            p_site != nullptr ? nameOf(*p_site)
                              : std::string(SystemCalls_::name(seen.m_call)) + " inside the standard library";
        m_seen[name] = seen.m_call;
        return name;
    }

    static std::string nameOf(const CallSite_& site) {
        char address[24];
        std::snprintf(address, sizeof(address), "0x%lx", static_cast<unsigned long>(site.m_at));
        return site.m_call + " in " + site.m_function + " (" + address + ")";
    }

    /// Holds what was seen against what the disassembler shows.
    void checkPlaces() {
        std::size_t used = 0;
        std::size_t reached = 0;
        for (const CallSite_& site : m_library.callSites()) {
            const std::string name = nameOf(site);
            const bool isSeen = m_seen.count(name) != 0;
            if (!site.m_isUsed) {
                if (isSeen) m_report.addFinding("reached, though nothing leads there: " + name);
                m_report.addRemark("a copy that the compiler kept and nothing leads to: " + name);
                continue;
            }
            ++used;
            reached += isSeen ? 1 : 0;
            if (!isSeen) m_report.addFinding("never reached: " + name);
        }
        m_report.addFigure("places in the library's code reached", reached, used);

        std::size_t whole = 0;
        std::size_t done = 0;
        for (const auto& [place, call] : m_seen) {
            const std::set<int>& errors = m_done[place];
            std::string missing;
            for (const int error : errorsOf(call)) {
                ++whole;
                if (errors.count(error) != 0) {
                    ++done;
                } else {
                    missing += ' ' + nameOfError(error);
                }
            }
            if (!missing.empty()) m_report.addFinding("not done at " + place + ":" + missing);
            if (m_options.m_isListing)
                std::cout << "place " << place << ": " << errors.size() << " errors done\n";
        }
        m_report.addFigure("places that calls came from", m_seen.size());
        m_report.addFigure("cells of place by error", done, whole);
    }

    void playCases(const std::string& title, const Cases_& cases) {
        unsigned long good = 0;
        for (const Case_& play : cases) {
            if (isHopeless()) break;
            const std::string name =
                title + ": " + play.m_name + (play.m_transport == kTcp ? ", TCP" : ", local");
            good += judge(name, m_runner.play(name, play.m_transport, play.m_play)) ? 1 : 0;
        }
        m_report.addFigure(title, good, cases.size());
    }

    void playShortCounts() {
        for (const ShortCounts_& counts : shortCounts()) {
            const unsigned int stride = m_options.m_isQuick ? quickStride(counts.blockSize()) : 1;
            constexpr unsigned int portion = 2048;
            unsigned long runs = 0;
            for (unsigned int first = 1; first < counts.blockSize() && !isHopeless();
                 first += portion * stride) {
                const unsigned int last = std::min(counts.blockSize(), first + portion * stride);
                const std::string name = counts.name() + " from " + std::to_string(first);
                judge(name, m_runner.play(name, kLocal, [&](Scene_& scene) {
                    runs += counts.play(scene, first, last, stride);
                }));
                showProgress(counts.name(), last, counts.blockSize());
            }
            judge(counts.name() + " byte by byte",
                  m_runner.play(counts.name(), kLocal, [&](Scene_& scene) { counts.crawl(scene); }));
            m_report.addFigure("short counts, " + counts.name(), runs, 2UL * (counts.blockSize() - 1));
        }
    }

    /// Blocks as large as a component can receive are cut at each byte in any case. A prime, so that all
    /// remainders of the sizes in use come up.
    static unsigned int quickStride(unsigned int blockSize) { return blockSize > 10000 ? 61 : 1; }

    const ProofOptions_& m_options;
    LoadedLibrary_ m_library;
    CaseRunner_ m_runner;
    ProofReport_ m_report;
    std::map<std::string, SystemCalls_::Call_> m_seen;  // every place that a call came from
    std::map<std::string, std::set<int>> m_done;
    std::size_t m_findings = 0;
    unsigned long m_plays = 0;
    unsigned long m_goodPlays = 0;
    unsigned long m_pending = 0;
    unsigned long m_goodPending = 0;
    unsigned long m_interrupted = 0;
    unsigned long m_goodInterrupted = 0;
};

}  // namespace

int main(int argc, char** argv) try {
    const ProofOptions_ options(argc, argv);
    return CallProof_(options).run();
} catch (const std::exception& fault) {
    std::cerr << "call_proof: " << fault.what() << '\n';
    return 2;
}
