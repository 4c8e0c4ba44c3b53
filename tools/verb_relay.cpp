#include <signal.h>

#include <functional>
#include <nlohmann/json.hpp>
#include <optional>

#include "json_text.h"
#include "probe.h"
#include "records.h"
#include "service_manager.h"
#include "session.h"
#include "verb.h"

namespace {

constexpr unsigned int kSliceMs = 1000;

/// What is known of a message that is passed on.
struct Transit_ {
    std::string m_source;
    std::string m_destination;
    unsigned int m_timeToLive;
    std::string m_schema;
};

/// Sees messages as they come in, before the terminal passes them on. Whether it then could shows in its
/// records: the last message of all is settled when the next one comes, or when the terminal has returned.
class TransitFilter_ : public VekmsgFilter_ {
public:
    using Settle_ = std::function<void()>;

    TransitFilter_(const std::string& ownName, const Settle_& settle)
        : m_ownName(ownName), m_settle(settle) {}

    bool process(SP_VekMessage_& sp_message) override {
        m_settle();
        const std::string destination = plain(sp_message->getDestination());
        if (destination != m_ownName)
            m_transit = Transit_{plain(sp_message->getSource()), destination, sp_message->getTimeToLive(),
                                 plain(sp_message->getPayloadSchema())};
        return true;
    }

    /// The message that is not settled yet.
    std::optional<Transit_> take() {
        std::optional<Transit_> transit;
        transit.swap(m_transit);
        return transit;
    }

private:
    std::string m_ownName;
    Settle_ m_settle;
    std::optional<Transit_> m_transit;
};

/// Passes messages on, and does nothing else.
class RelayVerb_ : public Verb_ {
public:
    const VerbText_& text() const override {
        static const VerbText_ s_text = {
            "relay",
            "pass on messages for others, as a component of that name",
            {"Runs until SIGTERM. Shows a line for each message that it passes on or drops",
             "(with -q only those that it drops), and at SIGUSR1 and at the end how many there",
             "were. Tells systemd when it is ready: systemctl start vekmsg-relay@NAME.",
             "Refuses while somebody serves NAME."},
            {"vekmsg relay -D cellar.directory cellar & sleep 1; kill $!; wait",
             "vekmsg relay -D cellar.directory --json -q cellar & sleep 1; kill $!; wait"}};
        return s_text;
    }

    void declare(Arguments_& arguments) override {
        arguments.flag("--take-over", m_isTakingOver, "even from somebody who serves it");
        arguments.word("NAME", m_name, "");
    }

    ExitCode_ run(const CommonOptions_& common, Output_& output) override {
        m_p_common = &common;
        m_p_output = &output;
        refuseWhereServed(common.directory(), m_name, m_isTakingOver);
        Signals_ signals{SIGUSR1};
        Session_ session(m_name, common.directory());
        session.watch(signals);
        CaughtRecords_ records;
        m_p_records = &records;
        m_p_filter = new TransitFilter_(m_name, [this] { settle(); });
        session.terminal().setReceiveFilter(SP_VekmsgFilter_(m_p_filter));
        output.follow();
        tellServiceManager("READY=1");
        if (!common.m_isQuiet) note("relaying as " + m_name);
        serve(session, signals);
        tellServiceManager("STOPPING=1");
        showCounters();
        return signals.resultOr(ExitCode_::Done);
    }

private:
    void serve(Session_& session, Signals_& signals) {
        for (;;) {
            const SP_VekMessage_ sp_message = session.receive(Deadline_(TimeSpan_(0)));
            settle();
            if (sp_message) dropOwn(*sp_message);
            m_p_output->write(m_lines);
            m_lines.clear();
            for (int number = signals.take(); number != 0; number = signals.take())
                if (number == SIGUSR1) showCounters();
            if (signals.isEnding()) return;
            if (!sp_message) session.waitForEvents(kSliceMs);
        }
    }

    /// Says what became of the last message in transit, and what else the library had to say.
    void settle() {
        std::string reason;
        for (const std::string& text : m_p_records->take()) {
            if (text.find(" route a message from ") != std::string::npos) {
                reason = text;
            } else {
                note(text);
            }
        }
        const std::optional<Transit_> transit = m_p_filter->take();
        if (!transit) return;
        ++(reason.empty() ? m_forwarded : m_dropped);
        if (!reason.empty() || !m_p_common->m_isQuiet) show(*transit, reason);
    }

    void dropOwn(const VekMessage_& message) {
        ++m_dropped;
        show({plain(message.getSource()), m_name, message.getTimeToLive(), plain(message.getPayloadSchema())},
             "it is addressed to the relay itself");
    }

    void addLine(const std::string& line) { m_lines += line + '\n'; }

    /// An empty reason means that it was passed on.
    void show(const Transit_& transit, const std::string& reason) {
        const char* p_what = reason.empty() ? "forwarded" : "dropped";
        if (m_p_common->m_json == JsonStyle_::None) {
            return addLine(printableText(std::string(p_what) + ' ' + transit.m_source + " -> " +
                                         transit.m_destination + " ttl " +
                                         std::to_string(transit.m_timeToLive) + " \"" + transit.m_schema +
                                         '"' + (reason.empty() ? "" : ": " + reason)));
        }
        Json_ json;
        json["relay"] = p_what;
        json["source"] = readableText(transit.m_source);
        json["destination"] = readableText(transit.m_destination);
        json["timeToLive"] = transit.m_timeToLive;
        json["schema"] = readableText(transit.m_schema);
        if (!reason.empty()) json["reason"] = readableText(reason);
        m_lines += jsonText(json, m_p_common->m_json);
    }

    void showCounters() const {
        if (m_p_common->m_json == JsonStyle_::None)
            return m_p_output->line(std::to_string(m_forwarded) + " forwarded, " + std::to_string(m_dropped) +
                                    " dropped");
        Json_ json;
        json["forwarded"] = m_forwarded;
        json["dropped"] = m_dropped;
        m_p_output->write(jsonText(json, m_p_common->m_json));
    }

    bool m_isTakingOver = false;
    std::string m_name;
    const CommonOptions_* m_p_common = nullptr;
    Output_* m_p_output = nullptr;
    CaughtRecords_* m_p_records = nullptr;
    TransitFilter_* m_p_filter = nullptr;  // owned by the terminal
    std::string m_lines;  // not written in the filter, where the library would catch that the reader has left
    unsigned long m_forwarded = 0;
    unsigned long m_dropped = 0;
};

}  // namespace

UniqueVerb_ createRelayVerb() {
    return std::make_unique<RelayVerb_>();
}
