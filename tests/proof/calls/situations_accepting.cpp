// What becomes of a guest when calls fail that take its stream and read it.

#include <algorithm>
#include <cerrno>

#include "proof/calls/situations.h"
#include "support/child_process.h"
#include "support/wire_bytes.h"

namespace {

using Calls_ = SystemCalls_;

constexpr char kAccept[] = "bool VekSocket_::accept(SP_VekSocket_&)";
constexpr char kAcceptFlags[] = "bool VekSocket_::accept(int, SP_VekSocket_&) const";
constexpr char kAccepted[] = "bool VekSocket_::accepted(int, VekSocketAddress_::AddressType_)";
constexpr char kReadOnce[] = "bool VekSocket_::check(BasicBuffer_&, SP_BasicBuffer_&)";

constexpr unsigned int kLongWaitMs = 60000;

/// The listener is sound: the error is one of the stream that was waiting.
bool isOfTheGuest(int error) {
    const Errors_ errors = {EPROTO,      ENONET,       ENOPROTOOPT, EOPNOTSUPP,  ENETDOWN,
                            ENETUNREACH, ECONNABORTED, EHOSTDOWN,   EHOSTUNREACH};
    return std::find(errors.begin(), errors.end(), error) != errors.end();
}

Records_ recordsOfAccept(const Scene_& scene, const Failure_& failure) {
    if (failure.m_error == EAGAIN) return {};
    if (isOfTheGuest(failure.m_error))
        return {socketRecord(4, kAccept, "accept(" + scene.own() + ") returned with " + failure.text())};
    return {socketRecord(3, kAccept,
                         "VekSocket_::accept() accept(" + scene.own() + ") failed with " + failure.text())};
}

/// `works` makes the call that leads to a pass, and tells whether it went well. The guest waits all the
/// while.
template <class Call>
void takingAGuest(Scene_& scene, const Failure_& failure, Call goesWell) {
    scene.opened();
    scene.guest().write(wire::nameBlock(scene.guestName()) + scene.nextBlock());
    const bool isSound = failure.m_error == EAGAIN || isOfTheGuest(failure.m_error);
    eachTime(failure, [&] {
        scene.calls().fail(Calls_::Accept, failure.m_error);
        scene.expect(goesWell() == isSound, isSound ? "the call succeeds" : "the call fails");
        scene.expectRecords("accepting", recordsOfAccept(scene, failure));
    });
    scene.expect(scene.receives(scene.lastNumber()), "the guest is heard");
    scene.works();
}

void receiving(Scene_& scene, const Failure_& failure) {
    takingAGuest(scene, failure, [&] { return scene.pass(); });
}

void waiting(Scene_& scene, const Failure_& failure) {
    takingAGuest(scene, failure, [&] {
        const auto result = scene.terminal().waitForMessage(kLongWaitMs);
        scene.expect(result != VekmsgTerminal_::WAIT_TIMEOUT, "the wait ends");
        return result == VekmsgTerminal_::WAIT_MESSAGE;
    });
}

void polling(Scene_& scene, const Failure_& failure) {
    takingAGuest(scene, failure, [&] {
        void* p_end = nullptr;
        const auto result = VekmsgTerminal_::pollFd(nullptr, 0, kLongWaitMs, &scene.terminal(), p_end);
        scene.expect(result != VekmsgTerminal_::POLL_TIMEOUT, "the wait ends");
        return result == VekmsgTerminal_::POLL_MESSAGE;
    });
}

/// The descriptor of the guest cannot be used. It stays open, and the guest is not heard; the next one is.
void losesAGuest(Scene_& scene, const Failure_& failure, Calls_::Call_ call, unsigned int skipped,
                 const Record_& record) {
    scene.opened();
    eachTime(failure, [&] {
        scene.guest();
        scene.calls().fail(call, failure.m_error, skipped);
        scene.expect(eventually([&] { return !scene.pass(); }), "receiveMessage fails");
        scene.expectRecords("accepting", {record});
        scene.leavesDescriptor();
    });
    scene.works();
}

void readingItsFlags(Scene_& scene, const Failure_& failure) {
    losesAGuest(
        scene, failure, Calls_::Fcntl, 0,
        socketRecord(3, kAcceptFlags,
                     "VekSocket_::accept(" + scene.own() + ") fcntl(F_GETFL) failed with " + failure.text()));
}

void settingItsFlags(Scene_& scene, const Failure_& failure) {
    losesAGuest(
        scene, failure, Calls_::Fcntl, 1,
        socketRecord(3, kAcceptFlags,
                     "VekSocket_::accept(" + scene.own() + ") fcntl(F_SETFL) failed with " + failure.text()));
}

void askingForItsOwnName(Scene_& scene, const Failure_& failure) {
    losesAGuest(
        scene, failure, Calls_::Getsockname, 0,
        socketRecord(3, kAccepted, "VekSocket_::accepted() getsockname() failed with " + failure.text()));
}

void askingForItsPeersName(Scene_& scene, const Failure_& failure) {
    losesAGuest(
        scene, failure, Calls_::Getpeername, 0,
        socketRecord(3, kAccepted, "VekSocket_::accepted() getpeername() failed with " + failure.text()));
}

void sendingWithoutDelay(Scene_& scene, const Failure_& failure) {
    eachTime(failure, [&] {
        scene.opened();
        scene.calls().fail(Calls_::Setsockopt, failure.m_error);
        scene.guestArrives();
        scene.expectNoRecords("a guest");
        scene.close();
    });
    scene.works();
}

/// A guest writes up to `length` bytes of its name and first message; then a read fails. It is transient, and
/// the rest is heard, or it ends the stream.
void reading(Scene_& scene, const Failure_& failure, std::size_t length) {
    scene.opened();
    const std::string name = wire::nameBlock(scene.guestName());
    const std::string bytes = name + scene.nextBlock();
    scene.guest();
    scene.guestWrites(bytes.substr(0, length));
    scene.guestIsRead();
    scene.expectNoRecords("the beginning");

    scene.calls().fail(Calls_::Recv, failure.m_error, 0, failure.m_times);
    scene.expect(scene.pass(), "a pass succeeds");
    if (failure.isTransient()) {
        scene.guestStream().write(bytes.substr(length));
        scene.expect(scene.receives(scene.lastNumber()), "the message is received");
        scene.expectNoRecords("reading on");
    } else {
        const Record_ end = length < name.size() ? deletingUnresolved() : deletingActive(scene.guestName());
        scene.expectRecords("reading", {socketRecord(7, kReadOnce,
                                                     "VekSocket_::check() recv(" + scene.guestAddress() +
                                                         ") failed with " + failure.text()),
                                        end});
    }
    scene.works();
}

void readingANameHeader(Scene_& scene, const Failure_& failure) {
    reading(scene, failure, 0);
}

void readingTheRestOfANameHeader(Scene_& scene, const Failure_& failure) {
    reading(scene, failure, 3);
}

void readingAName(Scene_& scene, const Failure_& failure) {
    reading(scene, failure, 4);
}

void readingTheRestOfAName(Scene_& scene, const Failure_& failure) {
    reading(scene, failure, 6);
}

void readingAHeader(Scene_& scene, const Failure_& failure) {
    reading(scene, failure, wire::nameBlock(scene.guestName()).size());
}

void readingTheRestOfAHeader(Scene_& scene, const Failure_& failure) {
    reading(scene, failure, wire::nameBlock(scene.guestName()).size() + 2);
}

void readingTheRestOfAMessage(Scene_& scene, const Failure_& failure) {
    reading(scene, failure, wire::nameBlock(scene.guestName()).size() + 20);
}

void readingFromThePeer(Scene_& scene, const Failure_& failure) {
    scene.opened();
    scene.established();
    scene.calls().fail(Calls_::Recv, failure.m_error, 0, failure.m_times);
    scene.expect(scene.pass(), "a pass succeeds");
    if (!failure.isTransient())
        scene.expectRecords("reading", {socketRecord(7, kReadOnce,
                                                     "VekSocket_::check() recv(" + scene.peer() +
                                                         ") failed with " + failure.text()),
                                        deletingActive("peer")});
    scene.works(failure.isTransient());
}

void closingAStreamAtItsEnd(Scene_& scene, const Failure_& failure) {
    scene.opened();
    eachTime(failure, [&] {
        scene.guestArrives();
        scene.calls().answer(Calls_::Recv, 0);
        scene.calls().failAfterwards(Calls_::Close, failure.m_error);
        scene.expect(scene.pass(), "a pass succeeds");
        scene.expectRecords("the end", {deletingActive(scene.guestName())});
    });
    scene.works();
}

}  // namespace

Situations_ acceptingSituations() {
    Situations_ situations = {
        {Calls_::Setsockopt, kTcp, "a pass: has an accepted stream write at once", sendingWithoutDelay},
    };
    for (const Transport_ transport : {kLocal, kTcp}) {
        const Situations_ both = {
            {Calls_::Accept, transport, "receiveMessage: accepts", receiving},
            {Calls_::Accept, transport, "waitForMessage: accepts", waiting},
            {Calls_::Accept, transport, "pollFd: accepts", polling},
            {Calls_::Fcntl, transport, "a pass: reads the flags of an accepted socket", readingItsFlags},
            {Calls_::Fcntl, transport, "a pass: sets the flags of an accepted socket", settingItsFlags},
            {Calls_::Getsockname, transport, "a pass: asks for the address of an accepted socket",
             askingForItsOwnName},
            {Calls_::Getpeername, transport, "a pass: asks for the address of a guest",
             askingForItsPeersName},
            {Calls_::Recv, transport, "a pass: reads the header of a name", readingANameHeader},
            {Calls_::Recv, transport, "a pass: reads the rest of that", readingTheRestOfANameHeader},
            {Calls_::Recv, transport, "a pass: reads a name", readingAName},
            {Calls_::Recv, transport, "a pass: reads the rest of a name", readingTheRestOfAName},
            {Calls_::Recv, transport, "a pass: reads the header of a message", readingAHeader},
            {Calls_::Recv, transport, "a pass: reads the rest of a header", readingTheRestOfAHeader},
            {Calls_::Recv, transport, "a pass: reads the rest of a message", readingTheRestOfAMessage},
            {Calls_::Recv, transport, "a pass: reads from the peer", readingFromThePeer},
            {Calls_::Close, transport, "a pass: closes a stream at its end", closingAStreamAtItsEnd},
        };
        situations.insert(situations.end(), both.begin(), both.end());
    }
    return situations;
}
