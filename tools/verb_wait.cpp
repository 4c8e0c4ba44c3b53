#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>

#include "json_text.h"
#include "records.h"
#include "session.h"
#include "verb.h"

namespace {

constexpr TimeSpan_ kPatience(30000);
constexpr TimeSpan_ kSlice(50);
constexpr TimeSpan_ kRetry(200);  // for who cannot be reached yet
constexpr TimeSpan_ kRepeat(
    2000);  // for who is connected and does not answer: the ping may be lost with a restart

/// Waits until components are there.
class WaitVerb_ : public Verb_ {
public:
    const VerbText_& text() const override {
        static const VerbText_ s_text = {
            "wait",
            "until components answer",
            {"Returns when each NAME has answered a ping, and shows them as they do. Exit",
             "codes: 4 when one could not be reached before --timeout (30 s), and 5 when all",
             "could, but one did not answer."},
            {"vekmsg wait -D shop.directory kitchen && echo open",
             "vekmsg wait -D shop.directory --timeout=1min kitchen -q"}};
        return s_text;
    }

    void declare(Arguments_& arguments) override { arguments.words("NAME", false, m_names, ""); }

    ExitCode_ run(const CommonOptions_& common, Output_& output) override {
        Session_ session(common, m_names);
        const Deadline_ deadline(common.timeout(kPatience));
        const auto start = std::chrono::steady_clock::now();
        for (const std::string& name : m_names) m_missing.emplace(name, Deadline_(TimeSpan_(0)));
        output.follow();
        while (!m_missing.empty() && !deadline.isOver()) {
            ask(session);
            const SP_VekMessage_ sp_message = session.receive(Deadline_(kSlice));
            if (sp_message) {
                if (takeAnswer(*sp_message)) show(*sp_message, start, common, output);
            } else if (!session.hasConnection()) {
                session.work(Deadline_(kSlice));
            }
        }
        return result(session);
    }

private:
    /// Pings those whose turn has come.
    void ask(Session_& session) {
        const CaughtRecords_ records;  // that one is not there yet is nothing to talk about
        for (auto& [name, turn] : m_missing) {
            if (!turn.isOver()) continue;
            const SP_VekMessage_ sp_request = session.pingRequest(name, 1, 0);
            if (sp_request) session.terminal().sendMessage(sp_request);
            turn = Deadline_(session.terminal().isConnected(utf8(name)) ? kRepeat : kRetry);
        }
    }

    bool takeAnswer(VekMessage_& message) {
        return Session_::isPingReply(message, 1) && m_missing.erase(plain(message.getSource())) != 0;
    }

    static void show(const VekMessage_& message, std::chrono::steady_clock::time_point start,
                     const CommonOptions_& common, Output_& output) {
        const std::chrono::nanoseconds time = std::chrono::steady_clock::now() - start;
        const std::string name = plain(message.getSource());
        if (common.m_json != JsonStyle_::None) {
            Json_ json;
            json["name"] = readableText(name);
            json["probe"] = "answers";
            json["milliseconds"] = static_cast<double>(time.count()) / 1e6;
            output.write(jsonText(json, common.m_json));
        } else if (!common.m_isQuiet) {
            output.line(printableText(name) + " answers after " + timeText(time));
        }
    }

    ExitCode_ result(Session_& session) const {
        ExitCode_ result = ExitCode_::Done;
        for (const auto& missing : m_missing) {
            const bool isConnected = session.terminal().isConnected(utf8(missing.first));
            note(missing.first + (isConnected ? " does not answer" : " cannot be reached"));
            if (!isConnected)
                result = ExitCode_::NotReachable;
            else if (result == ExitCode_::Done)
                result = ExitCode_::TimedOut;
        }
        return result;
    }

    std::vector<std::string> m_names;
    std::map<std::string, Deadline_> m_missing;  // and when each is asked next
};

}  // namespace

UniqueVerb_ createWaitVerb() {
    return std::make_unique<WaitVerb_>();
}
