#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

#include "json_text.h"
#include "session.h"
#include "verb.h"

namespace {

using Time_ = std::chrono::nanoseconds;

constexpr unsigned int kMostPings = 1000000000;
constexpr unsigned int kMostFill = 9000;  // with names, schema and lengths, what a message holds

double milliseconds(double nanoseconds) {
    return nanoseconds / 1e6;
}

/// Times of answers, and what they come to.
class Statistics_ {
public:
    void add(Time_ time) {
        const auto nanoseconds = static_cast<double>(time.count());
        m_least = m_received == 0 ? nanoseconds : std::min(m_least, nanoseconds);
        m_most = std::max(m_most, nanoseconds);
        m_sum += nanoseconds;
        m_squares += nanoseconds * nanoseconds;
        ++m_received;
    }

    unsigned int received() const { return m_received; }
    double least() const { return milliseconds(m_least); }
    double most() const { return milliseconds(m_most); }
    double mean() const { return milliseconds(m_sum / m_received); }

    /// How far times are from their mean, as ping(8) calculates it.
    double deviation() const {
        const double mean = m_sum / m_received;
        return milliseconds(std::sqrt(std::max(0.0, m_squares / m_received - mean * mean)));
    }

private:
    unsigned int m_received = 0;
    double m_least = 0;
    double m_most = 0;
    double m_sum = 0;
    double m_squares = 0;
};

std::string decimal(double number) {
    char text[64];
    std::snprintf(text, sizeof(text), "%.3f", number);
    return text;
}

/// Asks a component again and again whether it serves its terminal.
class PingVerb_ : public Verb_ {
public:
    const VerbText_& text() const override {
        static const VerbText_ s_text = {
            "ping",
            "whether a component answers, and how fast",
            {"Sends pings, which the library of a component answers as soon as its program",
             "works on its terminal. Through a relay no answer can come back. Exit codes: 0",
             "when at least one was answered, else 4 when NAME cannot be reached and 5 when",
             "it does not answer in time."},
            {"vekmsg ping -D shop.directory kitchen",
             "vekmsg ping -D shop.directory -c 2 -i 100ms --size 1000 kitchen"}};
        return s_text;
    }

    void declare(Arguments_& arguments) override {
        arguments.number("-c,--count", 0, kMostPings, m_count, "how many pings (4); 0: until a signal comes");
        arguments.time("-i,--interval", m_interval, "from ping to ping (1 s)");
        arguments.time("-W,--wait", m_wait, "how long to wait for each answer (1 s, or --timeout)");
        arguments.number("--size", 0, kMostFill, m_size, "bytes to send along (0)");
        arguments.word("NAME", m_name, "");
    }

    ExitCode_ run(const CommonOptions_& common, Output_& output) override {
        m_style = common.m_json;
        if (m_wait.count() < 0) m_wait = common.timeout(TimeSpan_(1000));
        Session_ session(common, {m_name});
        Signals_ signals;
        session.watch(signals);
        output.follow();
        if (m_style == JsonStyle_::None)
            output.line("PING " + printableText(m_name) + ": " + counted(m_size, "byte") + " of data");
        while (!signals.isEnding() && (m_count == 0 || m_sent < m_count)) {
            const Deadline_ next(m_interval);
            ++m_sent;
            const Session_::PingReply_ reply = session.ping(m_name, m_wait, m_size);
            if (reply.m_state == Session_::PingReply_::Answered || !signals.isEnding()) show(reply, output);
            if (m_sent != m_count) session.work(next);
        }
        showStatistics(common, output);
        return signals.resultOr(result());
    }

private:
    void show(const Session_::PingReply_& reply, Output_& output) {
        const bool isAnswered = reply.m_state == Session_::PingReply_::Answered;
        const bool isReached = reply.m_state != Session_::PingReply_::NotReachable;
        if (isAnswered) m_statistics.add(reply.m_time);
        m_isReached = m_isReached || isReached;
        if (m_style != JsonStyle_::None) {
            Json_ json;
            json["ping"] = readableText(m_name);
            json["sequence"] = m_sent;
            json["probe"] = isAnswered ? "answers" : isReached ? "no-answer" : "not-reachable";
            if (isAnswered) json["milliseconds"] = milliseconds(static_cast<double>(reply.m_time.count()));
            return output.write(jsonText(json, m_style));
        }
        const std::string what =
            isAnswered ? "time=" + timeText(reply.m_time)
                       : output.coloured(Colour_::Red, isReached ? "no answer" : "not reachable");
        output.line(printableText(m_name) + ": seq=" + std::to_string(m_sent) + ' ' + what);
    }

    void showStatistics(const CommonOptions_& common, Output_& output) const {
        const unsigned int received = m_statistics.received();
        if (m_style != JsonStyle_::None) {
            Json_ json;
            json["ping"] = readableText(m_name);
            json["sent"] = m_sent;
            json["received"] = received;
            json["lost"] = m_sent - received;
            if (received != 0) {
                json["min"] = m_statistics.least();
                json["avg"] = m_statistics.mean();
                json["max"] = m_statistics.most();
                json["mdev"] = m_statistics.deviation();
            }
            return output.write(jsonText(json, m_style));
        }
        if (common.m_isQuiet) return;
        output.line("--- " + printableText(m_name) + " ping statistics ---");
        output.line(std::to_string(m_sent) + " sent, " + std::to_string(received) + " received, " +
                    std::to_string(m_sent - received) + " lost");
        if (received == 0) return;
        output.line("min/avg/max/mdev = " + decimal(m_statistics.least()) + '/' +
                    decimal(m_statistics.mean()) + '/' + decimal(m_statistics.most()) + '/' +
                    decimal(m_statistics.deviation()) + " ms");
    }

    ExitCode_ result() const {
        if (m_statistics.received() != 0) return ExitCode_::Done;
        return m_isReached ? ExitCode_::TimedOut : ExitCode_::NotReachable;
    }

    unsigned int m_count = 4;
    TimeSpan_ m_interval{1000};
    TimeSpan_ m_wait{-1};  // not chosen
    unsigned int m_size = 0;
    std::string m_name;
    JsonStyle_ m_style = JsonStyle_::None;
    unsigned int m_sent = 0;
    bool m_isReached = false;
    Statistics_ m_statistics;
};

}  // namespace

UniqueVerb_ createPingVerb() {
    return std::make_unique<PingVerb_>();
}
