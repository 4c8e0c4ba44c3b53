#include "delivery.h"

#include "codec.h"
#include "exit_code.h"
#include "records.h"

namespace {

// What the receiving end takes of one message; of more, it drops the connection with all that follows.
constexpr std::size_t kMostReceived = 9396;

std::size_t payloadSize(VekMessage_& message) {
    const SP_BasicBuffer_ sp_raw = message.getRawPayload();
    return sp_raw ? sp_raw->dataLength() : encodeElement(*message.getPayload()).size();
}

}  // namespace

void Delivery_::send(const SP_VekMessage_& sp_message) {
    const std::size_t sourceSize = *sp_message->getSource() == 0 ? m_session.name().size() : 0;
    const std::size_t size = encodeHeader(*sp_message).size() + sourceSize + payloadSize(*sp_message);
    if (size > kMostReceived)
        throw Failure_(ExitCode_::BadData, "the message has " + std::to_string(size) + " bytes, and " +
                                               std::to_string(kMostReceived) +
                                               " is the most that can be received");
    CaughtRecords_ records;
    if (!m_session.terminal().sendMessage(sp_message))
        throw Failure_(ExitCode_::NotReachable,
                       m_destination + " cannot be reached: " + records.last("nobody listens"));
}

void Delivery_::confirm() {
    switch (m_session.ping(m_destination, m_limit).m_state) {
        case Session_::PingReply_::Answered:
            return;
        case Session_::PingReply_::NotReachable:
            throw Failure_(ExitCode_::NotReachable,
                           m_destination + " cannot be reached any more: delivery not confirmed");
        default:
            throw Failure_(ExitCode_::TimedOut,
                           "delivery not confirmed: " + m_destination +
                               " did not answer in time; behind a relay it cannot (--no-confirm)");
    }
}

void Delivery_::flush() {
    const Deadline_ deadline(m_limit);
    while (m_session.hasUnwritten()) {
        if (deadline.isOver())
            throw Failure_(ExitCode_::TimedOut,
                           "not all of it could be written to " + m_destination + " in time");
        m_session.workOnce(deadline);
    }
    if (!m_session.hasConnection())
        throw Failure_(ExitCode_::NotReachable, m_destination + " cannot be reached");
}
