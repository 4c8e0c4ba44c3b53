#include "proof/calls/limits.h"

#include <cerrno>
#include <limits>

#include "proof/calls/situations.h"
#include "support/child_process.h"
#include "support/wire_bytes.h"

namespace {

using Calls_ = SystemCalls_;

constexpr unsigned int kStart = 1000;  // where each scene's clock stands
constexpr unsigned int kLastNanosecond = 999999999;
constexpr unsigned int kConnectLimit = 6;
constexpr unsigned int kSendLimit = 8;

constexpr char kConnecting[] = "bool VekSocket_::connecting()";
constexpr char kSendNow[] = "VekSocket_::SendResult_ VekSocket_::send(SP_BasicBuffer_)";
constexpr char kSendRest[] = "bool VekSocket_::check(BasicBuffer_&)";

/// A connect that begins at `nanoseconds` past a second is still waited for a nanosecond before the limit,
/// and has failed when it is looked at `age` seconds after its begin.
void connectLimit(Scene_& scene, unsigned int nanoseconds, unsigned int age) {
    scene.opened();
    scene.calls().stopClock(kStart, nanoseconds);
    scene.calls().fail(Calls_::Connect, EINPROGRESS);
    scene.expect(scene.send(), "sendMessage succeeds");

    const unsigned int last = nanoseconds == 0 ? kConnectLimit - 1 : kConnectLimit;
    scene.calls().stopClock(kStart + last, nanoseconds == 0 ? kLastNanosecond : nanoseconds - 1);
    scene.expect(scene.pass(), "a pass before the limit succeeds");
    scene.expectNoRecords("before the limit");

    scene.calls().stopClock(kStart + age, nanoseconds);
    scene.expect(scene.pass(), "a pass after the limit succeeds");
    Records_ records = {socketRecord(
        3, kConnecting,
        "Attempt to connect to " + scene.peer() + " timed out after " + std::to_string(age) + " seconds")};
    if (scene.isTcp()) {
        records.push_back(reconnecting(1));
    } else {
        records.push_back(givingUp(1));
        records.push_back(deletingActive("peer"));
    }
    scene.expectRecords("after the limit", records);
    if (scene.isTcp()) scene.expect(scene.peerGetsOnNewStream(), "the message arrives on a new stream");
    scene.works(scene.isTcp());
}

/// A TCP stream that comes about in the last moment is a stream like any other.
void connectInTime(Scene_& scene) {
    scene.opened();
    scene.calls().failAfterwards(Calls_::Connect, EINPROGRESS);
    scene.expect(scene.send(), "sendMessage succeeds");
    scene.peerTakesStream();
    scene.calls().stopClock(kStart + 100, 0);
    scene.expect(scene.peerGetsOnNewStream(), "the message arrives, however late");
    scene.works(true);
}

/// The limit runs anew for each stream that is tried: four times, then the connection is given up.
void connectLimitOfEachStream(Scene_& scene) {
    scene.opened();
    scene.calls().fail(Calls_::Connect, EINPROGRESS, 0, 5);
    scene.expect(scene.send(), "sendMessage succeeds");
    const Record_ timedOut =
        socketRecord(3, kConnecting, "Attempt to connect to " + scene.peer() + " timed out after 6 seconds");
    for (unsigned int attempt = 1; attempt <= 5; ++attempt) {
        scene.calls().stopClock(kStart + attempt * kConnectLimit - 1, kLastNanosecond);
        scene.expect(scene.pass(), "a pass before the limit succeeds");
        scene.expectNoRecords("before the limit");
        scene.calls().stopClock(kStart + attempt * kConnectLimit, 0);
        scene.expect(scene.pass(), "a pass at the limit succeeds");
        if (attempt < 5) {
            scene.expectRecords("at the limit", {timedOut, reconnecting(attempt)});
        } else {
            scene.expectRecords("at the limit", {timedOut, givingUp(5), deletingActive("peer")});
        }
    }
    scene.works();
}

/// The size of the block that `Scene_::send` sends.
unsigned int blockSize() {
    return static_cast<unsigned int>(wire::messageBlock(wire::header("peer", "here", 3, "numbers") +
                                                        wire::element(1, wire::Uint, wire::u32(0)))
                                         .size());
}

/// A message of which `written` bytes go out at once waits for its rest a nanosecond before the limit, and is
/// lost with its stream when that is looked at `age` seconds after the call.
void sendLimit(Scene_& scene, unsigned int nanoseconds, unsigned int age, unsigned int written) {
    scene.opened();
    scene.established();
    scene.calls().stopClock(kStart, nanoseconds);
    if (written != 0) {
        scene.calls().shorten(Calls_::Send, written);
        scene.calls().then();
    }
    scene.calls().fail(Calls_::Send, EAGAIN, 0, 3);
    scene.expect(scene.send(), "sendMessage succeeds");

    const unsigned int last = nanoseconds == 0 ? kSendLimit - 1 : kSendLimit;
    scene.calls().stopClock(kStart + last, nanoseconds == 0 ? kLastNanosecond : nanoseconds - 1);
    scene.expect(scene.pass(), "a pass before the limit succeeds");
    scene.expectNoRecords("before the limit");

    scene.calls().stopClock(kStart + age, nanoseconds);
    scene.calls().fail(Calls_::Send, EAGAIN);
    scene.expect(scene.pass(), "a pass after the limit succeeds");
    scene.expectRecords(
        "after the limit",
        {socketRecord(3, kSendRest,
                      "Attempt to send " + std::to_string(blockSize() - written) + " bytes to " +
                          scene.peer() + " timed out after " + std::to_string(age) + " seconds"),
         deletingActive("peer")});
    scene.works();
}

/// What is written whole has no limit: the age is not asked for.
void sendInTime(Scene_& scene) {
    scene.opened();
    scene.established();
    scene.calls().fail(Calls_::Send, EAGAIN);
    scene.expect(scene.send(), "sendMessage succeeds");
    scene.calls().stopClock(kStart + 100, 0);
    scene.expect(scene.peerGets(), "the message arrives, however late");
    scene.works(true);
}

/// The name of the component is bytes like any other: a peer that does not take it in time is given up, too.
void sendLimitOfTheName(Scene_& scene) {
    scene.opened();
    scene.calls().fail(Calls_::Send, EAGAIN, 0, 2);
    scene.expect(scene.send(), "sendMessage succeeds");
    const auto hasTried = [&] { return scene.calls().count(Calls_::Send) != 0 || !scene.pass(); };
    scene.expect(eventually(hasTried), "the stream comes about");
    scene.calls().stopClock(kStart + kSendLimit, 0);
    scene.expect(scene.pass(), "a pass succeeds");
    const Record_ late = socketRecord(
        3, kSendRest, "Attempt to send 9 bytes to " + scene.peer() + " timed out after 8 seconds");
    if (scene.isTcp()) {
        scene.expectRecords("at the limit", {late, reconnecting(1)});
        scene.expect(scene.peerGetsOnNewStream(), "the message arrives on a new stream");
        scene.works(true);
    } else {
        scene.expectRecords("at the limit", {late, givingUp(1), deletingActive("peer")});
        scene.works();
    }
}

using Wait_ = std::function<int(Scene_&, unsigned int)>;

int waitForMessage(Scene_& scene, unsigned int timeoutMs) {
    switch (scene.terminal().waitForMessage(timeoutMs)) {
        case VekmsgTerminal_::WAIT_TIMEOUT:
            return 0;
        case VekmsgTerminal_::WAIT_MESSAGE:
            return 1;
        default:
            return -1;
    }
}

int pollFd(Scene_& scene, unsigned int timeoutMs) {
    void* p_end = nullptr;
    switch (VekmsgTerminal_::pollFd(nullptr, 0, timeoutMs, &scene.terminal(), p_end)) {
        case VekmsgTerminal_::POLL_TIMEOUT:
            return 0;
        case VekmsgTerminal_::POLL_MESSAGE:
            return 1;
        default:
            return -1;
    }
}

/// A wait of `timeoutMs` is that many slices of a second and what is left, and one poll at least.
void slices(Scene_& scene, unsigned int timeoutMs, const Wait_& wait) {
    const unsigned int expected = timeoutMs == 0 ? 1 : timeoutMs / 1000 + (timeoutMs % 1000 != 0 ? 1 : 0);
    scene.opened();
    scene.calls().answer(Calls_::Poll, 0, 0, std::numeric_limits<unsigned int>::max());
    scene.expect(wait(scene, timeoutMs) == 0, "the time runs out");
    scene.expect(
        scene.calls().count(Calls_::Poll) == expected,
        std::to_string(scene.calls().count(Calls_::Poll)) + " polls, expected " + std::to_string(expected));
    scene.calls().answer(Calls_::Poll, 0, 0, 0);
    scene.works();
}

/// Time that passes with events is not charged: behind `events` of them the whole time is left.
void events(Scene_& scene, const Wait_& wait, const std::function<Record_(const std::string&)>& record) {
    const Failure_ failure = {ENOMEM, 1};
    scene.opened();
    scene.calls().answer(Calls_::Poll, 1, 0, 7);
    scene.calls().then().answer(Calls_::Poll, 0, 0, 2);
    scene.calls().then().fail(Calls_::Poll, failure.m_error);
    scene.expect(wait(scene, 5000) == -1, "the wait fails at last");
    scene.expectRecords("waiting", {record("(3000) ")});
    scene.works();
}

void noBytesOfAName(Scene_& scene) {
    const Record_ closed =
        socketRecord(4, kSendNow, "send(to " + scene.peer() + ") failed due to closed socket");
    scene.opened();
    scene.calls().answer(Calls_::Send, 0);
    scene.expect(scene.send(), "sendMessage succeeds");
    if (scene.isTcp()) {
        scene.expect(scene.peerGetsOnNewStream(), "the message arrives on a new stream");
        scene.expectRecords("passes", {closed, reconnecting(1)});
        scene.works(true);
    } else {
        scene.expectRecords("sendMessage", {closed, givingUp(1), unrecoverable()});
        scene.expect(scene.pass(), "a pass succeeds");
        scene.expectRecords("the next pass", {deletingActive("peer")});
        scene.works();
    }
}

void noBytesOfAMessage(Scene_& scene) {
    const Record_ closed =
        socketRecord(4, kSendNow, "send(to " + scene.peer() + ") failed due to closed socket");
    scene.opened();
    scene.established();
    scene.calls().answer(Calls_::Send, 0);
    scene.expect(scene.send(), "sendMessage succeeds");
    if (scene.isTcp()) {
        scene.expectRecords("sendMessage", {closed, reconnecting(1)});
        scene.expect(scene.peerGetsOnNewStream(), "the message arrives on a new stream");
        scene.works(true);
    } else {
        scene.expectRecords("sendMessage", {closed, givingUp(1), unrecoverable()});
        scene.expect(scene.pass(), "a pass succeeds");
        scene.expectRecords("the next pass", {deletingActive("peer")});
        scene.works();
    }
}

/// The rest just waits on.
void noBytesOfARest(Scene_& scene) {
    scene.opened();
    scene.established();
    scene.calls().shorten(Calls_::Send, 10);
    scene.calls().then().answer(Calls_::Send, 0, 0, 3);
    scene.expect(scene.send(), "sendMessage succeeds");
    scene.expect(scene.peerGets(), "the message arrives");
    scene.works(true);
}

/// The end of a stream leaves no record of its own, wherever it comes.
void endOfStream(Scene_& scene, std::size_t length) {
    const std::string name = wire::nameBlock(scene.guestName());
    scene.opened();
    scene.guest();
    scene.guestWrites((name + scene.nextBlock()).substr(0, length));
    scene.guestIsRead();
    scene.calls().answer(Calls_::Recv, 0);
    scene.expect(scene.pass(), "a pass succeeds");
    scene.expectRecords("the end",
                        {length < name.size() ? deletingUnresolved() : deletingActive(scene.guestName())});
    scene.works();
}

void nameSentInPieces(Scene_& scene, unsigned int count, bool wouldBlock) {
    scene.opened();
    scene.calls().shorten(Calls_::Send, count);
    if (wouldBlock) scene.calls().then().fail(Calls_::Send, EAGAIN);
    scene.expect(scene.send(), "sendMessage succeeds");
    scene.expect(scene.peerGetsOnNewStream(), "name and message arrive");
    scene.works(true);
}

void nameReceivedInPieces(Scene_& scene, unsigned int count, bool wouldBlock) {
    const bool isInHeader = count < 4;
    scene.opened();
    if (count == 4) {
        scene.calls().fail(Calls_::Recv, EAGAIN, 1);
    } else {
        scene.calls().shorten(Calls_::Recv, isInHeader ? count : count - 4, isInHeader ? 0 : 1);
        if (wouldBlock) scene.calls().then().fail(Calls_::Recv, EAGAIN);
    }
    scene.guestArrives();
    scene.expectNoRecords("a guest");
    scene.works();
}

}  // namespace

Cases_ namesInPieces() {
    Cases_ cases;
    const auto own = static_cast<unsigned int>(wire::nameBlock("here").size());
    const auto guest = static_cast<unsigned int>(wire::nameBlock("guest").size());
    for (const bool wouldBlock : {false, true}) {
        const std::string then = wouldBlock ? ", then one that would block" : "";
        for (const Transport_ transport : {kLocal, kTcp})
            for (unsigned int count = 1; count < own; ++count)
                cases.push_back({std::to_string(count) + " bytes sent" + then, transport,
                                 [=](Scene_& scene) { nameSentInPieces(scene, count, wouldBlock); }});
        for (unsigned int count = 1; count < guest; ++count)
            cases.push_back({std::to_string(count) + " bytes received" + then, kLocal,
                             [=](Scene_& scene) { nameReceivedInPieces(scene, count, wouldBlock); }});
    }
    return cases;
}

Cases_ timeLimits() {
    Cases_ cases;
    const auto add = [&](const std::string& name, Transport_ transport, std::function<void(Scene_&)> play) {
        cases.push_back({name, transport, std::move(play)});
    };
    for (const Transport_ transport : {kLocal, kTcp}) {
        for (const unsigned int nanoseconds : {0U, 1U, kLastNanosecond}) {
            const std::string begin = " begun " + std::to_string(nanoseconds) + " ns past a second";
            for (const unsigned int age : {kConnectLimit, kConnectLimit + 1, 3600U})
                add("connect" + begin + " looked at after " + std::to_string(age) + " s", transport,
                    [=](Scene_& scene) { connectLimit(scene, nanoseconds, age); });
            for (const unsigned int age : {kSendLimit, kSendLimit + 1, 3600U})
                for (const unsigned int written : {0U, 1U, blockSize() - 1})
                    add("send of " + std::to_string(written) + " bytes" + begin + " looked at after " +
                            std::to_string(age) + " s",
                        transport, [=](Scene_& scene) { sendLimit(scene, nanoseconds, age, written); });
        }
        add("a connect that comes about late", transport, connectInTime);
        add("a send that is completed late", transport, sendInTime);
        add("a name that is not taken in time", transport, sendLimitOfTheName);
    }
    add("connects that all run into the limit", kTcp, connectLimitOfEachStream);
    return cases;
}

Cases_ waitLimits() {
    Cases_ cases;
    for (const unsigned int timeoutMs :
         {0U, 1U, 2U, 999U, 1000U, 1001U, 1999U, 2000U, 2001U, 10000U, 3600000U}) {
        const std::string name = " of " + std::to_string(timeoutMs) + " ms";
        cases.push_back({"waitForMessage" + name, kLocal,
                         [=](Scene_& scene) { slices(scene, timeoutMs, waitForMessage); }});
        cases.push_back({"pollFd" + name, kLocal, [=](Scene_& scene) { slices(scene, timeoutMs, pollFd); }});
    }
    const std::string reason = Failure_{ENOMEM, 1}.plainText();
    cases.push_back({"waitForMessage with events", kLocal, [=](Scene_& scene) {
                         events(scene, waitForMessage, [=](const std::string& left) {
                             return error(kWait, "VekmsgTerminalImpl_::waitForMessage" + left +
                                                     "poll() for here failed with " + reason);
                         });
                     }});
    cases.push_back({"pollFd with events", kLocal, [=](Scene_& scene) {
                         events(scene, pollFd, [=](const std::string& left) {
                             return error(kPollFd, "VekmsgTerminal_::pollFd" + left +
                                                       "poll() for multiple terminal failed with " + reason);
                         });
                     }});
    return cases;
}

Cases_ emptyResults() {
    Cases_ cases;
    for (const Transport_ transport : {kLocal, kTcp}) {
        cases.push_back({"send takes nothing of a name", transport, noBytesOfAName});
        cases.push_back({"send takes nothing of a message", transport, noBytesOfAMessage});
        cases.push_back({"send takes nothing of a rest", transport, noBytesOfARest});
        for (const std::size_t length : {0, 2, 4, 6, 10, 12, 14, 30})
            cases.push_back({"recv finds the end after " + std::to_string(length) + " bytes", transport,
                             [=](Scene_& scene) { endOfStream(scene, length); }});
    }
    return cases;
}
