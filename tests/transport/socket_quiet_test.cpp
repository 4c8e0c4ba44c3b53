#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>

#include <cerrno>

#include "foundation/quiet_spell.h"
#include "transport/streams.h"

namespace {

using Type_ = VekSocketAddress_::AddressType_;

constexpr char kPeer[] = "inettcp://127.0.0.1:7000";

/// Tells the socket what a poll has just found.
void makeQuiet(VekSocket_& socket) {
    beginQuietSpell(takeQuietSpell());
    socket.noteQuiet(quietSpell());
}

class VekSocketQuiet : public SocketTest_ {
protected:
    ~VekSocketQuiet() override { endQuietSpell(); }

    unsigned int count(SystemCalls_::Call_ call) const { return m_calls.count(call); }

    /// Whether there is an entry, and which events it asks for.
    static short eventsOf(const VekSocket_& socket) {
        pollfd entry = {-2, 0x55, 0x55};
        if (!socket.fillQuietPollFd(entry)) return 0;
        EXPECT_EQ(entry.fd, socket.descriptor());
        EXPECT_EQ(entry.revents, 0);
        return entry.events;
    }
};

/// A stream between two sockets, of which the client has a receive of one byte armed.
class VekSocketQuietStream : public VekSocketQuiet {
protected:
    void SetUp() override { EXPECT_TRUE(client().receive(1, emptyBuffer(1))); }

    VekSocket_& client() { return m_streams.m_client; }

    bool check(SP_BasicBuffer_& sp_complete) { return client().check(sp_complete); }
    bool check() {
        SP_BasicBuffer_ sp_nothing;
        return check(sp_nothing) && sp_nothing.isNull();
    }

    Streams_ m_streams{Type_::INET_TCP};
};

}  // namespace

TEST_F(VekSocketQuiet, aListenerIsNotAskedUntilTheSpellEnds) {
    const std::string address = listenOn(m_socket, m_folder.localAddress("server"));
    makeQuiet(m_socket);
    VekSocket_ client;
    SP_VekSocket_ sp_accepted;

    EXPECT_TRUE(m_socket.accept(sp_accepted));
    EXPECT_FALSE(sp_accepted);
    EXPECT_EQ(count(SystemCalls_::Accept), 0U);
    EXPECT_NE(quietSpell(), kNoQuietSpell);

    startConnecting(client, address);
    EXPECT_EQ(quietSpell(), kNoQuietSpell);
    EXPECT_TRUE(m_socket.accept(sp_accepted));
    EXPECT_TRUE(sp_accepted);
}

TEST_F(VekSocketQuiet, theNextSpellSaysNothingOfTheLast) {
    listenOn(m_socket, m_folder.localAddress("server"));
    makeQuiet(m_socket);
    beginQuietSpell(takeQuietSpell());
    SP_VekSocket_ sp_accepted;

    EXPECT_TRUE(m_socket.accept(sp_accepted));

    EXPECT_EQ(count(SystemCalls_::Accept), 1U);
}

TEST_F(VekSocketQuiet, aConnectUnderWayIsNotAskedButItsLimitRuns) {
    m_calls.fail(SystemCalls_::Connect, EINPROGRESS);
    startConnecting(m_socket, kPeer);
    SP_BasicBuffer_ sp_nothing;
    m_calls.advanceClock(5);
    makeQuiet(m_socket);

    EXPECT_TRUE(m_socket.check(sp_nothing));
    EXPECT_EQ(m_records.take(), Records_{});
    m_calls.advanceClock(1);
    EXPECT_FALSE(m_socket.check(sp_nothing));

    EXPECT_EQ(count(SystemCalls_::Getsockopt), 0U);
    EXPECT_EQ(count(SystemCalls_::Getpeername), 0U);
    EXPECT_EQ(m_records.take(), Records_{socketRecord(3, "bool VekSocket_::connecting()",
                                                      std::string("Attempt to connect to ") + kPeer +
                                                          " timed out after 6 seconds")});
    EXPECT_EQ(m_socket.state(), VekSocket_::IDLE);
}

TEST_F(VekSocketQuietStream, aStreamIsNotReadUntilTheSpellEnds) {
    ASSERT_EQ(m_streams.m_sp_server->send(bufferWith("x")), VekSocket_::SEND_OK);
    makeQuiet(client());

    EXPECT_TRUE(check());
    EXPECT_EQ(count(SystemCalls_::Recv), 0U);

    endQuietSpell();
    EXPECT_EQ(receiveAll(client()), "x");
}

TEST_F(VekSocketQuietStream, aPendingWriteIsTriedAllTheSame) {
    m_calls.fail(SystemCalls_::Send, EAGAIN);
    ASSERT_EQ(client().send(bufferWith("hello")), VekSocket_::SEND_OK);
    makeQuiet(client());

    EXPECT_TRUE(check());

    EXPECT_FALSE(client().isSendDataPending());
    EXPECT_EQ(count(SystemCalls_::Recv), 0U);
    EXPECT_EQ(receiveText(*m_streams.m_sp_server, 5), "hello");
}

TEST_F(VekSocketQuietStream, theLimitOfAPendingWriteRuns) {
    m_calls.fail(SystemCalls_::Send, EAGAIN, 0, 2);
    ASSERT_EQ(client().send(bufferWith("hello")), VekSocket_::SEND_OK);
    m_calls.advanceClock(8);
    makeQuiet(client());

    EXPECT_FALSE(check());

    EXPECT_EQ(m_records.take(), Records_{socketRecord(3, "bool VekSocket_::check(BasicBuffer_&)",
                                                      "Attempt to send 5 bytes to " + m_streams.m_address +
                                                          " timed out after 8 seconds")});
}

TEST_F(VekSocketQuietStream, aReadOfNoBytesIsMadeAllTheSame) {
    const SP_BasicBuffer_ sp_full = emptyBuffer(1);
    ASSERT_TRUE(client().receive(1, sp_full));
    ASSERT_TRUE(sp_full->setDataArea(0, 1));
    makeQuiet(client());

    EXPECT_FALSE(check());

    EXPECT_EQ(count(SystemCalls_::Recv), 1U);
}

TEST_F(VekSocketQuietStream, aWriteEndsTheSpell) {
    makeQuiet(client());

    EXPECT_EQ(m_streams.m_sp_server->send(bufferWith("x")), VekSocket_::SEND_OK);

    EXPECT_EQ(quietSpell(), kNoQuietSpell);
}

TEST_F(VekSocketQuietStream, aCloseEndsTheSpell) {
    makeQuiet(client());

    m_streams.m_sp_server->cleanUp();

    EXPECT_EQ(quietSpell(), kNoQuietSpell);
    EXPECT_TRUE(eventually([&] { return !check(); }));
}

TEST_F(VekSocketQuietStream, aSocketThatForgetsIsAsked) {
    makeQuiet(client());
    const std::uint64_t spell = quietSpell();
    client().forgetQuiet();

    EXPECT_TRUE(check());

    EXPECT_EQ(count(SystemCalls_::Recv), 1U);
    EXPECT_EQ(quietSpell(), spell);
}

TEST_F(VekSocketQuiet, anEntryAsksForWhatWouldMakeTheSocketDoSomething) {
    VekSocket_ connecting;
    m_calls.fail(SystemCalls_::Connect, EINPROGRESS);
    startConnecting(connecting, kPeer);
    Streams_ streams(Type_::LOCAL);

    EXPECT_EQ(eventsOf(m_socket), 0);
    EXPECT_EQ(eventsOf(connecting), POLLOUT);
    EXPECT_EQ(eventsOf(streams.m_listener), POLLIN | POLLPRI);
    EXPECT_EQ(eventsOf(streams.m_client), 0);  // asks for nothing yet
    ASSERT_TRUE(streams.m_client.receive(0, emptyBuffer(1)));
    EXPECT_EQ(eventsOf(streams.m_client), 0);
    ASSERT_TRUE(streams.m_client.receive(1, emptyBuffer(1)));
    EXPECT_EQ(eventsOf(streams.m_client), POLLIN | POLLPRI);

    m_records.take();
    streams.m_sp_server->cleanUp();
    SP_BasicBuffer_ sp_nothing;
    EXPECT_FALSE(streams.m_client.check(sp_nothing));
    EXPECT_TRUE(streams.m_client.isConnected());  // but its descriptor is closed
    EXPECT_EQ(eventsOf(streams.m_client), 0);
}

TEST_F(VekSocketQuietStream, isAtRestInTheSpellInWhichItIsQuiet) {
    EXPECT_FALSE(client().isAtRest(quietSpell()));
    makeQuiet(client());
    EXPECT_TRUE(client().isAtRest(quietSpell()));

    const std::uint64_t spell = quietSpell();
    endQuietSpell();
    EXPECT_FALSE(client().isAtRest(quietSpell()));
    beginQuietSpell(takeQuietSpell());
    EXPECT_FALSE(client().isAtRest(quietSpell()));
    EXPECT_TRUE(client().isAtRest(spell));
    client().forgetQuiet();
    EXPECT_FALSE(client().isAtRest(spell));
    EXPECT_FALSE(client().isAtRest(kNoQuietSpell));
}

TEST_F(VekSocketQuietStream, isNotAtRestWithAWritePending) {
    m_calls.fail(SystemCalls_::Send, EAGAIN);
    ASSERT_EQ(client().send(bufferWith("hello")), VekSocket_::SEND_OK);
    makeQuiet(client());

    EXPECT_FALSE(client().isAtRest(quietSpell()));
}

TEST_F(VekSocketQuiet, aStreamWithoutAReceiveIsNotAtRest) {
    Streams_ streams{Type_::INET_TCP};
    makeQuiet(streams.m_client);

    EXPECT_FALSE(streams.m_client.isAtRest(quietSpell()));
}

TEST_F(VekSocketQuiet, whatIsNotConnectedIsNotAtRest) {
    m_calls.fail(SystemCalls_::Connect, EINPROGRESS);
    startConnecting(m_socket, kPeer);
    ASSERT_TRUE(m_socket.receive(1, emptyBuffer(1)));
    makeQuiet(m_socket);

    EXPECT_FALSE(m_socket.isAtRest(quietSpell()));
}
