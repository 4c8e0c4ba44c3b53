#include "terminal/socket_poll.h"

#include <cerrno>

#include "foundation/quiet_spell.h"
#include "transport/streams.h"

namespace {

using Type_ = VekSocketAddress_::AddressType_;

class SocketPoll : public SocketTest_ {
protected:
    SocketPoll() {
        m_poll.clear();
        for (Streams_* p_streams : {&m_first, &m_second})
            EXPECT_TRUE(p_streams->m_client.receive(1, emptyBuffer(1)));
    }
    ~SocketPoll() override { endQuietSpell(); }

    void add(VekSocket_& socket) {
        EXPECT_TRUE(socket.fillQuietPollFd(*m_poll.next()));
        m_poll.add(socket);
    }
    void addBoth() {
        add(m_first.m_client);
        add(m_second.m_client);
    }
    static bool isQuiet(const Streams_& streams) { return streams.m_client.isAtRest(quietSpell()); }

    Streams_ m_first{Type_::LOCAL};
    Streams_ m_second{Type_::INET_TCP};
    SocketPoll_ m_poll;
};

}  // namespace

TEST_F(SocketPoll, tellsThoseThatHaveNothingFromTheOthers) {
    addBoth();
    m_second.m_sp_server->send(bufferWith("x"));

    EXPECT_EQ(m_poll.poll(1000), 1);

    EXPECT_TRUE(isQuiet(m_first));
    EXPECT_FALSE(isQuiet(m_second));
}

TEST_F(SocketPoll, beforeItsAnswerNobodyIsQuiet) {
    addBoth();

    EXPECT_FALSE(isQuiet(m_first));
    EXPECT_FALSE(isQuiet(m_second));
}

TEST_F(SocketPoll, whereItFailsNobodyIsQuiet) {
    for (const int error : {EINTR, ENOMEM}) {
        m_poll.clear();
        addBoth();
        m_calls.fail(SystemCalls_::Look, error);

        EXPECT_EQ(m_poll.poll(0), -1);

        EXPECT_EQ(errno, error);
        EXPECT_EQ(quietSpell(), kNoQuietSpell);
        EXPECT_FALSE(isQuiet(m_first));
    }
}

TEST_F(SocketPoll, oneThatWasAddedBeforeAFailureIsNotQuietAfterAnAnswerWithoutIt) {
    addBoth();
    m_calls.fail(SystemCalls_::Look, EINTR);
    EXPECT_EQ(m_poll.poll(0), -1);
    m_poll.clear();
    add(m_second.m_client);

    EXPECT_EQ(m_poll.poll(0), 0);

    EXPECT_FALSE(isQuiet(m_first));
    EXPECT_TRUE(isQuiet(m_second));
}

TEST_F(SocketPoll, endsTheSpellBefore) {
    addBoth();
    EXPECT_EQ(m_poll.poll(0), 0);
    EXPECT_TRUE(isQuiet(m_first));
    SocketPoll_ next;
    next.clear();
    EXPECT_TRUE(isQuiet(m_first));

    EXPECT_EQ(next.poll(0), 0);

    EXPECT_FALSE(isQuiet(m_first));
}

TEST_F(SocketPoll, hasRoomFor256Entries) {
    EXPECT_EQ(m_poll.room(), 256U);
    add(m_first.m_client);
    EXPECT_EQ(m_poll.count(), 1U);
    EXPECT_EQ(m_poll.room(), 255U);

    m_poll.clear();

    EXPECT_EQ(m_poll.count(), 0U);
    EXPECT_EQ(m_poll.room(), 256U);
}
