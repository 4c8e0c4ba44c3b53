#ifndef VEKMSG_TOOLS_DELIVERY_H
#define VEKMSG_TOOLS_DELIVERY_H

#include <string>

#include "session.h"

/// Sends messages to one component and sees to it that they arrive, or at least leave.
class Delivery_ {
public:
    /// `limit` is for each thing that is waited for.
    Delivery_(Session_& session, const std::string& destination, TimeSpan_ limit)
        : m_session(session), m_destination(destination), m_limit(limit) {}

    /// Hands a message to the terminal. Throws a Failure_ when the destination cannot be reached or the
    /// message is too long for who receives it.
    void send(const SP_VekMessage_& sp_message);

    /// Waits until the destination has taken over everything: a ping behind it, on the same connection, is
    /// answered. Throws a Failure_ when it is not.
    void confirm();

    /// Waits until everything is written. Throws a Failure_ when it cannot be.
    void flush();

private:
    Session_& m_session;
    std::string m_destination;
    TimeSpan_ m_limit;
};

#endif
