// Whether a connection may be left alone in a pass.

#include "foundation/quiet_spell.h"
#include "terminal/connection.h"
#include "terminal/connections.h"

namespace {

class ConnectionQuiet : public ConnectionTest_ {
protected:
    ~ConnectionQuiet() override { endQuietSpell(); }
};

}  // namespace

TEST_F(ConnectionQuiet, isAtRestWhenItWaitsForBlocksThatHaveNotCome) {
    openEstablished();
    EXPECT_FALSE(m_sp_connection->isAtRest(kNoQuietSpell));
    beginQuietSpell(takeQuietSpell());
    socket().noteQuiet(quietSpell());

    EXPECT_TRUE(m_sp_connection->isAtRest(quietSpell()));
    m_sp_connection->m_connectionState = VekmsgConnection_::STATE_RECEIVING_PAYLOAD;
    EXPECT_TRUE(m_sp_connection->isAtRest(quietSpell()));
    m_sp_connection->m_receivedBuffers.push_back(bufferOf("taken later"));
    EXPECT_TRUE(m_sp_connection->isAtRest(quietSpell()));

    endQuietSpell();
    EXPECT_FALSE(m_sp_connection->isAtRest(quietSpell()));
}

TEST_F(ConnectionQuiet, isNotAtRestWithAnythingToDo) {
    openEstablished();
    beginQuietSpell(takeQuietSpell());
    socket().noteQuiet(quietSpell());

    m_sp_connection->m_sendQueue.push_back(bufferOf("queued"));
    EXPECT_FALSE(m_sp_connection->isAtRest(quietSpell()));
    m_sp_connection->m_sendQueue.clear();

    m_sp_connection->m_sp_wholeUnit = bufferOf("unit");
    EXPECT_FALSE(m_sp_connection->isAtRest(quietSpell()));
    m_sp_connection->m_sp_wholeUnit.reset();

    for (const auto state : {VekmsgConnection_::STATE_RECEIVING_NAME, VekmsgConnection_::STATE_FAILED}) {
        m_sp_connection->m_connectionState = state;
        EXPECT_FALSE(m_sp_connection->isAtRest(quietSpell())) << state;
    }
    m_sp_connection->m_connectionState = VekmsgConnection_::STATE_RECEIVING_HEADER;
    EXPECT_TRUE(m_sp_connection->isAtRest(quietSpell()));
}

TEST_F(ConnectionQuiet, aSocketThatChangesItsConnectionIsQuietNoMore) {
    openEstablished();
    const std::uint64_t spell = 7;
    const SP_BareConnection_ sp_empty(new BareConnection_);

    socket().noteQuiet(spell);
    EXPECT_TRUE(m_sp_connection->isAtRest(spell));
    EXPECT_TRUE(m_sp_connection->swapSockets(sp_empty.get()));
    EXPECT_EQ(m_sp_connection->socket(), nullptr);
    EXPECT_FALSE(sp_empty->isAtRest(spell));

    sp_empty->socket()->noteQuiet(spell);
    EXPECT_TRUE(m_sp_connection->swapSockets(sp_empty.get()));
    EXPECT_FALSE(m_sp_connection->isAtRest(spell));
}

TEST_F(ConnectionQuiet, withoutASocketIsNotAtRest) {
    m_sp_connection->setSocket(SP_VekSocket_());
    EXPECT_EQ(m_sp_connection->socket(), nullptr);
    EXPECT_FALSE(m_sp_connection->isAtRest(quietSpell()));
}
