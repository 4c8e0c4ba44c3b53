// What becomes of a message for "peer" when calls fail that write it.

#include <cerrno>

#include "proof/calls/situations.h"
#include "support/wire_bytes.h"

namespace {

using Calls_ = SystemCalls_;

constexpr char kSendNow[] = "VekSocket_::SendResult_ VekSocket_::send(SP_BasicBuffer_)";
constexpr char kSendRest[] = "bool VekSocket_::check(BasicBuffer_&)";

Record_ notSent(const std::string& address, const Failure_& failure) {
    return socketRecord(7, kSendNow, "send(to " + address + ") failed with " + failure.text());
}

/// The first write on a local stream has failed inside sendMessage, which succeeds nevertheless. The
/// connection has no budget and is retired by the next pass.
void endsWithTheMessage(Scene_& scene, Records_ records) {
    records.push_back(givingUp(1));
    records.push_back(unrecoverable());
    scene.expectRecords("sendMessage", records);
    scene.expect(scene.pass(), "a pass succeeds");
    scene.expectRecords("the next pass", {deletingActive("peer")});
}

/// The TCP stream has been made anew, and the message goes there.
void goesOnAnew(Scene_& scene, const std::string& step, Records_ records) {
    records.push_back(reconnecting(1));
    scene.expectRecords(step, records);
    scene.expect(scene.peerGetsOnNewStream(), "the message arrives on the new stream");
}

void writingTheName(Scene_& scene, const Failure_& failure) {
    scene.opened();
    scene.calls().fail(Calls_::Send, failure.m_error, 0, failure.m_times);
    scene.expect(scene.send(), "sendMessage succeeds");
    if (failure.isTransient()) {
        scene.expect(scene.peerGetsOnNewStream(), "the message arrives");
        scene.expectNoRecords("sending");
        scene.works(true);
    } else if (scene.isTcp()) {
        scene.expectNoRecords("sendMessage");
        scene.expect(scene.peerGetsOnNewStream(), "the message arrives on the new stream");
        scene.expectRecords("passes", {notSent(scene.peer(), failure), reconnecting(1)});
        scene.works(true);
    } else {
        endsWithTheMessage(scene, {notSent(scene.peer(), failure)});
        scene.works();
    }
}

void writingAMessage(Scene_& scene, const Failure_& failure) {
    scene.opened();
    scene.established();
    scene.calls().fail(Calls_::Send, failure.m_error, 0, failure.m_times);
    scene.expect(scene.send(), "sendMessage succeeds");
    if (failure.isTransient()) {
        scene.expectNoRecords("sendMessage");
        scene.expect(scene.peerGets(), "the message arrives");
        scene.works(true);
    } else if (scene.isTcp()) {
        goesOnAnew(scene, "sendMessage", {notSent(scene.peer(), failure)});
        scene.works(true);
    } else {
        endsWithTheMessage(scene, {notSent(scene.peer(), failure)});
        scene.works();
    }
}

/// Two messages wait while the stream comes about. What the first one has taken does not wait for the second,
/// and what has failed is sent again on a new stream.
void writingASecondMessage(Scene_& scene, const Failure_& failure) {
    scene.opened();
    scene.calls().failAfterwards(Calls_::Connect, EINPROGRESS);
    scene.expect(scene.send(), "sendMessage succeeds");
    const unsigned int first = scene.lastNumber();
    scene.expect(scene.send(), "sendMessage succeeds");
    scene.calls().fail(Calls_::Send, failure.m_error, 2, failure.m_times);
    if (failure.isTransient()) {
        scene.expect(scene.peerGetsOnNewStream({first, scene.lastNumber()}), "both messages arrive");
        scene.expectNoRecords("sending");
        scene.works(true);
        return;
    }
    scene.peerTakesStream();
    scene.expect(scene.pass(), "a pass succeeds");
    if (scene.isTcp()) {
        goesOnAnew(scene, "a pass", {notSent(scene.peer(), failure)});
        scene.works(true);
    } else {
        scene.expectRecords("a pass", {notSent(scene.peer(), failure), givingUp(1), deletingActive("peer")});
        scene.works();
    }
}

/// On a stream that the peer has opened. It has no name of its own.
void writingToAGuest(Scene_& scene, const Failure_& failure) {
    scene.opened();
    scene.guestArrives("peer");
    scene.calls().fail(Calls_::Send, failure.m_error, 0, failure.m_times);
    scene.expect(scene.send(), "sendMessage succeeds");
    if (failure.isTransient()) {
        scene.expectNoRecords("sendMessage");
        scene.expect(scene.guestGets(), "the message arrives");
        scene.guestLeaves();
        scene.expect(scene.pass(), "a pass succeeds");
        scene.expectRecords("the end of the guest", {deletingActive("peer")});
    } else {
        endsWithTheMessage(scene, {notSent("local://", failure)});
    }
    scene.works();
}

/// What had been taken over and is not written goes with its stream, whatever the budget.
void writingTheRest(Scene_& scene, const Failure_& failure) {
    scene.opened();
    scene.established();
    scene.calls().shorten(Calls_::Send, 10);
    scene.calls().then().fail(Calls_::Send, failure.m_error, 0, failure.m_times);
    scene.expect(scene.send(), "sendMessage succeeds");
    scene.expectNoRecords("sendMessage");
    if (failure.isTransient()) {
        scene.expect(scene.peerGets(), "the message arrives");
        scene.works(true);
        return;
    }
    scene.expect(scene.pass(), "a pass succeeds");
    scene.expectRecords(
        "a pass",
        {socketRecord(3, kSendRest, "VekSocket_::send(" + scene.peer() + ") failed with " + failure.text()),
         deletingActive("peer")});
    scene.works();
}

void stampingTheName(Scene_& scene, const Failure_& failure) {
    eachTime(failure, [&] {
        scene.opened();
        if (scene.isTcp()) {
            scene.calls().failAfterwards(Calls_::Connect, EINPROGRESS);
            scene.expect(scene.send(), "sendMessage succeeds");
            scene.peerTakesStream();
            scene.calls().fail(Calls_::ClockGettime, failure.m_error);
            scene.expect(scene.peerGetsOnNewStream(), "the message arrives on the new stream");
            scene.expectRecords("passes", {reconnecting(1)});
        } else {
            scene.calls().fail(Calls_::ClockGettime, failure.m_error, 1);
            scene.expect(scene.send(), "sendMessage succeeds");
            endsWithTheMessage(scene, {});
        }
        scene.close();
    });
    scene.works();
}

void stampingAMessage(Scene_& scene, const Failure_& failure) {
    eachTime(failure, [&] {
        scene.opened();
        scene.established();
        scene.calls().fail(Calls_::ClockGettime, failure.m_error);
        scene.expect(scene.send(), "sendMessage succeeds");
        if (scene.isTcp()) {
            goesOnAnew(scene, "sendMessage", {});
        } else {
            endsWithTheMessage(scene, {});
        }
        scene.close();
    });
    scene.works();
}

void askingForTheAge(Scene_& scene, const Failure_& failure) {
    scene.opened();
    eachTime(failure, [&] {
        scene.established();
        scene.calls().fail(Calls_::Send, EAGAIN, 0, 2);
        scene.expect(scene.send(), "sendMessage succeeds");
        scene.calls().fail(Calls_::ClockGettime, failure.m_error);
        scene.expect(scene.pass(), "a pass succeeds");
        scene.expectRecords("a pass", {deletingActive("peer")});
    });
    scene.works();
}

}  // namespace

Situations_ sendingSituations() {
    return {
        {Calls_::Send, kLocal, "send: writes the name", writingTheName},
        {Calls_::Send, kTcp, "a pass: writes the name", writingTheName},
        {Calls_::Send, kLocal, "send: writes a message", writingAMessage},
        {Calls_::Send, kTcp, "send: writes a message", writingAMessage},
        {Calls_::Send, kLocal, "a pass: writes the second of two messages", writingASecondMessage},
        {Calls_::Send, kTcp, "a pass: writes the second of two messages", writingASecondMessage},
        {Calls_::Send, kLocal, "send: writes a message to a guest", writingToAGuest},
        {Calls_::Send, kLocal, "a pass: writes the rest of a message", writingTheRest},
        {Calls_::Send, kTcp, "a pass: writes the rest of a message", writingTheRest},
        {Calls_::ClockGettime, kLocal, "send: stamps the name", stampingTheName},
        {Calls_::ClockGettime, kTcp, "a pass: stamps the name", stampingTheName},
        {Calls_::ClockGettime, kLocal, "send: stamps a message", stampingAMessage},
        {Calls_::ClockGettime, kTcp, "send: stamps a message", stampingAMessage},
        {Calls_::ClockGettime, kLocal, "a pass: asks how long a message has waited", askingForTheAge},
        {Calls_::ClockGettime, kTcp, "a pass: asks how long a message has waited", askingForTheAge},
    };
}
