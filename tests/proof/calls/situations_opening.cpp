// What becomes of open() and close() when calls for the own addresses fail.

#include <cerrno>
#include <cstring>
#include <fstream>

#include "proof/calls/situations.h"

namespace {

using Calls_ = SystemCalls_;

constexpr char kDescriptor[] = "bool VekSocket_::initialize(int, int, const char*)";
constexpr char kBinding[] = "bool VekSocket_::initialize(VekSockNativeAddr_&)";
constexpr char kPath[] = "bool VekSocket_::initialize(const char*)";
constexpr char kListen[] = "bool VekSocket_::listen(unsigned int)";
constexpr char kCleanUp[] = "void VekSocket_::cleanUp()";

/// open() fails with these records, as often as the call does; afterwards it succeeds.
void openFails(Scene_& scene, const Failure_& failure, Calls_::Call_ call, unsigned int skipped,
               const Records_& records) {
    eachTime(failure, [&] {
        scene.calls().fail(call, failure.m_error, skipped);
        scene.expect(!scene.open(), "open fails");
        scene.expectRecords("failing open", records);
        scene.close();
        scene.expectNoRecords("close");
    });
    scene.works();
}

void makingTheSocket(Scene_& scene, const Failure_& failure) {
    openFails(
        scene, failure, Calls_::Socket, 0,
        {socketRecord(3, kDescriptor,
                      "VekSocket_::initialize(" + scene.own() + ") socket() failed with " + failure.text())});
}

void readingItsFlags(Scene_& scene, const Failure_& failure) {
    openFails(scene, failure, Calls_::Fcntl, 0,
              {socketRecord(3, kDescriptor,
                            "VekSocket_::initialize(" + scene.own() + ") fcntl(F_GETFL) failed with " +
                                failure.text())});
}

void settingItsFlags(Scene_& scene, const Failure_& failure) {
    openFails(scene, failure, Calls_::Fcntl, 1,
              {socketRecord(3, kDescriptor,
                            "VekSocket_::initialize(" + scene.own() + ") fcntl(F_SETFL) failed with " +
                                failure.text())});
}

/// Only warned of: the address is served all the same.
void reusingTheAddress(Scene_& scene, const Failure_& failure) {
    eachTime(failure, [&] {
        scene.calls().fail(Calls_::Setsockopt, failure.m_error);
        scene.expect(scene.open(), "open succeeds");
        scene.expectRecords("open", {socketRecord(4, kBinding,
                                                  "setsockopt(SOL_SOCKET, SO_REUSEADDR) on " + scene.own() +
                                                      " failed with " + failure.text()),
                                     scene.listening()});
        scene.close();
        scene.expectNoRecords("close");
    });
    scene.works();
}

/// Whatever access reports, a path that it cannot see counts as free.
void lookingForAFile(Scene_& scene, const Failure_& failure) {
    eachTime(failure, [&] {
        scene.calls().fail(Calls_::Access, failure.m_error);
        scene.opened();
        scene.close();
        scene.expectNoRecords("close");
    });
    scene.works();
}

/// A file that access does not see stays, and the bind finds the path taken.
void overlookingAFile(Scene_& scene, const Failure_& failure) {
    std::ofstream(scene.ownPath()) << "left behind";
    openFails(scene, failure, Calls_::Access, 0,
              {socketRecord(7, kBinding,
                            "VekSocket_::initialize() bind(" + scene.own() + ") failed with " +
                                Failure_{EADDRINUSE, 1}.text())});
}

void removingAFile(Scene_& scene, const Failure_& failure) {
    std::ofstream(scene.ownPath()) << "left behind";
    openFails(scene, failure, Calls_::Unlink, 0,
              {socketRecord(
                  3, kPath,
                  "VekSocket_::initialize() unlink(" + scene.ownPath() + ") failed with " + failure.text())});
}

void binding(Scene_& scene, const Failure_& failure) {
    openFails(
        scene, failure, Calls_::Bind, 0,
        {socketRecord(7, kBinding,
                      "VekSocket_::initialize() bind(" + scene.own() + ") failed with " + failure.text())});
}

void lettingAllConnect(Scene_& scene, const Failure_& failure) {
    openFails(scene, failure, Calls_::Chmod, 0,
              {socketRecord(
                  3, kBinding,
                  "VekSocket_::initialize(" + scene.ownPath() + ") chmod failed with " + failure.text())});
}

void stampingTheSocket(Scene_& scene, const Failure_& failure) {
    openFails(scene, failure, Calls_::ClockGettime, 0, {});
}

void listeningThere(Scene_& scene, const Failure_& failure) {
    openFails(
        scene, failure, Calls_::Listen, 0,
        {socketRecord(3, kListen,
                      "VekSocket_::listen() listen(" + scene.own() + ") failed with " + failure.text())});
}

/// What the first address has taken is given back by close().
void makingASecondSocket(Scene_& scene, const Failure_& failure) {
    const std::string second = scene.secondPeer();
    scene.writeDirectory({second + " here", scene.peer() + " peer"});
    eachTime(failure, [&] {
        scene.calls().fail(Calls_::Socket, failure.m_error, 1);
        scene.expect(!scene.open(), "open fails");
        scene.expectRecords("failing open", {scene.listening(),
                                             socketRecord(3, kDescriptor,
                                                          "VekSocket_::initialize(" + second +
                                                              ") socket() failed with " + failure.text())});
        scene.close();
        scene.expectNoRecords("close");
    });
    scene.writeDirectory({scene.peer() + " peer"});
    scene.works();
}

/// Linux frees the descriptor whatever close reports, and there is nothing else to be done about it.
void closingAnUnusableSocket(Scene_& scene, const Failure_& failure) {
    eachTime(failure, [&] {
        scene.calls().fail(Calls_::Fcntl, ENOSYS);
        scene.calls().failAfterwards(Calls_::Close, failure.m_error);
        scene.expect(!scene.open(), "open fails");
        scene.expectRecords("failing open",
                            {socketRecord(3, kDescriptor,
                                          "VekSocket_::initialize(" + scene.own() +
                                              ") fcntl(F_GETFL) failed with " + Failure_{ENOSYS, 1}.text())});
        scene.close();
    });
    scene.works();
}

void closingAnUnboundSocket(Scene_& scene, const Failure_& failure) {
    eachTime(failure, [&] {
        scene.calls().fail(Calls_::Bind, EADDRINUSE);
        scene.calls().failAfterwards(Calls_::Close, failure.m_error);
        scene.expect(!scene.open(), "open fails");
        scene.expectRecords("failing open",
                            {socketRecord(7, kBinding,
                                          "VekSocket_::initialize() bind(" + scene.own() + ") failed with " +
                                              Failure_{EADDRINUSE, 1}.text())});
        scene.close();
    });
    scene.works();
}

void closingAListener(Scene_& scene, const Failure_& failure) {
    eachTime(failure, [&] {
        scene.opened();
        scene.calls().failAfterwards(Calls_::Close, failure.m_error);
        scene.close();
        scene.expectNoRecords("close");
    });
    scene.works();
}

/// The listener is closed first; then follow a guest, another one and the stream to the peer.
void closingStreams(Scene_& scene, const Failure_& failure) {
    scene.works();
    scene.guestArrives();
    scene.expectNoRecords("a guest");
    scene.calls().failAfterwards(Calls_::Close, failure.m_error, 1, failure.m_times);
    scene.close();
    scene.expectNoRecords("close");
    scene.works();
}

/// The file stays; the next open removes it.
void removingTheOwnFile(Scene_& scene, const Failure_& failure) {
    eachTime(failure, [&] {
        scene.opened();
        scene.calls().fail(Calls_::Unlink, failure.m_error);
        scene.close();
        scene.expectRecords("close", {socketRecord(4, kCleanUp,
                                                   "VekSocket_::cleanUp() unlink(" + scene.ownPath() +
                                                       ") failed with " + failure.text())});
    });
    scene.works();
}

}  // namespace

Situations_ openingSituations() {
    return {
        {Calls_::Socket, kLocal, "open: makes the socket", makingTheSocket},
        {Calls_::Socket, kTcp, "open: makes the socket", makingTheSocket},
        {Calls_::Socket, kLocal, "open: makes the socket of a second address", makingASecondSocket},
        {Calls_::Socket, kTcp, "open: makes the socket of a second address", makingASecondSocket},
        {Calls_::Fcntl, kLocal, "open: reads its flags", readingItsFlags},
        {Calls_::Fcntl, kTcp, "open: reads its flags", readingItsFlags},
        {Calls_::Fcntl, kLocal, "open: sets its flags", settingItsFlags},
        {Calls_::Fcntl, kTcp, "open: sets its flags", settingItsFlags},
        {Calls_::Setsockopt, kLocal, "open: reuses the address", reusingTheAddress},
        {Calls_::Setsockopt, kTcp, "open: reuses the address", reusingTheAddress},
        {Calls_::Access, kLocal, "open: looks for a file, and there is none", lookingForAFile},
        {Calls_::Access, kLocal, "open: looks for a file that is there", overlookingAFile},
        {Calls_::Unlink, kLocal, "open: removes a file left behind", removingAFile},
        {Calls_::Bind, kLocal, "open: binds", binding},
        {Calls_::Bind, kTcp, "open: binds", binding},
        {Calls_::Chmod, kLocal, "open: lets all users connect", lettingAllConnect},
        {Calls_::ClockGettime, kLocal, "open: stamps the socket", stampingTheSocket},
        {Calls_::ClockGettime, kTcp, "open: stamps the socket", stampingTheSocket},
        {Calls_::Listen, kLocal, "open: listens", listeningThere},
        {Calls_::Listen, kTcp, "open: listens", listeningThere},
        {Calls_::Close, kLocal, "open: closes a socket whose flags cannot be read", closingAnUnusableSocket},
        {Calls_::Close, kTcp, "open: closes a socket whose flags cannot be read", closingAnUnusableSocket},
        {Calls_::Close, kLocal, "open: closes a socket that cannot be bound", closingAnUnboundSocket},
        {Calls_::Close, kTcp, "open: closes a socket that cannot be bound", closingAnUnboundSocket},
        {Calls_::Close, kLocal, "close: closes the listener", closingAListener},
        {Calls_::Close, kTcp, "close: closes the listener", closingAListener},
        {Calls_::Close, kLocal, "close: closes streams", closingStreams},
        {Calls_::Close, kTcp, "close: closes streams", closingStreams},
        {Calls_::Unlink, kLocal, "close: removes the own socket file", removingTheOwnFile},
    };
}
