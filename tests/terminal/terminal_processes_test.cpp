#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <map>

#include "support/child_process.h"
#include "terminal/installation.h"

namespace {

using Numbers_ = std::vector<unsigned int>;

/// One process tells another one, by a byte each time, that it may go on.
class Signal_ {
public:
    Signal_() {
        if (pipe(m_ends) != 0) throw std::runtime_error("no pipe");
    }
    ~Signal_() {
        close(m_ends[0]);
        close(m_ends[1]);
    }
    Signal_(const Signal_&) = delete;
    Signal_& operator=(const Signal_&) = delete;

    void give() const { EXPECT_EQ(::write(m_ends[1], "x", 1), 1); }

    /// False when it does not come within some seconds.
    bool await() const {
        char byte = 0;
        pollfd entry = readEntry();
        return ::poll(&entry, 1, 10000) == 1 && ::read(m_ends[0], &byte, 1) == 1;
    }

    pollfd readEntry() const { return {m_ends[0], POLLIN, 0}; }

private:
    int m_ends[2];
};

/// The next message, waited for as an application does; null when none comes within the limit.
SP_VekMessage_ waitAt(TestTerminal_& terminal) {
    SP_VekMessage_ sp_message;
    eventually([&] {
        return terminal.waitForMessage(20) == VekmsgTerminal_::WAIT_MESSAGE &&
               terminal.receiveMessage(sp_message) && sp_message;
    });
    return sp_message;
}

bool waitUntilConnected(TestTerminal_& terminal, const std::string& peerName) {
    return eventually([&] { return terminal.pass() && terminal.isConnected(utf8(peerName)); });
}

bool hasOneStreamWith(const TestTerminal_& terminal, const std::string& peerName) {
    return terminal.m_unresolvedConnections.empty() && terminal.m_activeConnections.size() == 1 &&
           terminal.isConnected(utf8(peerName));
}

constexpr unsigned int kEnd = 0;  // the number that tells a component to end

/// Components in processes of their own.
class Processes_ : public Installation_ {
protected:
    using Run_ = std::function<int(TestTerminal_&)>;
    using Process_ = std::unique_ptr<ChildProcess_>;

    virtual bool isTcp() const = 0;

    /// The address of a component, the same each time.
    std::string address(const std::string& component) {
        std::string& known = m_addresses[component];
        if (known.empty()) known = isTcp() ? freeTcpAddress() : local(component);
        return known;
    }

    std::vector<std::string> lines(const std::vector<std::string>& components) {
        std::vector<std::string> lines;
        for (const std::string& component : components) lines.push_back(address(component) + " " + component);
        return lines;
    }

    Terminal_ openHere(const std::string& component, const std::vector<std::string>& others) {
        std::vector<std::string> all = others;
        all.push_back(component);
        return open(component, lines(all));
    }

    /// A component that knows itself and the others, running `run` in its own process. It is open when this
    /// returns. It ends with the result of `run`, without closing.
    Process_ start(const std::string& component, const std::vector<std::string>& others, const Run_& run) {
        std::vector<std::string> all = others;
        all.push_back(component);
        return startWith(component, lines(all), run);
    }

    Process_ startWith(const std::string& component, const std::vector<std::string>& directoryLines,
                       const Run_& run) {
        const Signal_ isOpen;
        Process_ process(new ChildProcess_([&] {
            const Terminal_ terminal = open(component, directoryLines);
            isOpen.give();
            return run(*terminal);
        }));
        EXPECT_TRUE(isOpen.await()) << component;
        return process;
    }

    std::map<std::string, std::string> m_addresses;
};

class TerminalProcesses : public Processes_, public testing::WithParamInterface<const char*> {
protected:
    bool isTcp() const override { return std::string(GetParam()) == "tcp"; }
};

const std::string kBothOrders[][2] = {{"anna", "bert"}, {"bert", "anna"}};

/// Two components that connect to each other: each sends, 1 from here and 2 from there, before either looks
/// at its sockets.
class Crossing_ {
public:
    bool sendFromHere(TestTerminal_& terminal, const std::string& there) const {
        if (!terminal.sendMessage(messageTo(there, 1))) return false;
        m_maySend.give();
        return m_hasSent.await();
    }

    bool sendFromThere(TestTerminal_& terminal, const std::string& here) const {
        if (!m_maySend.await() || !terminal.sendMessage(messageTo(here, 2))) return false;
        m_hasSent.give();
        return true;
    }

private:
    const Signal_ m_maySend;
    const Signal_ m_hasSent;
};

class CrossingProcesses : public Processes_ {
protected:
    bool isTcp() const override { return false; }

    static Record_ duplicate(const std::string& own, const std::string& peer) {
        return warning(kSettling, "Duplicate connections between " + own + " and " + peer + ". " +
                                      (own < peer ? "Closing the new one" : "Closing the old"));
    }
};

INSTANTIATE_TEST_SUITE_P(Over, TerminalProcesses, testing::Values("local", "tcp"),
                         [](const auto& info) { return std::string(info.param); });

}  // namespace

TEST_P(TerminalProcesses, aRequestGetsItsReply) {
    const Process_ bert = start("bert", {"anna"}, [](TestTerminal_& terminal) {
        const SP_VekMessage_ sp_request = waitAt(terminal);
        if (!sp_request) return 1;
        const SP_VekMessage_ sp_reply = messageTo(text(sp_request->getSource()), numberIn(sp_request) + 1);
        return terminal.sendMessage(sp_reply) && waitAt(terminal) ? 0 : 2;
    });
    const Terminal_ anna = openHere("anna", {"bert"});

    EXPECT_TRUE(anna->sendMessage(messageTo("bert", 41)));
    const SP_VekMessage_ sp_reply = waitAt(*anna);

    ASSERT_TRUE(sp_reply);
    EXPECT_EQ(numberIn(sp_reply), 42U);
    EXPECT_EQ(text(sp_reply->getSource()), "bert");
    EXPECT_EQ(text(sp_reply->getDestination()), "anna");
    EXPECT_EQ(anna->m_activeConnections.size(), 1U);  // the reply came on the stream of the request
    EXPECT_TRUE(anna->sendMessage(messageTo("bert", kEnd)));
    EXPECT_TRUE(anna->pass());
    EXPECT_EQ(bert->wait(), 0);
}

TEST_P(TerminalProcesses, aPingIsAnsweredByTheOtherProcessAndNotGivenToItsApplication) {
    const Process_ bert = start("bert", {}, [](TestTerminal_& terminal) {
        const SP_VekMessage_ sp_message = waitAt(terminal);
        return sp_message && numberIn(sp_message) == kEnd ? 0 : 1;
    });
    const Terminal_ anna = openHere("anna", {"bert"});
    const SP_VekMessage_ sp_ping = messageTo("bert", 5, kPingRequest);
    sp_ping->setTimeToLive(11);

    EXPECT_TRUE(anna->sendMessage(sp_ping));
    const SP_VekMessage_ sp_reply = waitAt(*anna);

    ASSERT_TRUE(sp_reply);
    EXPECT_EQ(text(sp_reply->getPayloadSchema()), kPingReply);
    EXPECT_EQ(text(sp_reply->getSource()), "bert");
    EXPECT_EQ(sp_reply->getTimeToLive(), 11U);
    EXPECT_EQ(numberIn(sp_reply), 5U);
    EXPECT_TRUE(anna->sendMessage(messageTo("bert", kEnd)));
    EXPECT_EQ(bert->wait(), 0);
}

TEST_P(TerminalProcesses, aRelayForwardsWithTheTimeToLiveOneLower) {
    const Process_ sensor = start("sensor", {}, [](TestTerminal_& terminal) {
        const SP_VekMessage_ sp_message = waitAt(terminal);
        if (!sp_message || numberIn(sp_message) != 7 || text(sp_message->getSource()) != "panel") return 100;
        return static_cast<int>(sp_message->getTimeToLive());
    });
    const Process_ router = start("router", {"sensor"}, [](TestTerminal_& terminal) {
        const SP_VekMessage_ sp_message = waitAt(terminal);
        return sp_message && numberIn(sp_message) == kEnd ? 0 : 1;
    });
    // The panel's own file lists the sensor at the router's address.
    const Terminal_ panel = open("panel", {address("router") + " sensor", address("router") + " router"});
    const SP_VekMessage_ sp_message = messageTo("sensor", 7);
    sp_message->setTimeToLive(5);

    EXPECT_TRUE(panel->sendMessage(sp_message));

    EXPECT_TRUE(waitUntilConnected(*panel, "sensor"));
    EXPECT_EQ(sensor->wait(), 4);
    panel->m_activeConnections.clear();  // a second stream under the same name would be closed as a duplicate
    EXPECT_TRUE(panel->sendMessage(messageTo("router", kEnd)));
    EXPECT_TRUE(eventually([&] { return panel->pass() && router->wait(0) != -1; }));
    EXPECT_EQ(router->wait(), 0);
}

TEST_P(TerminalProcesses, aRelayDropsWhatMayNotTravelFurther) {
    const Process_ router = start("router", {"sensor"}, [this](TestTerminal_& terminal) {
        const SP_VekMessage_ sp_message = waitAt(terminal);
        const Records_ expected = {warning(
            kForwarding, "router can't route a message from panel because TTL = 0, dest sensor src panel")};
        return sp_message && numberIn(sp_message) == kEnd && m_records.take() == expected ? 0 : 1;
    });
    const Terminal_ panel = openHere("panel", {"router"});
    ASSERT_TRUE(panel->sendMessage(messageTo("router", 1, kPingRequest)));
    ASSERT_TRUE(waitAt(*panel));
    // On the same stream, so that both arrive in this order.
    const SP_VekmsgConnection_ sp_router = panel->active("router");
    EXPECT_TRUE(sp_router->sendEncodedMessage(bufferOf(messageBlock("sensor", "panel", 7, 0))));
    EXPECT_TRUE(panel->sendMessage(messageTo("router", kEnd)));

    EXPECT_EQ(router->wait(), 0);
}

// Both have sent before either looks at its sockets. The smaller name looks first: once the greater one has
// closed the stream it opened itself, the smaller one would find that stream ended and not a duplicate.
TEST_F(CrossingProcesses, theyKeepTheStreamOfTheSmallerNameWhicheverThatIs) {
    for (const auto& pair : kBothOrders) {
        const std::string& here = pair[0];
        const std::string& there = pair[1];
        const Crossing_ crossing;
        const Signal_ mayLook;
        const Signal_ hasLooked;
        const Process_ process = start(there, {here}, [&](TestTerminal_& terminal) {
            if (!crossing.sendFromThere(terminal, here)) return 1;
            if (!mayLook.await() || numbersAt(terminal) != Numbers_{1}) return 2;
            hasLooked.give();
            if (m_records.take() != Records_{duplicate(there, here)}) return 3;
            const SP_VekMessage_ sp_end = waitAt(terminal);
            return sp_end && numberIn(sp_end) == kEnd && hasOneStreamWith(terminal, here) ? 0 : 4;
        });
        const Terminal_ terminal = openHere(here, {there});
        ASSERT_TRUE(crossing.sendFromHere(*terminal, there));
        const auto letTheOtherLook = [&] {
            mayLook.give();
            return hasLooked.await();
        };

        const bool isOthersTurn = there < here;
        if (isOthersTurn) {
            EXPECT_TRUE(letTheOtherLook());
        }
        EXPECT_EQ(numbersAt(*terminal), Numbers_{2});
        EXPECT_EQ(m_records.take(), Records_{duplicate(here, there)});
        if (!isOthersTurn) {
            EXPECT_TRUE(letTheOtherLook());
        }

        EXPECT_TRUE(hasOneStreamWith(*terminal, there));
        EXPECT_TRUE(terminal->sendMessage(messageTo(there, kEnd)));
        EXPECT_EQ(process->wait(), 0) << here;
        EXPECT_TRUE(eventually([&] { return terminal->pass() && terminal->m_activeConnections.empty(); }));
        m_records.take();
    }
}

TEST_P(TerminalProcesses, componentsThatConnectToEachOtherEndWithOneStream) {
    for (const auto& pair : kBothOrders) {
        const std::string& here = pair[0];
        const std::string& there = pair[1];
        const Crossing_ crossing;
        const Signal_ isSettledThere;
        const Process_ process = start(there, {here}, [&](TestTerminal_& terminal) {
            if (!crossing.sendFromThere(terminal, here)) return 1;
            if (!eventually([&] { return terminal.pass() && hasOneStreamWith(terminal, here); })) return 2;
            isSettledThere.give();
            const bool isEnded = eventually([&] {
                const SP_VekMessage_ sp_message = waitAt(terminal);
                return sp_message && numberIn(sp_message) == kEnd;
            });
            return isEnded && hasOneStreamWith(terminal, here) ? 0 : 3;
        });
        const Terminal_ terminal = openHere(here, {there});
        ASSERT_TRUE(crossing.sendFromHere(*terminal, there));

        EXPECT_TRUE(eventually([&] {
            pollfd entry = isSettledThere.readEntry();
            return terminal->pass() && hasOneStreamWith(*terminal, there) && ::poll(&entry, 1, 0) == 1;
        }));
        EXPECT_TRUE(terminal->sendMessage(messageTo(there, kEnd)));
        EXPECT_TRUE(eventually([&] { return terminal->pass() && process->wait(0) != -1; }));
        EXPECT_EQ(process->wait(), 0) << here;
        m_records.take();
    }
}

TEST_P(TerminalProcesses, aKilledPeerIsDeletedAndReachedAgainWhenItIsBack) {
    const Run_ receiveOne = [](TestTerminal_& terminal) {
        const SP_VekMessage_ sp_message = waitAt(terminal);
        if (!sp_message || !terminal.sendMessage(messageTo("anna", numberIn(sp_message)))) return 1;
        return waitAt(terminal) ? 0 : 2;
    };
    const Terminal_ anna = openHere("anna", {"bert"});
    {
        const Process_ bert = start("bert", {}, receiveOne);
        ASSERT_TRUE(anna->sendMessage(messageTo("bert", 1)));
        ASSERT_TRUE(waitAt(*anna));
        m_records.take();
        bert->kill(SIGKILL);
        ASSERT_EQ(bert->wait(), 128 + SIGKILL);
    }
    EXPECT_TRUE(eventually([&] { return anna->pass() && anna->m_activeConnections.empty(); }));
    EXPECT_EQ(m_records.take(),
              Records_{debug(kServing, "Deleting active connection between anna and bert")});

    const Process_ bert = start("bert", {}, receiveOne);
    EXPECT_TRUE(anna->sendMessage(messageTo("bert", 2)));

    const SP_VekMessage_ sp_answer = waitAt(*anna);
    ASSERT_TRUE(sp_answer);
    EXPECT_EQ(numberIn(sp_answer), 2U);
    EXPECT_TRUE(anna->sendMessage(messageTo("bert", kEnd)));
    EXPECT_EQ(bert->wait(), 0);
}

TEST_P(TerminalProcesses, aRestartedPeerIsReachedThoughItsEndWasNotSeen) {
    const Run_ answerOne = [](TestTerminal_& terminal) {
        const SP_VekMessage_ sp_message = waitAt(terminal);
        if (!sp_message || !terminal.sendMessage(messageTo("anna", numberIn(sp_message)))) return 1;
        return waitAt(terminal) ? 0 : 2;
    };
    const Terminal_ anna = openHere("anna", {"bert"});
    {
        const Process_ bert = start("bert", {}, answerOne);
        ASSERT_TRUE(anna->sendMessage(messageTo("bert", 1)));
        ASSERT_TRUE(waitAt(*anna));
        bert->kill(SIGKILL);
        ASSERT_EQ(bert->wait(), 128 + SIGKILL);
    }
    const Process_ bert = start("bert", {}, answerOne);
    m_records.take();
    // A TCP connection is made anew with the message that could not be written; a local one is given up.
    const std::string sign = isTcp() ? "Reconnecting socket between anna and bert after 1 failures"
                                     : "VekmsgTerminalImpl_::sendMessage() Unrecoverable send error at anna";
    EXPECT_TRUE(eventually([&] {
        EXPECT_TRUE(anna->sendMessage(messageTo("bert", 2)));
        const std::vector<std::string> texts = m_records.takeTexts();
        return std::find(texts.begin(), texts.end(), sign) != texts.end();
    }));
    EXPECT_TRUE(isTcp() || anna->sendMessage(messageTo("bert", 2)));

    const SP_VekMessage_ sp_answer = waitAt(*anna);
    ASSERT_TRUE(sp_answer);
    EXPECT_EQ(numberIn(sp_answer), 2U);
    EXPECT_TRUE(anna->sendMessage(messageTo("bert", kEnd)));
    EXPECT_EQ(bert->wait(), 0);
}

TEST_P(TerminalProcesses, aProgramThatSendsAndExitsAtOnceIsHeardByWhoHasNotAcceptedIt) {
    const Signal_ maySend;
    const Process_ bert = start("bert", {"anna"}, [&](TestTerminal_& terminal) {
        if (!maySend.await() || !terminal.sendMessage(messageTo("anna", 1))) return 1;
        if (!terminal.sendMessage(messageTo("anna", 2))) return 2;
        return waitUntilConnected(terminal, "anna") ? 0 : 3;
    });
    const Terminal_ anna = openHere("anna", {});
    maySend.give();
    ASSERT_EQ(bert->wait(), 0);

    const SP_VekMessage_ sp_first = waitAt(*anna);
    const SP_VekMessage_ sp_second = waitAt(*anna);

    EXPECT_EQ(numberIn(sp_first), 1U);
    EXPECT_EQ(numberIn(sp_second), 2U);
    EXPECT_TRUE(anna->m_activeConnections.empty());
}

TEST_P(TerminalProcesses, aProgramThatSendsAndExitsAtOnceIsHeardByWhoHasAcceptedIt) {
    const Signal_ mayConnect;
    const Signal_ maySend;
    const Process_ bert = start("bert", {"anna"}, [&](TestTerminal_& terminal) {
        if (!mayConnect.await() || !terminal.sendMessage(messageTo("anna", 1))) return 1;
        if (!waitUntilConnected(terminal, "anna") || !maySend.await()) return 2;
        return terminal.sendMessage(messageTo("anna", 2)) && terminal.sendMessage(messageTo("anna", 3)) ? 0
                                                                                                        : 3;
    });
    const Terminal_ anna = openHere("anna", {});
    mayConnect.give();
    ASSERT_EQ(numberIn(waitAt(*anna)), 1U);
    maySend.give();
    ASSERT_EQ(bert->wait(), 0);

    EXPECT_EQ(numberIn(waitAt(*anna)), 2U);
    EXPECT_EQ(numberIn(waitAt(*anna)), 3U);
}

TEST_P(TerminalProcesses, manyMessagesBothWaysArriveInOrder) {
    constexpr unsigned int kCount = 2000;
    const auto exchange = [](TestTerminal_& terminal, const std::string& peerName) {
        unsigned int sent = 0;
        unsigned int received = 0;
        const bool isDone = eventually([&] {
            for (int i = 0; i < 50 && sent < kCount; ++i) {
                if (!terminal.sendMessage(messageTo(peerName, ++sent))) return false;
            }
            terminal.waitForMessage(1);
            SP_VekMessage_ sp_message;
            while (received < kCount && terminal.receiveMessage(sp_message) && sp_message) {
                if (numberIn(sp_message) != ++received) return false;
            }
            return sent == kCount && received == kCount;
        });
        return isDone;
    };
    const Process_ bert = start("bert", {"anna"}, [&](TestTerminal_& terminal) {
        const SP_VekMessage_ sp_first = waitAt(terminal);
        if (!sp_first || !exchange(terminal, "anna")) return 1;
        return waitAt(terminal) ? 0 : 2;
    });
    const Terminal_ anna = openHere("anna", {"bert"});
    ASSERT_TRUE(anna->sendMessage(messageTo("bert", 1)));
    ASSERT_TRUE(waitUntilConnected(*anna, "bert"));

    EXPECT_TRUE(exchange(*anna, "bert"));

    EXPECT_TRUE(anna->sendMessage(messageTo("bert", kEnd)));
    EXPECT_TRUE(eventually([&] { return anna->pass() && bert->wait(0) != -1; }));
    EXPECT_EQ(bert->wait(), 0);
}

TEST_P(TerminalProcesses, severalTerminalsAndAPipeAreWaitedForTogether) {
    const Signal_ maySend;
    const Signal_ hasSent;
    const Process_ bert = start("bert", {"anna", "emil"}, [&](TestTerminal_& terminal) {
        if (!maySend.await()) return 1;
        if (!terminal.sendMessage(messageTo("anna", 1)) || !terminal.sendMessage(messageTo("emil", 2)))
            return 2;
        if (!waitUntilConnected(terminal, "anna") || !waitUntilConnected(terminal, "emil")) return 3;
        hasSent.give();
        return waitAt(terminal) && waitAt(terminal) ? 0 : 4;
    });
    const Terminal_ anna = openHere("anna", {"bert"});
    const Terminal_ emil = openHere("emil", {"bert"});
    void* handles[] = {static_cast<VekmsgTerminalImpl_*>(anna.get()),
                       static_cast<VekmsgTerminalImpl_*>(emil.get()), nullptr};
    maySend.give();
    Numbers_ numbers;
    bool isTold = false;

    EXPECT_TRUE(eventually([&] {
        pollfd entry = hasSent.readEntry();
        const int result = VekmsgTerminalImpl_::pollFd(
            &entry, isTold ? 0 : 1, 1000,
            [](void* p_handle) { return static_cast<VekmsgTerminalImpl_*>(p_handle); },
            reinterpret_cast<char*>(handles));
        EXPECT_NE(result, VekmsgTerminal_::POLL_ERROR);
        if (result == 1) isTold = (entry.revents & POLLIN) != 0 && hasSent.await();
        for (TestTerminal_* p_terminal : {anna.get(), emil.get()}) {
            for (unsigned int number : numbersAt(*p_terminal)) numbers.push_back(number);
        }
        return isTold && numbers.size() == 2;
    }));

    std::sort(numbers.begin(), numbers.end());
    EXPECT_EQ(numbers, (Numbers_{1, 2}));
    EXPECT_TRUE(anna->sendMessage(messageTo("bert", 3)));
    EXPECT_TRUE(emil->sendMessage(messageTo("bert", 4)));
    EXPECT_EQ(bert->wait(), 0);
}
