#include <algorithm>

#include "delivery.h"
#include "message_output.h"
#include "message_source.h"
#include "verb.h"

namespace {

constexpr TimeSpan_ kPatience(5000);
constexpr TimeSpan_ kSlice(20);  // whether a connection stands is looked at so often

/// Sends a message and shows what comes back.
class CallVerb_ : public Verb_ {
public:
    const VerbText_& text() const override {
        static const VerbText_ s_text = {
            "call",
            "send a message and show the one that comes back",
            {"Shows the first message that comes back before --timeout (5 s) is over: as XML,",
             "or as JSON with --json. Exit code 1 when NAME ends the connection without one."},
            {"vekmsg call -D shop.directory kitchen --schema order 1:u=2 2:s=soup",
             "echo '{\"tag\":1,\"uint\":2}' | vekmsg call -D shop.directory -j kitchen -s"}};
        return s_text;
    }

    void declare(Arguments_& arguments) override {
        m_source.declare(arguments);
        arguments.word("NAME", m_name, "");
        m_source.declareWords(arguments);
    }

    ExitCode_ run(const CommonOptions_& common, Output_& output) override {
        const SP_VekMessage_ sp_message = m_source.read(m_name);
        Session_ session(common, {m_name});
        const Deadline_ deadline(common.timeout(kPatience));
        Delivery_(session, m_name, common.timeout(kPatience)).send(sp_message);
        SP_VekMessage_ sp_answer;
        bool wasConnected = false;
        while (!sp_answer && !deadline.isOver() && session.hasConnection()) {
            wasConnected = wasConnected || session.terminal().isConnected(utf8(m_name));
            sp_answer = session.receive(Deadline_(std::min(kSlice, TimeSpan_(deadline.leftMs()))));
        }
        if (!sp_answer) failWithout(wasConnected, deadline.isOver());
        MessageOutput_(output, common.m_json).write(*sp_answer);
        output.flush();
        session.linger(kSlice);
        return ExitCode_::Done;
    }

private:
    [[noreturn]] void failWithout(bool wasConnected, bool isTimeOver) const {
        if (!wasConnected) throw Failure_(ExitCode_::NotReachable, m_name + " cannot be reached");
        if (isTimeOver) throw Failure_(ExitCode_::TimedOut, "no answer from " + m_name + " in time");
        throw Failure_(ExitCode_::Refused, m_name + " ended the connection without an answer");
    }

    MessageSource_ m_source;
    std::string m_name;
};

}  // namespace

UniqueVerb_ createCallVerb() {
    return std::make_unique<CallVerb_>();
}
