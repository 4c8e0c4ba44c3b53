// Opening, sending, receiving, waiting, filters and the printer, on terminals that know each other.

#include <poll.h>
#include <unistd.h>

#include <sstream>

#include "proof/allocations/stations.h"
#include "support/buffer_bytes.h"
#include "support/utf8_text.h"

namespace {

using Of_ = ScenariosOf_<Stations_>;

constexpr unsigned int kMoreThanAStreamTakes = 40;  // of 8000 bytes

bool isOpen(VekmsgTerminal_& terminal) {
    return VekmsgTerminal_::getImplementation(&terminal) != nullptr;
}

void connect(Stations_& s) {
    s.connect();
}

/// Opens the terminal that is closed at first. After a failure it can be closed, and opened with memory.
void open(Stations_& s, Run_& run, const std::string& name, const std::string& directory) {
    const bool isDone =
        run.succeeds("open", [&] { return s.m_terminal.open(utf8(name), directory.c_str()); });
    run.require(!isDone || isOpen(s.m_terminal), "is said to be open and is not");
    if (isDone)
        run.call("close", [&] {
            s.m_terminal.close();
            return true;
        });
    s.m_terminal.close();
    run.require(s.m_terminal.open(utf8(name), directory.c_str()), "cannot be opened afterwards");
    s.m_terminal.close();
    run.require(!isOpen(s.m_terminal), "cannot be closed");
}

void addOpening(Of_& of) {
    of.add("terminal: create", [](Stations_&, Run_& run) {
        const std::unique_ptr<VekmsgTerminal_> p_terminal(
            run.succeeds("createVekmsgTerminal", [] { return createVekmsgTerminal(); }));
    });
    of.add("open: a local address", [](Stations_& s, Run_& run) { open(s, run, kGamma, s.m_directory); });
    of.add("open: a TCP address", [](Stations_& s, Run_& run) {
        open(s, run, kGamma, s.writeDirectory({Stations_::tcp(1) + " " + kGamma}));
    });
    of.add("open: several addresses and a default", [](Stations_& s, Run_& run) {
        open(s, run, kGamma,
             s.writeDirectory({s.local("default-address-with-a-long-name"), s.local("one") + " " + kGamma,
                               Stations_::tcp(2) + "   " + kGamma + " # comment",
                               s.local("beta") + "\t" + kBeta}));
    });
    of.add("open: a directory with lines that count for nothing", [](Stations_& s, Run_& run) {
        open(s, run, kGamma,
             s.writeDirectory({"# a comment that is longer than a string has room for inside", "", "short x",
                               std::string(300, 'l'), "local:// " + std::string(kGamma),
                               "inettcp://1.2.3.4567:1 " + std::string(kGamma),
                               "inetudp://127.0.0.1:0 " + std::string(kGamma), "inettcp://0.0.0.0:0",
                               s.local("gamma") + " " + kGamma}));
    });
    of.add("open: a default that is the own address", [](Stations_& s, Run_& run) {
        open(s, run, kGamma, s.writeDirectory({s.local("gamma"), s.local("gamma") + " " + kGamma}));
    });
    of.add("open: a component that is not listed", [](Stations_& s, Run_& run) {
        open(s, run, "unlisted-component-with-a-long-name", s.m_directory);
    });
    of.add("open: a directory that is not there", [](Stations_& s, Run_& run) {
        const std::string missing = s.m_folder.path("there-is-no-such-directory-in-this-folder");
        run.require(!run.call("open", [&] { return s.m_terminal.open(utf8(kGamma), missing.c_str()); }),
                    "is said to be open");
        s.m_terminal.close();
    });
    of.add("open: an open terminal again", connect, [](Stations_& s, Run_& run) {
        run.succeeds("open", [&] { return s.m_p_alpha->terminal().open(utf8(kAlpha), s.directory()); });
        if (!Run_::hasStruck()) return;
        s.m_p_alpha.reset();
        s.m_p_alpha = std::make_unique<Station_>(kAlpha, s.directory());
    });
    of.add(
        "close: with all that a terminal can hold",
        [](Stations_& s) {
            s.connect();
            s.m_p_beta->send(kAlpha, kSchema, 1);
            s.m_p_beta->send(kAlpha, kSchema, 2);
            s.m_peers.push_back(s.peerOfAlpha("unread"));
        },
        [](Stations_& s, Run_& run) {
            s.receive(run, *s.m_p_alpha);
            run.call("close", [&] {
                s.m_p_alpha->terminal().close();
                return true;
            });
            run.require(!isOpen(s.m_p_alpha->terminal()), "still open");
            run.succeeds("open", [&] { return s.m_p_alpha->terminal().open(utf8(kAlpha), s.directory()); });
            s.m_p_alpha = nullptr;
            s.m_p_alpha = std::make_unique<Station_>(kAlpha, s.directory());
        });
}

/// Sends a message that stands ready, from alpha; beta gets it whole or not at all.
void sendFirst(Stations_& s, Run_& run) {
    Stations_::send(run, *s.m_p_alpha, s.m_messages.at(0));
    s.settle(run, {s.m_p_beta.get(), s.m_p_alpha.get()});
    run.requireUntouched(s.hasReceived({1}), "the message has not arrived");
    run.require(s.m_numbers.empty() || s.hasReceived({1}), "another message has arrived");
}

/// A message from alpha to beta with number 1 and a string that makes it this long.
void readyLong(Stations_& s, std::size_t length) {
    s.m_messages.push_back(s.m_p_alpha->message(kBeta, kSchema, 1));
    const SP_VekmsgElement_ sp_tree = s.m_messages[0]->createElement(7);
    sp_tree->setSubElementValue(1, utf8(std::string(length, 'x')));
    sp_tree->setSubElementValue(2, utf8(std::string(length, 'y')));
    s.m_messages[0]->setPayload(sp_tree);
}

void ready(Stations_& s) {
    s.m_messages.push_back(s.m_p_alpha->message(kBeta, kSchema, 1));
}

void connectAndReady(Stations_& s) {
    s.connect();
    ready(s);
}

void readyRaw(Stations_& s, unsigned int room) {
    ready(s);
    s.m_messages[0]->setRawPayload(tightBufferOf(wire::element(1, wire::Uint, wire::u32(1)), room));
}

void addSending(Of_& of) {
    of.add("send: create a message", [](Stations_& s, Run_& run) {
        SP_VekMessage_ sp_message;
        const bool isDone =
            run.succeeds("createMessage", [&] { return s.m_p_alpha->terminal().createMessage(sp_message); });
        run.require(isDone == !sp_message.isNull(), "result and message do not agree");
    });
    of.add("send: on a new connection", ready, sendFirst);
    of.add("send: on a standing connection", connectAndReady, sendFirst);
    of.add(
        "send: answers on the peer's connection",
        [](Stations_& s) {
            s.connect();
            s.m_messages.push_back(s.m_p_beta->message(kAlpha, kSchema, 1));
        },
        [](Stations_& s, Run_& run) {
            Stations_::send(run, *s.m_p_beta, s.m_messages[0]);
            s.settle(run, {s.m_p_alpha.get()});
            run.requireUntouched(s.hasReceived({1}), "the message has not arrived");
        });
    of.add(
        "send: encoded bytes with room in front", [](Stations_& s) { readyRaw(s, 512); }, sendFirst);
    of.add(
        "send: encoded bytes without room in front", [](Stations_& s) { readyRaw(s, 0); }, sendFirst);
    of.add(
        "send: a message too large for the peer's buffers", [](Stations_& s) { readyLong(s, 9000); },
        [](Stations_& s, Run_& run) {
            Stations_::send(run, *s.m_p_alpha, s.m_messages[0]);
            s.settle(run, {s.m_p_beta.get(), s.m_p_alpha.get()});
            run.require(s.m_numbers.empty(), "a message that no peer can take has arrived");
        });
    of.add(
        "send: a message that cannot be encoded", [](Stations_& s) { readyLong(s, 9000); },
        [](Stations_& s, Run_& run) {
            const SP_VekmsgElement_ sp_tree = s.m_messages[0]->getPayload();
            for (VekmsgTag_ tag = 10; tag < 20; ++tag)
                sp_tree->setSubElementValue(tag, utf8(std::string(9000, 'z')));
            const bool isDone =
                run.call("sendMessage", [&] { return s.m_p_alpha->terminal().sendMessage(s.m_messages[0]); });
            run.require(!isDone, "more than a block holds is taken over");
        });
    of.add(
        "send: to a second address, after one where nobody is",
        [](Stations_& s) {
            const std::string own = s.writeDirectory(
                {s.local("alpha") + " " + kAlpha, s.local("deserted-address-with-a-long-name") + " " + kBeta,
                 s.local("beta") + " " + kBeta});
            s.m_p_alpha.reset();
            s.m_p_alpha = std::make_unique<Station_>(kAlpha, own);
            ready(s);
        },
        sendFirst);
    of.add(
        "send: to an address that nobody listens on",
        [](Stations_& s) { s.m_messages.push_back(s.m_p_alpha->message(kNobody, kSchema, 1)); },
        [](Stations_& s, Run_& run) {
            const bool isDone =
                run.call("sendMessage", [&] { return s.m_p_alpha->terminal().sendMessage(s.m_messages[0]); });
            run.require(!isDone, "nobody has taken it over");
        });
    of.add(
        "send: to a component that is not listed",
        [](Stations_& s) {
            s.m_messages.push_back(s.m_p_alpha->message("unlisted-component-with-a-long-name", kSchema, 1));
        },
        [](Stations_& s, Run_& run) {
            const bool isDone =
                run.call("sendMessage", [&] { return s.m_p_alpha->terminal().sendMessage(s.m_messages[0]); });
            run.require(!isDone, "nobody has taken it over");
        });
    of.add(
        "send: more than the stream takes at once",
        [](Stations_& s) {
            s.connect();
            for (unsigned int number = 1; number <= kMoreThanAStreamTakes; ++number) {
                s.m_messages.push_back(s.m_p_alpha->message(kBeta, kSchema, number));
                const SP_VekmsgElement_ sp_tree = s.m_messages.back()->createElement(1);
                sp_tree->setValue(utf8(std::string(8000, 'x')));
                s.m_messages.back()->setPayload(sp_tree);
            }
        },
        [](Stations_& s, Run_& run) {
            for (const SP_VekMessage_& sp_message : s.m_messages)
                Stations_::send(run, *s.m_p_alpha, sp_message);
            s.settle(run, {s.m_p_beta.get(), s.m_p_alpha.get()});
            run.requireUntouched(s.m_numbers.size() == kMoreThanAStreamTakes, "messages are missing");
            run.require(s.m_numbers.size() <= kMoreThanAStreamTakes, "messages have multiplied");
        });
    of.add("send: a raw payload by its own operation", connect, [](Stations_& s, Run_& run) {
        const SP_BasicBuffer_ sp_bytes = bufferOf("bytes");
        const bool isDone = run.call("sendRawPayload", [&] {
            return s.m_p_alpha->terminal().sendRawPayload(utf8(kBeta), utf8(kSchema), sp_bytes);
        });
        run.require(!isDone, "a buffer is no element");
    });
}

/// `count` messages of beta wait for alpha.
void await(Stations_& s, unsigned int count) {
    for (unsigned int number = 1; number <= count; ++number) s.m_p_beta->send(kAlpha, kSchema, number);
}

/// No message comes twice, none is made up, and without failures all come.
void receiveAll(Stations_& s, Run_& run, unsigned int count) {
    s.settle(run, {s.m_p_alpha.get(), s.m_p_beta.get()});
    for (unsigned int number = 1; number <= count; ++number)
        run.require(s.m_numbers.count(number) <= 1, "a message comes twice");
    run.require(s.m_numbers.size() <= count, "more messages than were sent");
    run.requireUntouched(s.m_numbers.size() == count, "messages are missing");
}

constexpr char kTwentyBytes[] = "a-text-of-20-bytes--";  // a string takes more room at once than this needs

template <const char* source>
void receiveParts(Stations_& s, Run_& run) {
    SP_Utf8String_ sp_source;
    SP_Utf8String_ sp_schema;
    SP_BasicBuffer_ sp_payload;
    for (unsigned int i = 0; i < 4 && !sp_payload; ++i) {
        run.succeeds("receiveRawPayload", [&] {
            return s.m_p_alpha->terminal().receiveRawPayload(sp_source, sp_schema, sp_payload);
        });
    }
    run.requireUntouched(sp_payload && plain(sp_source->c_str()) == source, "the message has not come");
}

void addReceiving(Of_& of) {
    of.add(
        "receive: nothing, at an open terminal",
        [](Stations_& s) { s.m_peers.push_back(s.peerOfAlpha("raw-peer-with-a-long-name")); },
        [](Stations_& s, Run_& run) { s.receive(run, *s.m_p_alpha); });
    of.add(
        "receive: the first message of a new peer", [](Stations_& s) { await(s, 1); },
        [](Stations_& s, Run_& run) { receiveAll(s, run, 1); });
    of.add(
        "receive: several messages of a known peer",
        [](Stations_& s) {
            s.connect();
            await(s, 4);
        },
        [](Stations_& s, Run_& run) { receiveAll(s, run, 4); });
    of.add(
        "receive: messages of several peers",
        [](Stations_& s) {
            s.openGamma();
            await(s, 2);
            s.m_p_gamma->send(kAlpha, kSchema, 3);
            s.m_peers.push_back(s.peerOfAlpha("raw-peer-with-a-long-name"));
            s.m_peers[0].write(wire::messageBlock(wire::header(kAlpha, "raw", 3, kSchema) +
                                                  wire::element(1, wire::Uint, wire::u32(4))));
        },
        [](Stations_& s, Run_& run) { receiveAll(s, run, 4); });
    of.add(
        "receive: and read payloads while memory is short", [](Stations_& s) { await(s, 2); },
        [](Stations_& s, Run_& run) {
            for (unsigned int i = 0; i < 4; ++i) {
                SP_VekMessage_ sp_message;
                run.succeeds("receiveMessage",
                             [&] { return s.m_p_alpha->terminal().receiveMessage(sp_message); });
                if (sp_message) run.succeeds("getPayload", [&] { return sp_message->getPayload(); });
            }
        });
    of.add(
        "receive: what an ended peer has left",
        [](Stations_& s) {
            RawPeer_ peer = s.peerOfAlpha("raw-peer-with-a-long-name");
            for (unsigned int number = 1; number <= 3; ++number)
                peer.write(wire::messageBlock(wire::header(kAlpha, "raw", 3, kSchema) +
                                              wire::element(1, wire::Uint, wire::u32(number))));
        },
        [](Stations_& s, Run_& run) { receiveAll(s, run, 3); });
    of.add(
        "receive: blocks behind a long name in one piece",
        [](Stations_& s) {
            const std::string one = wire::messageBlock(wire::header(kAlpha, "raw", 3, kSchema) +
                                                       wire::element(1, wire::Uint, wire::u32(1)));
            s.m_peers.emplace_back(s.local("alpha"));
            s.m_peers[0].write(wire::nameBlock(std::string(2 * one.size() - 1, 'n')) + one + one);
        },
        [](Stations_& s, Run_& run) {
            s.settle(run, {s.m_p_alpha.get()});
            run.requireUntouched(s.hasReceived({1, 1}), "messages are missing");
        });
    of.add(
        "receive: blocks that are none, and messages that are damaged",
        [](Stations_& s) {
            s.m_peers.push_back(s.peerOfAlpha("raw-peer-with-a-long-name"));
            s.m_peers[0].write(wire::block(7, "skipped bytes") + wire::messageBlock("damaged") +
                               wire::messageBlock(wire::header(kAlpha, "raw", 3, kSchema) +
                                                  wire::element(1, wire::Uint, wire::u32(1))));
            s.m_peers.emplace_back(s.local("alpha"));
            s.m_peers[1].write(wire::block(9, "no name"));
            s.m_peers.emplace_back(s.local("alpha"));
            s.m_peers[2].write(wire::nameBlock(""));
            s.m_peers.emplace_back(s.local("alpha"));
            s.m_peers[3].close();
        },
        [](Stations_& s, Run_& run) { receiveAll(s, run, 1); });
    of.add(
        "receive: as parts", [](Stations_& s) { await(s, 1); }, receiveParts<kBeta>);
    of.add(
        "receive: as parts, with texts of another length",
        [](Stations_& s) {
            s.m_peers.push_back(s.peerOfAlpha("raw-peer-with-a-long-name"));
            s.m_peers[0].write(wire::messageBlock(wire::header(kAlpha, kTwentyBytes, 3, kTwentyBytes) +
                                                  wire::element(1, wire::Uint, wire::u32(1))));
        },
        receiveParts<kTwentyBytes>);
}

void addWaiting(Of_& of) {
    of.add(
        "wait: for a message that is there", [](Stations_& s) { await(s, 1); },
        [](Stations_& s, Run_& run) {
            bool isThere = false;
            for (unsigned int i = 0; i < 5 && !isThere; ++i) {
                const auto result =
                    run.succeeds("waitForMessage", [&] { return s.m_p_alpha->terminal().waitForMessage(1); });
                isThere = result == VekmsgTerminal_::WAIT_MESSAGE;
            }
            run.requireUntouched(isThere, "no message is there");
            receiveAll(s, run, 1);
        });
    of.add(
        "wait: at several terminals and a descriptor", [](Stations_& s) { await(s, 1); },
        [](Stations_& s, Run_& run) {
            int ends[2];
            if (pipe(ends) != 0 || write(ends[1], "x", 1) != 1) throw std::runtime_error("no pipe");
            for (unsigned int i = 0; i < 4; ++i) {
                pollfd entry = {ends[0], POLLIN, 0};
                const int result = run.call("pollFd", [&] {
                    VekmsgTerminal_* const p_closed = &s.m_terminal;  // often: more than registers take
                    return static_cast<int>(VekmsgTerminal_::pollFd(
                        &entry, 1, 1, &s.m_p_alpha->terminal(), &s.m_p_beta->terminal(), p_closed, p_closed,
                        p_closed, p_closed, p_closed, p_closed, static_cast<void*>(nullptr)));
                });
                run.require(result != VekmsgTerminal_::POLL_ERROR || run.hasStruckInCall(),
                            "fails with all its memory");
            }
            close(ends[0]);
            close(ends[1]);
            receiveAll(s, run, 1);
        });
    of.add(
        "wait: with the application's own poll", [](Stations_& s) { await(s, 1); },
        [](Stations_& s, Run_& run) {
            s.receive(run, *s.m_p_alpha);
            pollfd entries[10];
            unsigned int count = 10;
            run.succeeds("fillPollFdArray",
                         [&] { return s.m_p_alpha->terminal().fillPollFdArray(entries, count); });
            run.require(count >= 1 && count <= 10, "the number of entries");
            receiveAll(s, run, 1);
        });
    of.add("wait: is a peer connected", connect, [](Stations_& s, Run_& run) {
        const bool isConnected =
            run.call("isConnected", [&] { return s.m_p_alpha->terminal().isConnected(utf8(kBeta)); });
        run.require(isConnected || run.hasStruckInCall(), "it is");
        run.require(
            !run.call("isConnected", [&] { return s.m_p_alpha->terminal().isConnected(utf8(kGamma)); }),
            "it is not");
    });
}

/// Does what it was made for, and has no allocations of its own that could fail.
class Filter_ : public VekmsgFilter_ {
public:
    using Process_ = bool (*)(Stations_&, SP_VekMessage_&);

    Filter_(Stations_& stations, Process_ process) : m_stations(stations), m_process(process) {}

    bool process(SP_VekMessage_& sp_message) override {
        ++m_calls;
        return m_process(m_stations, sp_message);
    }

    unsigned int m_calls = 0;

private:
    Stations_& m_stations;
    Process_ m_process;
};

void filterReceived(Stations_& s, Filter_::Process_ process) {
    await(s, 3);
    s.m_sp_filter = SP_VekmsgFilter_(new Filter_(s, process));
    s.m_p_alpha->terminal().setReceiveFilter(s.m_sp_filter);
}

void addFilters(Of_& of) {
    of.add(
        "filter: passes what is received",
        [](Stations_& s) { filterReceived(s, [](Stations_&, SP_VekMessage_&) { return true; }); },
        [](Stations_& s, Run_& run) { receiveAll(s, run, 3); });
    of.add(
        "filter: swallows what is received",
        [](Stations_& s) {
            filterReceived(s, [](Stations_&, SP_VekMessage_& sp_message) {
                sp_message.reset();
                return true;
            });
        },
        [](Stations_& s, Run_& run) {
            s.settle(run, {s.m_p_alpha.get()});
            run.require(s.m_numbers.empty(), "a swallowed message comes");
        });
    of.add(
        "filter: refuses what is received",
        [](Stations_& s) { filterReceived(s, [](Stations_&, SP_VekMessage_&) { return false; }); },
        [](Stations_& s, Run_& run) {
            for (unsigned int i = 0; i < 6; ++i) {
                SP_VekMessage_ sp_message;
                run.call("receiveMessage",
                         [&] { return s.m_p_alpha->terminal().receiveMessage(sp_message); });
                run.require(sp_message.isNull(), "a refused message comes");
            }
            s.m_p_alpha->terminal().setReceiveFilter(SP_VekmsgFilter_());
        });
    of.add(
        "filter: answers from inside",
        [](Stations_& s) {
            s.m_messages.push_back(s.m_p_alpha->message(kBeta, kSchema, 50));
            filterReceived(s, [](Stations_& stations, SP_VekMessage_&) {
                stations.m_p_alpha->terminal().sendMessage(stations.m_messages[0]);
                return true;
            });
        },
        [](Stations_& s, Run_& run) {
            s.settle(run, {s.m_p_alpha.get(), s.m_p_beta.get()});
            run.requireUntouched(s.hasReceived({1, 2, 3, 50, 50, 50}), "messages are missing");
        });
    of.add(
        "filter: changes what is sent",
        [](Stations_& s) {
            connectAndReady(s);
            s.m_sp_filter = SP_VekmsgFilter_(new Filter_(s, [](Stations_&, SP_VekMessage_& sp_message) {
                return sp_message->setPayloadSchema(utf8("another schema that is longer than a short string"),
                                                    VekMessage_::SCHEMA_LITERAL);
            }));
        },
        [](Stations_& s, Run_& run) {
            run.succeeds("setSendFilter",
                         [&] { return s.m_p_alpha->terminal().setSendFilter(s.m_sp_filter); });
            sendFirst(s, run);
        });
    of.add(
        "filter: the printer", [](Stations_& s) { await(s, 2); },
        [](Stations_& s, Run_& run) {
            std::ostringstream stream;
            const bool isDone = run.succeeds("CreateMessagePrinter", [&] {
                return s.m_p_alpha->terminal().CreateMessagePrinter(&stream, "a note", s.m_sp_filter);
            });
            run.require(isDone == !s.m_sp_filter.isNull(), "result and filter do not agree");
            s.m_p_alpha->terminal().setReceiveFilter(s.m_sp_filter);
            SP_VekMessage_ sp_message;
            for (unsigned int i = 0; i < 5; ++i) {
                const bool isReceived = run.call(
                    "receiveMessage", [&] { return s.m_p_alpha->terminal().receiveMessage(sp_message); });
                run.require(isReceived || Run_::hasStruck(), "fails with all its memory");
            }
            run.requireUntouched(stream.str().find("a note") != std::string::npos, "nothing is printed");
            s.m_p_alpha->terminal().setReceiveFilter(SP_VekmsgFilter_());
            s.m_sp_filter.reset();
        });
}

}  // namespace

void addTerminalScenarios(Scenarios_& list) {
    Of_ of(list);
    addOpening(of);
    addSending(of);
    addReceiving(of);
    addWaiting(of);
    addFilters(of);
}
