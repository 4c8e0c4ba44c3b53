#include <iostream>

#include "delivery.h"
#include "message_source.h"
#include "verb.h"

namespace {

constexpr TimeSpan_ kPatience(5000);
constexpr unsigned int kMostMessages = 1000000000;

// Messages under way before the next is read: a sender that is faster than its receiver must not gather them.
constexpr unsigned int kWindow = 200;

/// Sends messages.
class SendVerb_ : public Verb_ {
public:
    const VerbText_& text() const override {
        static const VerbText_ s_text = {
            "send",
            "a message to a component",
            {"Returns when NAME has taken it over, which a ping behind it proves; exit code 5",
             "when it has not in time."},
            {"vekmsg send -D shop.directory kitchen --schema order 1:u=2 2:s=soup",
             "echo '8:c{1:u=1}' | vekmsg send -D shop.directory kitchen -l --no-confirm"}};
        return s_text;
    }

    void declare(Arguments_& arguments) override {
        m_source.declare(arguments);
        arguments.flag("-l,--lines", m_isByLine, "a message a line, from standard input");
        arguments.number("--count", 1, kMostMessages, m_count, "send it so often");
        arguments.time("--interval", m_interval, "from one to the next");
        arguments.flag("--no-confirm", m_isUnconfirmed, "until written, not taken over");
        arguments.word("NAME", m_name, "");
        m_source.declareWords(arguments);
    }

    ExitCode_ run(const CommonOptions_& common, Output_&) override {
        if (m_isByLine && m_count != 1)
            throw Failure_(ExitCode_::Usage, "-l takes no --count: every line is sent once");
        const SP_VekMessage_ sp_message = m_isByLine ? SP_VekMessage_() : m_source.read(m_name);
        Session_ session(common, {m_name});
        Delivery_ delivery(session, m_name, common.timeout(kPatience));
        if (m_isByLine) {
            sendLines(session, delivery);
        } else {
            for (unsigned int i = 0; i < m_count; ++i) send(session, delivery, sp_message);
        }
        finish(delivery);
        return ExitCode_::Done;
    }

private:
    void send(Session_& session, Delivery_& delivery, const SP_VekMessage_& sp_message) {
        if (m_sent != 0 && m_interval.count() != 0) session.work(Deadline_(m_interval));
        delivery.send(sp_message);
        if (++m_sent % kWindow == 0) finish(delivery);
    }

    void sendLines(Session_& session, Delivery_& delivery) {
        unsigned long number = 0;
        for (std::string line; std::getline(std::cin, line);) {
            ++number;
            SP_VekMessage_ sp_message;
            try {
                sp_message = m_source.readText(m_name, line);
            } catch (const Failure_& failure) {
                if (m_sent != 0) finish(delivery);  // what was good is not lost for what was not
                throw Failure_(failure.code(), "line " + std::to_string(number) + ": " + failure.what());
            }
            send(session, delivery, sp_message);
        }
        if (number == 0) throw Failure_(ExitCode_::BadData, "there is no line to send");
    }

    void finish(Delivery_& delivery) const {
        if (m_isUnconfirmed) {
            delivery.flush();
        } else {
            delivery.confirm();
        }
    }

    MessageSource_ m_source;
    bool m_isByLine = false;
    unsigned int m_count = 1;
    TimeSpan_ m_interval{0};
    bool m_isUnconfirmed = false;
    std::string m_name;
    unsigned int m_sent = 0;
};

}  // namespace

UniqueVerb_ createSendVerb() {
    return std::make_unique<SendVerb_>();
}
