#include "hostile/open_terminal.h"

#include <gtest/gtest.h>

namespace {

constexpr char kGoodSchema[] = "numbered exchange";

/// Listening sockets on a local address and on TCP, and the good peer's connection.
constexpr unsigned int kEntriesAlone = 3;

}  // namespace

OpenTerminal_::OpenTerminal_() {
    exchange();
}

void OpenTerminal_::exchange() {
    ++m_sent;
    ASSERT_TRUE(m_good.send("own", kGoodSchema, m_sent));
    for (unsigned int i = 0; i < 1000 && m_replied != m_sent; ++i) {
        if (i > 5) m_good.terminal().waitForMessage(1);
        serveOwn();
        serveGood();
    }
    ASSERT_EQ(m_replied, m_sent);
}

void OpenTerminal_::serveOwn() {
    for (SP_VekMessage_ sp_message = m_own.receive(); !sp_message.isNull(); sp_message = m_own.receive()) {
        if (plain(sp_message->getPayloadSchema()) != kGoodSchema) {
            m_received.push_back(sp_message);
            continue;
        }
        ASSERT_EQ(Station_::numberIn(sp_message), ++m_seen);
        ASSERT_TRUE(m_own.send(goodName(), kGoodSchema, m_seen));
    }
}

void OpenTerminal_::serveGood() {
    for (SP_VekMessage_ sp_message = m_good.receive(); !sp_message.isNull(); sp_message = m_good.receive()) {
        if (plain(sp_message->getPayloadSchema()) != kGoodSchema) continue;  // passed on by "own"
        ASSERT_EQ(Station_::numberIn(sp_message), ++m_replied);
    }
}

bool OpenTerminal_::closes(RawPeer_& hostile, unsigned int tries) {
    for (unsigned int i = 0; i < tries; ++i) {
        serveOwn();
        if (hostile.isAtEnd(i < 5 ? 0 : 1)) return true;
    }
    return false;
}

bool OpenTerminal_::isAloneAgain() {
    for (unsigned int i = 0; i < 1000; ++i) {
        serveOwn();
        pollfd entries[100];
        unsigned int count = 100;
        if (m_own.terminal().fillPollFdArray(entries, count) && count == kEntriesAlone) return true;
        if (i > 5) m_own.terminal().waitForMessage(1);
    }
    return false;
}

std::vector<std::string> OpenTerminal_::takeReceived() {
    std::vector<std::string> texts;
    for (const SP_VekMessage_& sp_message : m_received)
        texts.push_back(plain(sp_message->getPayloadSchema()) + '/' +
                        std::to_string(Station_::numberIn(sp_message)));
    m_received.clear();
    return texts;
}
