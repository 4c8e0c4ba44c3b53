#include "input.h"
#include "message_output.h"
#include "message_source.h"
#include "probe.h"
#include "records.h"
#include "session.h"
#include "verb.h"

namespace {

constexpr TimeSpan_ kSlice(1000);
constexpr TimeSpan_ kQuiet(300);  // who sent the last message and wants it confirmed pings by then
constexpr unsigned int kMostMessages = 1000000000;

/// Stands in for a component and shows what it gets.
class ListenVerb_ : public Verb_ {
public:
    const VerbText_& text() const override {
        static const VerbText_ s_text = {
            "listen",
            "open a component's terminal and show what it gets",
            {"Shows every message as XML, or as JSON with --json. FORM puts in %s source,",
             "%d destination, %t time-to-live, %S schema, %p payload, %x its bytes, %I time,",
             "%N nanoseconds. Refuses while somebody serves NAME. Exit code 5 when -W ends it."},
            {"vekmsg listen -D cellar.directory -C 1 --json cellar",
             "vekmsg listen -D cellar.directory -C 2 -F '%I %s: %p' cellar"}};
        return s_text;
    }

    void declare(Arguments_& arguments) override {
        arguments.text("-F,--format", "FORM", m_format, "one line each in this form");
        arguments.number("-C,--count", 1, kMostMessages, m_count, "end behind so many messages");
        arguments.time("-W,--wait", m_wait, "end after this time");
        arguments.text("--reply", "FILE", m_replyFile, "answer each with this: JSON or 5:u=7 ...");
        arguments.flag("--take-over", m_isTakingOver, "even from somebody who serves it");
        arguments.word("NAME", m_name, "");
    }

    ExitCode_ run(const CommonOptions_& common, Output_& output) override {
        MessageOutput_ messages(output, common.m_json);
        messages.setFormat(m_format);
        const std::string reply = m_replyFile.empty() ? "" : readInput(m_replyFile);
        if (!m_replyFile.empty()) MessageSource_().readText(m_name, reply);  // a bad one is told of at once
        refuseWhereServed(common.directory(), m_name, m_isTakingOver);
        Signals_ signals;
        Session_ session(m_name, common.directory());
        session.watch(signals);
        output.follow();
        if (!common.m_isQuiet) note("listening as " + m_name);
        const Deadline_ deadline(m_wait);
        for (unsigned int count = 0; m_count == 0 || count < m_count; ++count) {
            const SP_VekMessage_ sp_message = next(session, deadline);
            if (!sp_message) return signals.resultOr(ExitCode_::TimedOut);
            messages.write(*sp_message);
            if (!m_replyFile.empty()) answer(session, *sp_message, reply);
        }
        session.linger(kQuiet);
        return ExitCode_::Done;
    }

private:
    /// The next message; null when the time is over or a signal came.
    SP_VekMessage_ next(Session_& session, const Deadline_& deadline) const {
        for (;;) {
            const Deadline_ slice(m_wait.count() == 0 ? kSlice
                                                      : std::min(kSlice, TimeSpan_(deadline.leftMs())));
            const SP_VekMessage_ sp_message = session.receive(slice);
            if (sp_message || session.isEnding() || (m_wait.count() != 0 && deadline.isOver()))
                return sp_message;
        }
    }

    void answer(Session_& session, const VekMessage_& message, const std::string& reply) const {
        const std::string asker = plain(message.getSource());
        const SP_VekMessage_ sp_answer = MessageSource_().readText(asker, reply);
        if (*sp_answer->getPayloadSchema() == 0)
            sp_answer->setPayloadSchema(message.getPayloadSchema(), VekMessage_::SCHEMA_LITERAL);
        CaughtRecords_ records;
        if (!session.terminal().sendMessage(sp_answer))
            note("no answer to " + asker + ": " + records.last("it cannot be reached"));
    }

    std::string m_format;
    unsigned int m_count = 0;  // for ever
    TimeSpan_ m_wait{0};       // for ever
    std::string m_replyFile;
    bool m_isTakingOver = false;
    std::string m_name;
};

}  // namespace

UniqueVerb_ createListenVerb() {
    return std::make_unique<ListenVerb_>();
}
