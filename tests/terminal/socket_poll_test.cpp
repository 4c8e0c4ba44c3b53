#include "terminal/socket_poll.h"

#include <cerrno>
#include <vector>

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
    void addAsStreams() {
        m_poll.beginStreams();
        EXPECT_TRUE(m_poll.tryAddStream(m_first.m_client));
        EXPECT_TRUE(m_poll.tryAddStream(m_second.m_client));
    }
    std::vector<unsigned int> due() const {
        std::vector<unsigned int> places;
        for (unsigned int place = m_poll.due().m_begin; place < m_poll.due().m_end; ++place)
            places.push_back(place);
        return places;
    }
    void addBoth() {
        add(m_first.m_client);
        add(m_second.m_client);
    }
    static bool isQuiet(const Streams_& streams) { return streams.m_client.isAtRest(quietSpell()); }

    Streams_ m_first{Type_::LOCAL};
    Streams_ m_second{Type_::INET_TCP};
    using Due_ = std::vector<unsigned int>;
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

TEST_F(SocketPoll, hasNoEntryForOneThatNothingButTheClockMoves) {
    VekSocket_ idle;
    EXPECT_FALSE(m_poll.tryAdd(idle));
    m_second.m_client.cleanUp();
    EXPECT_FALSE(m_poll.tryAddStream(m_second.m_client));
    EXPECT_EQ(m_poll.count(), 0U);

    EXPECT_TRUE(m_poll.tryAdd(m_first.m_client));
    EXPECT_TRUE(m_poll.tryAddStream(m_first.m_client));
    EXPECT_EQ(m_poll.count(), 2U);
}

TEST_F(SocketPoll, hasNoEntryBeyondItsRoom) {
    while (m_poll.room() != 0) EXPECT_TRUE(m_poll.tryAdd(m_first.m_client));

    EXPECT_FALSE(m_poll.tryAdd(m_first.m_client));
    EXPECT_FALSE(m_poll.tryAddStream(m_first.m_client));
    EXPECT_EQ(m_poll.count(), 256U);
}

TEST_F(SocketPoll, streamsThatItReportsAreDue) {
    EXPECT_TRUE(m_poll.tryAdd(m_second.m_client));  // before them, so none of them
    addAsStreams();
    EXPECT_EQ(m_poll.poll(0), 0);
    EXPECT_EQ(due(), Due_{});
    m_second.m_sp_server->send(bufferWith("x"));

    EXPECT_EQ(m_poll.poll(1000), 2);

    EXPECT_EQ(due(), Due_{1});
    m_first.m_sp_server->send(bufferWith("x"));
    EXPECT_EQ(m_poll.poll(1000), 3);
    EXPECT_EQ(due(), (Due_{0, 1}));
}

TEST_F(SocketPoll, whatIsDueBeforeStaysDue) {
    addAsStreams();
    m_poll.setDue({0, 1});
    EXPECT_EQ(m_poll.poll(0), 0);
    EXPECT_EQ(due(), Due_{0});
    m_second.m_sp_server->send(bufferWith("x"));

    EXPECT_EQ(m_poll.poll(1000), 1);

    EXPECT_EQ(due(), (Due_{0, 1}));
    m_poll.clear();
    EXPECT_EQ(due(), Due_{});
}

TEST_F(SocketPoll, knowsWhetherTheSpellIsItsOwn) {
    EXPECT_FALSE(m_poll.hasBegun(quietSpell()));
    addBoth();
    EXPECT_EQ(m_poll.poll(0), 0);
    EXPECT_TRUE(m_poll.hasBegun(quietSpell()));
    endQuietSpell();
    EXPECT_FALSE(m_poll.hasBegun(quietSpell()));

    beginQuietSpell(takeQuietSpell());
    EXPECT_FALSE(m_poll.hasBegun(quietSpell()));
}
