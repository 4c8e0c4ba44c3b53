// What becomes of a message for "peer" when calls fail that make the stream to it.

#include <cerrno>

#include "proof/calls/situations.h"
#include "support/child_process.h"

namespace {

using Calls_ = SystemCalls_;

constexpr char kDescriptor[] = "bool VekSocket_::initialize(int, int, const char*)";
constexpr char kConnect[] = "bool VekSocket_::connect()";
constexpr char kConnecting[] = "bool VekSocket_::connecting()";

bool isUnderWay(const Failure_& failure) {
    return failure.m_error == EINPROGRESS || failure.m_error == EALREADY;
}

Record_ refused(const std::string& address, const Failure_& failure) {
    return socketRecord(7, kConnect, "VekSocket_::connect(" + address + ") failed with " + failure.text());
}

Record_ unableToSend() {
    return error(kSendConnecting, "VekmsgTerminalImpl_::sendMessage() Unable to send to any peer address");
}

Record_ timedOut(const std::string& address) {
    return socketRecord(3, kConnecting, "Attempt to connect to " + address + " timed out after 6 seconds");
}

/// sendMessage fails with these records, as often as the call does; afterwards it succeeds.
void sendFails(Scene_& scene, const Failure_& failure, Calls_::Call_ call, unsigned int skipped,
               const Records_& records) {
    scene.opened();
    eachTime(failure, [&] {
        scene.calls().fail(call, failure.m_error, skipped);
        scene.expect(!scene.send(), "sendMessage fails");
        scene.expectRecords("failing sendMessage", records);
    });
    scene.works();
}

void makingTheSocket(Scene_& scene, const Failure_& failure) {
    sendFails(scene, failure, Calls_::Socket, 0,
              {socketRecord(3, kDescriptor,
                            "VekSocket_::initialize(" + scene.wildcard() + ") socket() failed with " +
                                failure.text())});
}

void readingItsFlags(Scene_& scene, const Failure_& failure) {
    sendFails(scene, failure, Calls_::Fcntl, 0,
              {socketRecord(3, kDescriptor,
                            "VekSocket_::initialize(" + scene.wildcard() + ") fcntl(F_GETFL) failed with " +
                                failure.text())});
}

void settingItsFlags(Scene_& scene, const Failure_& failure) {
    sendFails(scene, failure, Calls_::Fcntl, 1,
              {socketRecord(3, kDescriptor,
                            "VekSocket_::initialize(" + scene.wildcard() + ") fcntl(F_SETFL) failed with " +
                                failure.text())});
}

void stampingTheSocket(Scene_& scene, const Failure_& failure) {
    sendFails(scene, failure, Calls_::ClockGettime, 0, {});
}

/// Six seconds after a connect that stays under way, a local stream is given up and a TCP stream made anew.
void runsIntoTheLimit(Scene_& scene, const std::string& address, unsigned int attempt) {
    scene.expectNoRecords("connecting");
    scene.calls().advanceClock(6);
    scene.expect(scene.pass(), "a pass succeeds");
    if (!scene.isTcp()) {
        scene.expectRecords("limit", {timedOut(address), givingUp(attempt), deletingActive("peer")});
    } else {
        scene.expectRecords("limit", {timedOut(address), reconnecting(attempt)});
        scene.expect(scene.peerGetsOnNewStream(), "the message arrives on the new stream");
    }
}

void connecting(Scene_& scene, const Failure_& failure) {
    if (!isUnderWay(failure)) {
        sendFails(scene, failure, Calls_::Connect, 0, {refused(scene.peer(), failure), unableToSend()});
        return;
    }
    scene.opened();
    scene.calls().fail(Calls_::Connect, failure.m_error);
    scene.expect(scene.send(), "sendMessage succeeds");
    runsIntoTheLimit(scene, scene.peer(), 1);
    scene.works(scene.isTcp());
}

/// A guest's message for the peer cannot be passed on. It is dropped; the guest stays, and its next one is
/// heard.
void passesNothingOn(Scene_& scene, const Failure_& failure, Calls_::Call_ call, Records_ records) {
    records.push_back(
        warning(kForwarding, "here failed to route a message from guest with dest peer, src guest, TTL 3"));
    scene.opened();
    scene.guestArrives();
    eachTime(failure, [&] {
        scene.guestStream().write(scene.nextBlock("peer"));
        scene.calls().fail(call, failure.m_error);
        const unsigned int before = scene.calls().count(call);
        const auto isTried = [&] { return scene.calls().count(call) != before || !scene.pass(); };
        scene.expect(eventually(isTried), "the message is to be passed on");
        scene.expectRecords("passing on", records);
    });
    scene.guestStream().write(scene.nextBlock());
    scene.expect(scene.receives(scene.lastNumber()), "the guest is heard");
    scene.works();
}

void makingTheSocketToPassOn(Scene_& scene, const Failure_& failure) {
    passesNothingOn(scene, failure, Calls_::Socket,
                    {socketRecord(3, kDescriptor,
                                  "VekSocket_::initialize(" + scene.wildcard() + ") socket() failed with " +
                                      failure.text())});
}

void connectingToPassOn(Scene_& scene, const Failure_& failure) {
    if (isUnderWay(failure)) return connecting(scene, failure);
    passesNothingOn(scene, failure, Calls_::Connect, {refused(scene.peer(), failure), unableToSend()});
}

/// Nobody is at the address that stands first, as often as the call fails.
void connectingToOneOfTwo(Scene_& scene, const Failure_& failure) {
    std::vector<std::string> lines(failure.m_times, scene.secondPeer() + " peer");
    lines.push_back(scene.peer() + " peer");
    scene.writeDirectory(lines);
    scene.opened();
    scene.calls().fail(Calls_::Connect, failure.m_error, 0, failure.m_times);
    scene.expect(scene.send(), "sendMessage succeeds");
    if (isUnderWay(failure)) {
        runsIntoTheLimit(scene, scene.secondPeer(), 1);
        scene.close();
        scene.writeDirectory({scene.peer() + " peer"});
        scene.works();
        return;
    }
    Records_ records;
    for (unsigned int i = 0; i < failure.m_times; ++i) {
        records.push_back(refused(scene.secondPeer(), failure));
        records.push_back(
            debug(kSendConnecting,
                  "VekmsgTerminalImpl_::sendMessage() Tolerate connect failure - Use next peer address"));
    }
    scene.expectRecords("sendMessage", records);
    scene.expect(scene.peerGetsOnNewStream(), "the message arrives at the other address");
    scene.works(true);
    scene.writeDirectory({scene.peer() + " peer"});
}

/// A connection whose new stream is refused at once ends, whatever its budget.
void connectingAgain(Scene_& scene, const Failure_& failure) {
    const Failure_ cause = {ECONNRESET, 1};
    scene.opened();
    eachTime(failure, [&] {
        scene.calls().failAfterwards(Calls_::Connect, EINPROGRESS);
        scene.calls().then().fail(Calls_::Connect, failure.m_error);
        scene.calls().setPendingError(cause.m_error);
        scene.expect(scene.send(), "sendMessage succeeds");
        scene.expectNoRecords("sendMessage");
        scene.expect(scene.pass(), "a pass succeeds");
        Records_ records = {
            socketRecord(7, kConnecting,
                         "VekSocket_::connecting(" + scene.peer() + ") async failure with " + cause.text()),
            reconnecting(1)};
        if (!isUnderWay(failure)) {
            records.push_back(refused(scene.peer(), failure));
            records.push_back(deletingActive("peer"));
        }
        scene.expectRecords("reconnecting", records);
    });
    if (isUnderWay(failure)) runsIntoTheLimit(scene, scene.peer(), 2);
    scene.works(isUnderWay(failure));
}

/// Without the option a stream is slower and nothing else.
void sendingWithoutDelay(Scene_& scene, const Failure_& failure, bool atOnce) {
    eachTime(failure, [&] {
        scene.opened();
        if (atOnce) {
            scene.calls().answerAfterwards(Calls_::Connect, 0);
        } else {
            scene.calls().failAfterwards(Calls_::Connect, EINPROGRESS);
        }
        scene.calls().fail(Calls_::Setsockopt, failure.m_error);
        scene.established();
        scene.close();
    });
    scene.works();
}

void sendingWithoutDelayAtOnce(Scene_& scene, const Failure_& failure) {
    sendingWithoutDelay(scene, failure, true);
}

void sendingWithoutDelayLater(Scene_& scene, const Failure_& failure) {
    sendingWithoutDelay(scene, failure, false);
}

void stampingTheConnect(Scene_& scene, const Failure_& failure) {
    scene.opened();
    eachTime(failure, [&] {
        scene.calls().failAfterwards(Calls_::Connect, EINPROGRESS);
        scene.calls().fail(Calls_::ClockGettime, failure.m_error, 1);
        scene.expect(!scene.send(), "sendMessage fails");
        scene.expectRecords("failing sendMessage", {unableToSend()});
    });
    scene.works();
}

/// A stream to the peer comes about later; what is asked about it meanwhile fails with `record`. A local
/// connection ends, a TCP one is made anew.
template <class Plan>
void askingFails(Scene_& scene, const Failure_& failure, const Records_& records, Plan plan) {
    eachTime(failure, [&] {
        scene.opened();
        scene.calls().failAfterwards(Calls_::Connect, EINPROGRESS);
        scene.expect(scene.send(), "sendMessage succeeds");
        plan();
        scene.expect(scene.pass(), "a pass succeeds");
        Records_ expected = records;
        if (scene.isTcp()) {
            expected.push_back(reconnecting(1));
        } else {
            expected.push_back(givingUp(1));
            expected.push_back(deletingActive("peer"));
        }
        scene.expectRecords("failing connect", expected);
        if (scene.isTcp()) scene.expect(scene.peerGetsOnNewStream(), "the message arrives on the new stream");
        scene.close();
    });
    scene.works();
}

Record_ cannotAsk(const Scene_& scene, const Failure_& failure) {
    return socketRecord(
        3, kConnecting,
        "VekSocket_::connecting(" + scene.peer() + ") getsockopt() failed with " + failure.text());
}

Record_ failedLater(const Scene_& scene, const Failure_& failure) {
    return socketRecord(7, kConnecting,
                        "VekSocket_::connecting(" + scene.peer() + ") async failure with " + failure.text());
}

void askingForTheError(Scene_& scene, const Failure_& failure) {
    askingFails(scene, failure, {cannotAsk(scene, failure)},
                [&] { scene.calls().fail(Calls_::Getsockopt, failure.m_error); });
}

void pendingError(Scene_& scene, const Failure_& failure) {
    if (!isUnderWay(failure)) {
        askingFails(scene, failure, {failedLater(scene, failure)},
                    [&] { scene.calls().setPendingError(failure.m_error); });
        return;
    }
    scene.opened();
    scene.calls().failAfterwards(Calls_::Connect, EINPROGRESS);
    scene.calls().setPendingError(failure.m_error);
    scene.established();
    scene.works(true);
}

/// Four new streams are tried, and no fifth.
void budgetRunsOut(Scene_& scene, const Record_& record) {
    scene.opened();
    scene.calls().failAfterwards(Calls_::Connect, EINPROGRESS, 0, 5);
    scene.expect(scene.send(), "sendMessage succeeds");
    for (unsigned int attempt = 1; attempt <= 4; ++attempt) {
        scene.expect(scene.pass(), "a pass succeeds");
        scene.expectRecords("reconnecting", {record, reconnecting(attempt)});
    }
    scene.expect(scene.pass(), "a pass succeeds");
    scene.expectRecords("giving up", {record, givingUp(5), deletingActive("peer")});
    scene.works();
}

void askingForTheErrorInVain(Scene_& scene, const Failure_& failure) {
    if (failure.m_times > 1) return askingForTheError(scene, failure);
    scene.calls().fail(Calls_::Getsockopt, failure.m_error, 0, 5);
    budgetRunsOut(scene, cannotAsk(scene, failure));
}

void pendingErrorEachTime(Scene_& scene, const Failure_& failure) {
    if (failure.m_times > 1 || isUnderWay(failure)) return pendingError(scene, failure);
    scene.calls().setPendingError(failure.m_error, 5);
    budgetRunsOut(scene, failedLater(scene, failure));
}

/// Nothing but "not connected" keeps a stream waiting, and that for one pass more.
void askingForThePeer(Scene_& scene, const Failure_& failure) {
    eachTime(failure, [&] {
        scene.opened();
        scene.calls().failAfterwards(Calls_::Connect, EINPROGRESS);
        scene.calls().fail(Calls_::Getpeername, failure.m_error);
        scene.expect(scene.send(), "sendMessage succeeds");
        scene.peerTakesStream();
        const bool waits = failure.m_error == ENOTCONN;
        const unsigned int before = scene.calls().count(Calls_::Send);
        scene.expect(scene.pass(), "a pass succeeds");
        scene.expect(scene.calls().count(Calls_::Send) - before == (waits ? 0U : 2U),
                     waits ? "the stream is waited for" : "the name and the message are written at once");
        scene.expect(scene.peerGetsOnNewStream(), "the message arrives");
        scene.expectNoRecords("connecting");
        scene.close();
    });
    scene.works();
}

void askingForTheAge(Scene_& scene, const Failure_& failure) {
    eachTime(failure, [&] {
        scene.opened();
        scene.calls().fail(Calls_::Connect, EINPROGRESS);
        scene.expect(scene.send(), "sendMessage succeeds");
        scene.calls().fail(Calls_::ClockGettime, failure.m_error);
        scene.expect(scene.pass(), "a pass succeeds");
        if (scene.isTcp()) {
            scene.expectRecords("failing connect", {reconnecting(1)});
            scene.expect(scene.peerGetsOnNewStream(), "the message arrives on the new stream");
        } else {
            scene.expectRecords("failing connect", {givingUp(1), deletingActive("peer")});
        }
        scene.close();
    });
    scene.works();
}

}  // namespace

Record_ deletingActive(const std::string& peerName) {
    return debug(kServing, "Deleting active connection between here and " + peerName);
}

Record_ deletingUnresolved() {
    return debug(kResolving, "Deleting unresolved connection at here");
}

Record_ givingUp(unsigned int attempts) {
    return debug(kReconnect, "Unable to reconnect failed socket between here and peer after " +
                                 std::to_string(attempts) + " attempts");
}

Record_ reconnecting(unsigned int failures) {
    return debug(kReconnect,
                 "Reconnecting socket between here and peer after " + std::to_string(failures) + " failures");
}

Record_ unrecoverable() {
    return debug(kSendHanding, "VekmsgTerminalImpl_::sendMessage() Unrecoverable send error at here");
}

Situations_ connectingSituations() {
    return {
        {Calls_::Socket, kLocal, "send: makes the socket", makingTheSocket},
        {Calls_::Socket, kTcp, "send: makes the socket", makingTheSocket},
        {Calls_::Fcntl, kLocal, "send: reads its flags", readingItsFlags},
        {Calls_::Fcntl, kTcp, "send: reads its flags", readingItsFlags},
        {Calls_::Fcntl, kLocal, "send: sets its flags", settingItsFlags},
        {Calls_::Fcntl, kTcp, "send: sets its flags", settingItsFlags},
        {Calls_::ClockGettime, kLocal, "send: stamps the socket", stampingTheSocket},
        {Calls_::ClockGettime, kTcp, "send: stamps the socket", stampingTheSocket},
        {Calls_::Connect, kLocal, "send: connects", connecting},
        {Calls_::Connect, kTcp, "send: connects", connecting},
        {Calls_::Connect, kLocal, "send: connects to the first of two addresses", connectingToOneOfTwo},
        {Calls_::Connect, kTcp, "a pass: connects again", connectingAgain},
        {Calls_::Socket, kLocal, "receive: makes the socket to pass a message on", makingTheSocketToPassOn},
        {Calls_::Socket, kTcp, "receive: makes the socket to pass a message on", makingTheSocketToPassOn},
        {Calls_::Connect, kLocal, "receive: connects to pass a message on", connectingToPassOn},
        {Calls_::Connect, kTcp, "receive: connects to pass a message on", connectingToPassOn},
        {Calls_::ClockGettime, kLocal, "send: stamps a connect under way", stampingTheConnect},
        {Calls_::ClockGettime, kTcp, "send: stamps a connect under way", stampingTheConnect},
        {Calls_::Setsockopt, kTcp, "send: has the stream write at once", sendingWithoutDelayAtOnce},
        {Calls_::Setsockopt, kTcp, "a pass: has the stream write at once", sendingWithoutDelayLater},
        {Calls_::Getsockopt, kLocal, "a pass: asks for the pending error", askingForTheError},
        {Calls_::Getsockopt, kTcp, "a pass: asks for the pending error", askingForTheError},
        {Calls_::Getsockopt, kTcp, "passes: ask for the pending error in vain", askingForTheErrorInVain},
        {Calls_::Getsockopt, kLocal, "a pass: finds a pending error", pendingError, true},
        {Calls_::Getsockopt, kTcp, "a pass: finds a pending error", pendingError, true},
        {Calls_::Getsockopt, kTcp, "passes: find a pending error each time", pendingErrorEachTime, true},
        {Calls_::Getpeername, kLocal, "a pass: asks whether there is a peer", askingForThePeer},
        {Calls_::Getpeername, kTcp, "a pass: asks whether there is a peer", askingForThePeer},
        {Calls_::ClockGettime, kLocal, "a pass: asks how long a connect has taken", askingForTheAge},
        {Calls_::ClockGettime, kTcp, "a pass: asks how long a connect has taken", askingForTheAge},
    };
}
