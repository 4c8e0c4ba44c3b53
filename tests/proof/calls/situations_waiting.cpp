// What becomes of a wait, or of a look at what the sockets have, when poll fails.

#include <cerrno>

#include "proof/calls/situations.h"

namespace {

using Calls_ = SystemCalls_;

constexpr unsigned int kWaitMs = 5000;
constexpr unsigned int kSlices = 5;  // each a second long

/// An interrupted poll costs the wait none of its time. All others take their slice at once.
template <class Wait>
void goesOn(Scene_& scene, const Failure_& failure, Wait timesOut) {
    scene.calls().fail(Calls_::Poll, failure.m_error, 0, failure.m_times);
    scene.calls().then().answer(Calls_::Poll, 0, 0, kSlices);
    const unsigned int before = scene.calls().count(Calls_::Poll);
    scene.expect(timesOut(), "the wait lasts its time");
    scene.expect(scene.calls().count(Calls_::Poll) - before == failure.m_times + kSlices,
                 "each slice is waited for once");
    scene.expectNoRecords("waiting");
}

void waiting(Scene_& scene, const Failure_& failure) {
    scene.opened();
    if (failure.m_error == EINTR) {
        goesOn(scene, failure,
               [&] { return scene.terminal().waitForMessage(kWaitMs) == VekmsgTerminal_::WAIT_TIMEOUT; });
    } else {
        scene.calls().fail(Calls_::Poll, failure.m_error);
        scene.expect(scene.terminal().waitForMessage(kWaitMs) == VekmsgTerminal_::WAIT_ERROR,
                     "waitForMessage fails");
        scene.expectRecords(
            "waitForMessage",
            {error(kWait, "VekmsgTerminalImpl_::waitForMessage(5000) poll() for here failed with " +
                              failure.plainText())});
    }
    scene.works();
}

void polling(Scene_& scene, const Failure_& failure) {
    scene.opened();
    void* p_end = nullptr;
    const auto poll = [&] { return VekmsgTerminal_::pollFd(nullptr, 0, kWaitMs, &scene.terminal(), p_end); };
    if (failure.m_error == EINTR) {
        goesOn(scene, failure, [&] { return poll() == VekmsgTerminal_::POLL_TIMEOUT; });
    } else {
        scene.calls().fail(Calls_::Poll, failure.m_error);
        scene.expect(poll() == VekmsgTerminal_::POLL_ERROR, "pollFd fails");
        scene.expectRecords("pollFd", {error(kPollFd,
                                             "VekmsgTerminal_::pollFd(5000) poll() for multiple terminal "
                                             "failed with " +
                                                 failure.plainText())});
    }
    scene.works();
}

/// Without what the poll would have told, each socket is asked.
void looking(Scene_& scene, const Failure_& failure) {
    scene.opened();
    eachTime(failure, [&] {
        scene.calls().fail(Calls_::Look, failure.m_error);
        const unsigned int before = scene.calls().count(Calls_::Accept);
        SP_VekMessage_ sp_message;
        scene.expect(scene.terminal().receiveMessage(sp_message) && !sp_message, "nothing has come");
        scene.expect(scene.calls().count(Calls_::Accept) - before == 1, "the listening socket is asked");
        scene.expectNoRecords("receiveMessage");
    });
    scene.works();
}

}  // namespace

Situations_ waitingSituations() {
    Situations_ situations = {
        {Calls_::Poll, kLocal, "waitForMessage: polls", waiting},
        {Calls_::Poll, kTcp, "waitForMessage: polls", waiting},
        {Calls_::Poll, kLocal, "pollFd: polls", polling},
        {Calls_::Poll, kTcp, "pollFd: polls", polling},
    };
    if (VEKMSG_QUIET_SPELLS != 0) {
        situations.push_back({Calls_::Look, kLocal, "receiveMessage: looks", looking});
        situations.push_back({Calls_::Look, kTcp, "receiveMessage: looks", looking});
    }
    return situations;
}
