// Streams that meet, end and come back, and messages in transit.

#include "proof/allocations/stations.h"
#include "support/utf8_text.h"

namespace {

using Of_ = ScenariosOf_<Stations_>;

constexpr unsigned int kMostWaits = 200;  // of a millisecond, for a TCP stream

std::string messageOfPeer(unsigned int number) {
    return wire::messageBlock(wire::header(kAlpha, kBeta, 3, kSchema) +
                              wire::element(1, wire::Uint, wire::u32(number)));
}

/// No message has come twice, none was made up, and without failures all have come.
void judgeNumbers(Stations_& s, Run_& run, const std::multiset<long>& expected) {
    run.requireUntouched(s.hasReceived(expected), "messages are missing");
    for (const long number : s.m_numbers)
        run.require(s.m_numbers.count(number) <= expected.count(number), "a message comes that was not sent");
}

// Crossing connections

void readyBoth(Stations_& s) {
    s.m_messages.push_back(s.m_p_alpha->message(kBeta, kSchema, 1));
    s.m_messages.push_back(s.m_p_beta->message(kAlpha, kSchema, 2));
    s.m_messages.push_back(s.m_p_alpha->message(kBeta, kSchema, 3));
    s.m_messages.push_back(s.m_p_beta->message(kAlpha, kSchema, 4));
}

void addCrossing(Of_& of) {
    of.add("crossing: both send, the smaller name looks first", readyBoth, [](Stations_& s, Run_& run) {
        Stations_::send(run, *s.m_p_alpha, s.m_messages[0]);
        Stations_::send(run, *s.m_p_beta, s.m_messages[1]);
        s.settle(run, {s.m_p_alpha.get(), s.m_p_beta.get()});
        Stations_::send(run, *s.m_p_alpha, s.m_messages[2]);
        Stations_::send(run, *s.m_p_beta, s.m_messages[3]);
        s.settle(run, {s.m_p_alpha.get(), s.m_p_beta.get()});
        judgeNumbers(s, run, {1, 2, 3, 4});
    });
    of.add("crossing: both send, the greater name looks first", readyBoth, [](Stations_& s, Run_& run) {
        Stations_::send(run, *s.m_p_beta, s.m_messages[1]);
        Stations_::send(run, *s.m_p_alpha, s.m_messages[0]);
        s.settle(run, {s.m_p_beta.get(), s.m_p_alpha.get()});
        Stations_::send(run, *s.m_p_beta, s.m_messages[3]);
        Stations_::send(run, *s.m_p_alpha, s.m_messages[2]);
        s.settle(run, {s.m_p_beta.get(), s.m_p_alpha.get()});
        judgeNumbers(s, run, {1, 2, 3, 4});
    });
    of.add(
        "crossing: a second stream of the same peer",
        [](Stations_& s) {
            s.m_peers.push_back(s.peerOfAlpha("raw-peer-with-a-long-name"));
            s.m_p_alpha->receive();
            s.m_peers[0].write(messageOfPeer(1));
            s.m_peers.push_back(s.peerOfAlpha("raw-peer-with-a-long-name"));
            s.m_peers[1].write(messageOfPeer(2));
        },
        [](Stations_& s, Run_& run) {
            s.settle(run, {s.m_p_alpha.get()});
            run.require(s.m_numbers.size() <= 2, "more messages than were sent");
            run.requireUntouched(s.m_numbers.count(1) == 1, "the message of the old stream is missing");
        });
    of.add(
        "crossing: a peer that is back while its old stream stands",
        [](Stations_& s) {
            s.m_peers.push_back(s.peerOfAlpha("a-smaller-peer-with-a-long-name"));
            s.m_p_alpha->receive();
            s.m_peers[0].write(messageOfPeer(1));
            s.m_peers[0].close();
            s.m_peers.push_back(s.peerOfAlpha("a-smaller-peer-with-a-long-name"));
            s.m_peers[1].write(messageOfPeer(2));
        },
        [](Stations_& s, Run_& run) {
            s.settle(run, {s.m_p_alpha.get()});
            judgeNumbers(s, run, {1, 2});
        });
    of.add(
        "crossing: an accepted stream while the own one says its name",
        [](Stations_& s) {
            s.m_p_listener = std::make_unique<RawListener_>(s.local("nobody"));
            s.m_messages.push_back(s.m_p_alpha->message(kNobody, kSchema, 1));
            s.m_peers.push_back(s.peerOfAlpha(kNobody));
            s.m_peers[0].write(messageOfPeer(2));
        },
        [](Stations_& s, Run_& run) {
            Stations_::send(run, *s.m_p_alpha, s.m_messages[0]);
            s.settle(run, {s.m_p_alpha.get()});
            judgeNumbers(s, run, {2});
        });
}

// Streams that end

/// Alpha works until the peer has something to read, or long enough.
bool workUntilHeard(Stations_& s, Run_& run, const RawPeer_& peer) {
    for (unsigned int i = 0; i < kMostWaits && peer.isQuiet(); ++i) {
        s.receive(run, *s.m_p_alpha);
        run.succeeds("waitForMessage", [&] { return s.m_p_alpha->terminal().waitForMessage(1); });
        if (Run_::hasStruck() && i > 5) break;
    }
    return !peer.isQuiet();
}

/// Alpha reaches a raw peer over TCP, which has taken a first message.
void connectOverTcp(Stations_& s) {
    const std::string address = Stations_::tcp(3);
    const std::string own = s.writeDirectory(
        {s.local("alpha") + " " + kAlpha, s.local("beta") + " " + kBeta, address + " " + kNobody});
    s.m_p_alpha.reset();
    s.m_p_alpha = std::make_unique<Station_>(kAlpha, own);
    s.m_p_listener = std::make_unique<RawListener_>(address);
    s.m_p_alpha->send(kNobody, kSchema, 1);
    s.m_peers.push_back(s.m_p_listener->accept());
    if (!s.m_p_alpha->workUntil([&] { return s.m_p_alpha->isConnected(kNobody); }))
        throw std::runtime_error("no TCP stream");
    s.m_peers[0].readBlock();
    s.m_peers[0].readBlock();
    s.m_messages.push_back(s.m_p_alpha->message(kNobody, kSchema, 2));
    s.m_messages.push_back(s.m_p_alpha->message(kNobody, kSchema, 3));
}

void endPeer(Stations_& s) {
    s.m_peers[0].resetOnClose();
    s.m_peers[0].close();
}

/// The peer of the reconnection, if alpha came back: it hears the name again, and then what was queued.
void acceptAgain(Stations_& s, Run_& run) {
    try {
        s.m_peers.push_back(s.m_p_listener->accept(Run_::hasStruck() ? 5 : 5000));
    } catch (const std::runtime_error&) {
        run.requireUntouched(false, "the peer is not reached again");
        return;
    }
    const bool isHeard = workUntilHeard(s, run, s.m_peers.back());
    run.requireUntouched(isHeard, "the peer hears nothing");
    s.m_peers.back().resetOnClose();
}

void addEnding(Of_& of) {
    of.add(
        "TCP: the first message",
        [](Stations_& s) {
            const std::string address = Stations_::tcp(3);
            const std::string own = s.writeDirectory(
                {s.local("alpha") + " " + kAlpha, s.local("beta") + " " + kBeta, address + " " + kNobody});
            s.m_p_alpha.reset();
            s.m_p_alpha = std::make_unique<Station_>(kAlpha, own);
            s.m_p_listener = std::make_unique<RawListener_>(address);
            s.m_messages.push_back(s.m_p_alpha->message(kNobody, kSchema, 2));
        },
        [](Stations_& s, Run_& run) {
            Stations_::send(run, *s.m_p_alpha, s.m_messages[0]);
            acceptAgain(s, run);
        });
    of.add(
        "TCP: a listener accepts",
        [](Stations_& s) {
            const std::string address = Stations_::tcp(4);
            const std::string own = s.writeDirectory(
                {address + " " + kAlpha, s.local("alpha") + " " + kAlpha, s.local("beta") + " " + kBeta});
            s.m_p_alpha.reset();
            s.m_p_alpha = std::make_unique<Station_>(kAlpha, own);
            s.m_peers.emplace_back(address);
            s.m_peers[0].resetOnClose();
            s.m_peers[0].write(wire::nameBlock("raw-peer-with-a-long-name") + messageOfPeer(1));
        },
        [](Stations_& s, Run_& run) {
            s.settle(run, {s.m_p_alpha.get()}, 10);
            judgeNumbers(s, run, {1});
        });
    of.add(
        "reconnect: a TCP stream that ended, when sending",
        [](Stations_& s) {
            connectOverTcp(s);
            endPeer(s);
        },
        [](Stations_& s, Run_& run) {
            Stations_::send(run, *s.m_p_alpha, s.m_messages[0]);
            Stations_::send(run, *s.m_p_alpha, s.m_messages[1]);
            acceptAgain(s, run);
        });
    of.add(
        "reconnect: a TCP stream that ended, when looking",
        [](Stations_& s) {
            connectOverTcp(s);
            const std::string large(9000, 'x');
            for (unsigned int i = 0; i < 1000; ++i) {
                const SP_VekMessage_ sp_message = s.m_p_alpha->message(kNobody, kSchema, 2);
                const SP_VekmsgElement_ sp_element = sp_message->createElement(1);
                sp_element->setValue(utf8(large));
                sp_message->setPayload(sp_element);
                s.m_p_alpha->terminal().sendMessage(sp_message);
            }
            endPeer(s);
        },
        [](Stations_& s, Run_& run) {
            s.receive(run, *s.m_p_alpha);
            acceptAgain(s, run);
        });
    of.add(
        "reconnect: a local peer that was opened again",
        [](Stations_& s) {
            s.connect();
            s.m_p_beta.reset();
            s.m_p_beta = std::make_unique<Station_>(kBeta, s.m_directoryOfBeta);
            s.m_messages.push_back(s.m_p_alpha->message(kBeta, kSchema, 1));
        },
        [](Stations_& s, Run_& run) {
            s.receive(run, *s.m_p_alpha);
            Stations_::send(run, *s.m_p_alpha, s.m_messages[0]);
            s.settle(run, {s.m_p_beta.get(), s.m_p_alpha.get()});
            judgeNumbers(s, run, {1});
        });
    of.add(
        "reconnect: a local peer that ended with blocks unread",
        [](Stations_& s) {
            s.m_peers.push_back(s.peerOfAlpha(kNobody));
            s.m_p_alpha->receive();
            s.m_peers[0].write(messageOfPeer(1) + messageOfPeer(2));
            s.m_p_alpha->terminal().waitForMessage(1000);
            s.m_peers[0].close();
            s.m_p_listener = std::make_unique<RawListener_>(s.local("nobody"));
            s.m_messages.push_back(s.m_p_alpha->message(kNobody, kSchema, 3));
            s.m_messages.push_back(s.m_p_alpha->message(kNobody, kSchema, 4));
        },
        [](Stations_& s, Run_& run) {
            for (const SP_VekMessage_& sp_message : s.m_messages)
                Stations_::send(run, *s.m_p_alpha, sp_message);
            s.settle(run, {s.m_p_alpha.get()});
            judgeNumbers(s, run, {1, 2});
        });
}

// Messages in transit

/// Alpha is beta's relay to gamma.
void openAll(Stations_& s) {
    s.openGamma();
    s.m_messages.push_back(s.m_p_beta->message(kGamma, kSchema, 1));
    s.m_messages.push_back(s.m_p_beta->message(kGamma, kSchema, 2));
}

void relay(Stations_& s, Run_& run) {
    for (const SP_VekMessage_& sp_message : s.m_messages) Stations_::send(run, *s.m_p_beta, sp_message);
    s.settle(run, {s.m_p_alpha.get(), s.m_p_gamma.get(), s.m_p_beta.get()});
    judgeNumbers(s, run, {1, 2});
}

/// A component whose directory lists itself alone, and a default address: that of alpha.
void sendToWildcard(Stations_& s) {
    const std::string own = s.writeDirectory(
        {s.local("alpha"), s.local("beta") + " " + kBeta, "local:// " + std::string(kGamma)});
    s.m_p_beta.reset();
    s.m_p_beta = std::make_unique<Station_>(kBeta, own);
    s.m_messages.push_back(s.m_p_beta->message(kGamma, kSchema, 1));
}

void addTransit(Of_& of) {
    of.add("forward: through a relay", openAll, relay);
    of.add(
        "forward: through a relay that knows both",
        [](Stations_& s) {
            openAll(s);
            s.exchange(*s.m_p_alpha, *s.m_p_gamma, kGamma);
            s.exchange(*s.m_p_alpha, *s.m_p_beta, kBeta);
        },
        relay);
    of.add(
        "forward: to a component that is away",
        [](Stations_& s) { s.m_messages.push_back(s.m_p_beta->message(kGamma, kSchema, 1)); },
        [](Stations_& s, Run_& run) {
            Stations_::send(run, *s.m_p_beta, s.m_messages[0]);
            s.settle(run, {s.m_p_alpha.get()});
            judgeNumbers(s, run, {});
        });
    of.add(
        "forward: a message whose time is over",
        [](Stations_& s) {
            openAll(s);
            for (const SP_VekMessage_& sp_message : s.m_messages) sp_message->setTimeToLive(0);
        },
        [](Stations_& s, Run_& run) {
            for (const SP_VekMessage_& sp_message : s.m_messages)
                Stations_::send(run, *s.m_p_beta, sp_message);
            s.settle(run, {s.m_p_alpha.get(), s.m_p_gamma.get()});
            judgeNumbers(s, run, {});
        });
    of.add("forward: a list that ends in an address of nowhere", sendToWildcard, [](Stations_& s, Run_& run) {
        run.call("sendMessage", [&] { return s.m_p_beta->terminal().sendMessage(s.m_messages[0]); });
        s.settle(run, {s.m_p_alpha.get()});
        judgeNumbers(s, run, {});
    });
    of.add(
        "ping: a terminal answers",
        [](Stations_& s) { s.m_messages.push_back(s.m_p_beta->message(kAlpha, kPing, 1)); },
        [](Stations_& s, Run_& run) {
            Stations_::send(run, *s.m_p_beta, s.m_messages[0]);
            SP_VekMessage_ sp_reply;
            for (unsigned int i = 0; i < 6 && !sp_reply; ++i) {
                run.require(!s.receive(run, *s.m_p_alpha), "a ping is delivered");
                sp_reply = s.receive(run, *s.m_p_beta);
            }
            run.requireUntouched(sp_reply && plain(sp_reply->getPayloadSchema()) == kPong, "no answer comes");
        });
    of.add(
        "ping: through a relay",
        [](Stations_& s) {
            s.openGamma();
            s.m_messages.push_back(s.m_p_beta->message(kGamma, kPing, 1));
        },
        [](Stations_& s, Run_& run) {
            Stations_::send(run, *s.m_p_beta, s.m_messages[0]);
            s.settle(run, {s.m_p_alpha.get(), s.m_p_gamma.get(), s.m_p_alpha.get(), s.m_p_beta.get()});
            judgeNumbers(s, run, {1});
        });
    of.add(
        "ping: of a peer that cannot be reached",
        [](Stations_& s) {
            s.m_peers.push_back(s.peerOfAlpha("raw-peer-with-a-long-name"));
            s.m_peers[0].write(wire::messageBlock(wire::header(kAlpha, kNobody, 3, kPing) +
                                                  wire::element(1, wire::Uint, wire::u32(1))));
        },
        [](Stations_& s, Run_& run) {
            s.settle(run, {s.m_p_alpha.get()});
            judgeNumbers(s, run, {});
        });
}

}  // namespace

void addStreamScenarios(Scenarios_& list) {
    Of_ of(list);
    addCrossing(of);
    addEnding(of);
    addTransit(of);
}
