#include "terminal/active_connections.h"

#include <gtest/gtest.h>

#include <new>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "foundation/log_record.h"
#include "foundation/utf8_name.h"
#include "support/allocation_failure.h"
#include "support/utf8_text.h"

namespace {

SP_VekmsgConnection_ connectionTo(const char* p_peerName) {
    SP_VekmsgConnection_ sp_connection(new VekmsgConnection_);
    sp_connection->setPeerName(createUtf8String(utf8(p_peerName)));
    return sp_connection;
}

class ActiveConnections : public testing::Test {
protected:
    ActiveConnections() {
        for (const char* p_name : {"dora", "anna", "emil", "cora"})
            EXPECT_TRUE(m_connections.insert(connectionTo(p_name)).second);
    }

    static std::string nameOf(const SP_VekmsgConnection_& sp_connection) {
        return printable(sp_connection->getPeerName());
    }
    std::vector<std::string> names() const {
        std::vector<std::string> names;
        for (const SP_VekmsgConnection_& sp_connection : m_connections)
            names.push_back(nameOf(sp_connection));
        return names;
    }

    using Names_ = std::vector<std::string>;
    ActiveConnections_ m_connections;
};

}  // namespace

TEST_F(ActiveConnections, standInTheOrderOfTheirPeersNames) {
    EXPECT_EQ(names(), (Names_{"anna", "cora", "dora", "emil"}));
    EXPECT_EQ(m_connections.size(), 4U);
    EXPECT_FALSE(m_connections.empty());
}

TEST_F(ActiveConnections, aNewOneIsToldWhereItStands) {
    const SP_VekmsgConnection_ sp_bert = connectionTo("bert");

    const auto [place, isInserted] = m_connections.insert(sp_bert);

    EXPECT_TRUE(isInserted);
    EXPECT_EQ(*place, sp_bert);
    EXPECT_EQ(place - m_connections.begin(), 1);
    EXPECT_EQ(names(), (Names_{"anna", "bert", "cora", "dora", "emil"}));
}

TEST_F(ActiveConnections, thereIsOneForEachPeer) {
    for (const char* p_name : {"anna", "dora", "emil"}) {
        const SP_VekmsgConnection_ sp_second = connectionTo(p_name);

        const auto [place, isInserted] = m_connections.insert(sp_second);

        EXPECT_FALSE(isInserted);
        EXPECT_NE(*place, sp_second);
        EXPECT_EQ(nameOf(*place), p_name);
    }
    EXPECT_EQ(m_connections.size(), 4U);
}

TEST_F(ActiveConnections, areFoundByName) {
    EXPECT_EQ(nameOf(*m_connections.find(connectionTo("anna"))), "anna");
    EXPECT_EQ(nameOf(*m_connections.find(connectionTo("emil"))), "emil");
    for (const char* p_name : {"abel", "bert", "zora"})
        EXPECT_EQ(m_connections.find(connectionTo(p_name)), m_connections.end());
}

TEST_F(ActiveConnections, areFoundWhereverTheyStandByNow) {
    std::mt19937 random(1);
    std::set<std::string> expected = {"anna", "cora", "dora", "emil"};
    for (unsigned int step = 0; step < 3000; ++step) {
        const std::string name(1 + random() % 2, static_cast<char>('a' + random() % 6));
        const SP_VekmsgConnection_ sp_connection = connectionTo(name.c_str());
        const auto found = m_connections.find(sp_connection);
        ASSERT_EQ(found != m_connections.end(), expected.count(name) != 0) << name;
        if (found == m_connections.end()) {
            if (random() % 2 != 0) expected.insert(nameOf(*m_connections.insert(sp_connection).first));
        } else {
            ASSERT_EQ(nameOf(*found), name);
            ASSERT_EQ(m_connections.findLatest(utf8(name.c_str())), found->get());
            if (random() % 4 == 0) {
                m_connections.erase(found);
                expected.erase(name);
            }
        }
        ASSERT_EQ(m_connections.size(), expected.size());
        const VekmsgConnection_* p_latest = m_connections.findLatest(utf8(name.c_str()));
        if (p_latest != nullptr) {
            ASSERT_EQ(p_latest, m_connections.find(sp_connection)->get());
        }
    }
    m_connections.clear();
    EXPECT_EQ(m_connections.find(connectionTo("anna")), m_connections.end());
}

TEST_F(ActiveConnections, thatWhichWasFoundLastIsFoundByItsName) {
    const auto cora = m_connections.find(connectionTo("cora"));

    EXPECT_EQ(m_connections.findLatest(utf8("cora")), cora->get());
    EXPECT_EQ(m_connections.findLatest(utf8("anna")), nullptr);
    EXPECT_EQ(m_connections.findLatest(utf8("")), nullptr);

    m_connections.find(connectionTo("zora"));
    EXPECT_EQ(m_connections.findLatest(utf8("cora")), cora->get());
    m_connections.find(connectionTo("emil"));
    EXPECT_EQ(m_connections.findLatest(utf8("cora")), nullptr);
    m_connections.erase(m_connections.begin());
    EXPECT_EQ(m_connections.findLatest(utf8("emil")), nullptr);
    m_connections.clear();
    EXPECT_EQ(m_connections.findLatest(utf8("emil")), nullptr);
}

TEST_F(ActiveConnections, thatWhichWasFoundLastMayHaveNoName) {
    const SP_VekmsgConnection_ sp_nameless(new VekmsgConnection_);
    m_connections.insert(sp_nameless);
    m_connections.find(sp_nameless);

    EXPECT_EQ(m_connections.findLatest(utf8("")), nullptr);
}

TEST_F(ActiveConnections, theNextOneIsThatWithTheNextGreaterName) {
    EXPECT_EQ(nameOf(*m_connections.upper_bound(connectionTo("anna"))), "cora");
    EXPECT_EQ(nameOf(*m_connections.upper_bound(connectionTo("bert"))), "cora");
    EXPECT_EQ(m_connections.upper_bound(connectionTo("emil")), m_connections.end());
}

TEST_F(ActiveConnections, oneGoesAndTheNextIsTold) {
    const auto behind = m_connections.erase(m_connections.find(connectionTo("cora")));

    EXPECT_EQ(nameOf(*behind), "dora");
    const auto end = m_connections.erase(m_connections.find(connectionTo("emil")));
    EXPECT_EQ(end, m_connections.end());
    EXPECT_EQ(names(), (Names_{"anna", "dora"}));
    m_connections.clear();
    EXPECT_TRUE(m_connections.empty());
}

TEST_F(ActiveConnections, whateverMovesOneCountsAsAChange) {
    const unsigned int before = m_connections.changes();
    EXPECT_FALSE(m_connections.insert(connectionTo("cora")).second);
    m_connections.find(connectionTo("dora"));
    EXPECT_EQ(m_connections.changes(), before);

    EXPECT_TRUE(m_connections.insert(connectionTo("abel")).second);
    const unsigned int afterInserting = m_connections.changes();
    EXPECT_NE(afterInserting, before);
    m_connections.erase(m_connections.begin());
    const unsigned int afterErasing = m_connections.changes();
    EXPECT_NE(afterErasing, afterInserting);
    m_connections.clear();
    EXPECT_NE(m_connections.changes(), afterErasing);
}

TEST_F(ActiveConnections, withoutMemoryForMoreTheyStayAsTheyAre) {
    const SP_VekmsgConnection_ sp_bert = connectionTo("bert");  // the array has room for four
    {
        const AllocationFailure_ failure(1);
        EXPECT_THROW(m_connections.insert(sp_bert), std::bad_alloc);
    }
    EXPECT_EQ(names(), (Names_{"anna", "cora", "dora", "emil"}));
}
