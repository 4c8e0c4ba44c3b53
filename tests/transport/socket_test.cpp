#include "transport/socket.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>

#include "support/allocation_failure.h"
#include "transport/streams.h"

namespace {

using Type_ = VekSocketAddress_::AddressType_;
using VekSocket = SocketTest_;

constexpr char kInitialize[] = "bool VekSocket_::initialize(const VekSocketAddress_&)";
constexpr char kMake[] = "bool VekSocket_::initialize(int, int, const char*)";
constexpr char kBind[] = "bool VekSocket_::initialize(VekSockNativeAddr_&)";
constexpr char kRemove[] = "bool VekSocket_::initialize(const char*)";
constexpr char kCleanUp[] = "void VekSocket_::cleanUp()";
constexpr char kFillPollFd[] = "bool VekSocket_::fillPollFd(bool, pollfd*, pollfd*&) const";

int optionOf(int descriptor, int level, int name) {
    int value = -1;
    socklen_t length = sizeof(value);
    EXPECT_EQ(::getsockopt(descriptor, level, name, &value, &length), 0);
    return value;
}

bool exists(const std::string& path) {
    return ::access(path.c_str(), F_OK) == 0;
}

mode_t modeOf(const std::string& path) {
    struct stat status = {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0);
    return status.st_mode;
}

void expectIdle(const VekSocket_& socket) {
    EXPECT_EQ(socket.state(), VekSocket_::IDLE);
    EXPECT_EQ(socket.descriptor(), -1);
}

/// A file mode mask that lasts as long as the object.
struct FileModeMask_ {
    explicit FileModeMask_(mode_t mask) : m_before(::umask(mask)) {}
    ~FileModeMask_() { ::umask(m_before); }
    mode_t m_before;
};

}  // namespace

TEST_F(VekSocket, statesAndResultsHaveTheirNumbers) {
    EXPECT_EQ(VekSocket_::IDLE, 0U);
    EXPECT_EQ(VekSocket_::INITIALIZED, 1U);
    EXPECT_EQ(VekSocket_::LISTENING, 2U);
    EXPECT_EQ(VekSocket_::CONNECTING, 3U);
    EXPECT_EQ(VekSocket_::CONNECTED, 4U);
    EXPECT_EQ(VekSocket_::SEND_FAILED, 0U);
    EXPECT_EQ(VekSocket_::SEND_OK, 1U);
    EXPECT_EQ(VekSocket_::SEND_BUSY, 2U);
}

TEST_F(VekSocket, aNewSocketIsIdle) {
    expectIdle(m_socket);
    EXPECT_EQ(m_socket.localAddress().type(), Type_::UNKNOWN);
    EXPECT_EQ(m_socket.remoteAddress().type(), Type_::UNKNOWN);
    EXPECT_FALSE(m_socket.isConnected());
    EXPECT_FALSE(m_socket.isSendDataPending());
}

TEST_F(VekSocket, eachAddressTypeHasItsKindOfDescriptor) {
    const struct {
        Type_ m_type;
        int m_domain;
        int m_kind;
    } cases[] = {{Type_::LOCAL, AF_UNIX, SOCK_STREAM},
                 {Type_::INET_TCP, AF_INET, SOCK_STREAM},
                 {Type_::INET_UDP, AF_INET, SOCK_DGRAM}};
    for (const auto& each : cases) {
        EXPECT_TRUE(m_socket.initialize(wildcardOf(each.m_type)));

        const int descriptor = m_socket.descriptor();
        EXPECT_EQ(optionOf(descriptor, SOL_SOCKET, SO_DOMAIN), each.m_domain);
        EXPECT_EQ(optionOf(descriptor, SOL_SOCKET, SO_TYPE), each.m_kind);
        EXPECT_NE(::fcntl(descriptor, F_GETFL) & O_NONBLOCK, 0);
        EXPECT_EQ(::fcntl(descriptor, F_GETFD), 0);
    }
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(VekSocket, theOtherFlagsOfTheDescriptorStay) {
    m_calls.answer(SystemCalls_::Fcntl, O_RDWR | O_APPEND);  // as if it had been made with one more

    EXPECT_TRUE(m_socket.initialize(wildcardOf(Type_::LOCAL)));

    const int mask = O_APPEND | O_NONBLOCK;
    EXPECT_EQ(::fcntl(m_socket.descriptor(), F_GETFL) & mask, mask);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(VekSocket, aWildcardIsNotBound) {
    for (const VekSocketAddress_& wildcard :
         {wildcardOf(Type_::LOCAL), wildcardOf(Type_::INET_TCP), wildcardOf(Type_::INET_UDP),
          addressOf("local://"), addressOf("inettcp://"), addressOf("inetudp://")}) {
        pollfd entry = {};
        pollfd* p_next = nullptr;

        EXPECT_TRUE(m_socket.initialize(wildcard));

        EXPECT_EQ(m_socket.state(), VekSocket_::INITIALIZED);
        EXPECT_EQ(m_socket.localAddress().realName(), wildcard.realName());
        EXPECT_TRUE(m_socket.fillPollFd(true, &entry, p_next));
        EXPECT_EQ(p_next, &entry);
    }
    EXPECT_EQ(m_calls.count(SystemCalls_::Bind), 0U);
    EXPECT_EQ(m_calls.count(SystemCalls_::Setsockopt), 0U);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(VekSocket, anUnsetAddressIsRefusedAndChangesNothing) {
    EXPECT_TRUE(m_socket.initialize(wildcardOf(Type_::LOCAL)));
    const int descriptor = m_socket.descriptor();

    EXPECT_FALSE(m_socket.initialize(VekSocketAddress_()));

    EXPECT_EQ(m_records.take(),
              Records_{socketRecord(3, kInitialize, "VekSocket_::initialize() invalid address type 0")});
    EXPECT_EQ(m_socket.state(), VekSocket_::INITIALIZED);
    EXPECT_EQ(m_socket.descriptor(), descriptor);
    EXPECT_TRUE(isOpen(descriptor));
}

TEST_F(VekSocket, aLocalAddressIsBoundAndOpenToEveryUser) {
    const FileModeMask_ mask(077);

    EXPECT_TRUE(m_socket.initialize(addressOf(m_folder.localAddress("socket"))));

    EXPECT_EQ(m_socket.state(), VekSocket_::INITIALIZED);
    EXPECT_EQ(modeOf(m_folder.path("socket")), static_cast<mode_t>(S_IFSOCK | 0777));
    EXPECT_EQ(optionOf(m_socket.descriptor(), SOL_SOCKET, SO_REUSEADDR), 1);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(VekSocket, aSocketFileInTheWayIsRemoved) {
    const std::string path = m_folder.writeFile("socket", {"left by a dead process"});

    EXPECT_TRUE(m_socket.initialize(addressOf(m_folder.localAddress("socket"))));

    EXPECT_EQ(modeOf(path), static_cast<mode_t>(S_IFSOCK | 0777));
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(VekSocket, aSocketFileInTheWayIsRemovedWhateverItsMode) {
    const std::string path = m_folder.writeFile("socket", {});
    EXPECT_EQ(::chmod(path.c_str(), 0), 0);

    EXPECT_TRUE(m_socket.initialize(addressOf(m_folder.localAddress("socket"))));

    EXPECT_EQ(m_calls.count(SystemCalls_::Access), 1U);
    EXPECT_EQ(m_calls.accessMode(), F_OK);  // the superuser may read and write any file
    EXPECT_EQ(modeOf(path), static_cast<mode_t>(S_IFSOCK | 0777));
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(VekSocket, aTcpAddressIsBoundForReuse) {
    const std::string text = freeTcpAddress();

    EXPECT_TRUE(m_socket.initialize(addressOf(text)));

    sockaddr_in native = {};
    socklen_t length = sizeof(native);
    VekSocketAddress_ bound;
    EXPECT_EQ(::getsockname(m_socket.descriptor(), reinterpret_cast<sockaddr*>(&native), &length), 0);
    EXPECT_TRUE(bound.extractFromNative(&native, false));
    EXPECT_EQ(bound.realName(), text);
    EXPECT_EQ(optionOf(m_socket.descriptor(), SOL_SOCKET, SO_REUSEADDR), 1);
    EXPECT_EQ(m_calls.count(SystemCalls_::Chmod), 0U);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(VekSocket, aUdpAddressIsBound) {
    EXPECT_TRUE(m_socket.initialize(addressOf("inetudp" + freeTcpAddress().substr(7))));

    EXPECT_EQ(m_socket.state(), VekSocket_::INITIALIZED);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(VekSocket, eachFailureWhileMakingTheDescriptorEndsInIdle) {
    const struct {
        SystemCalls_::Call_ m_call;
        unsigned int m_skipped;
        const char* m_p_name;
    } cases[] = {{SystemCalls_::Socket, 0, "socket()"},
                 {SystemCalls_::Fcntl, 0, "fcntl(F_GETFL)"},
                 {SystemCalls_::Fcntl, 1, "fcntl(F_SETFL)"}};
    const int next = nextDescriptor();
    for (const auto& each : cases) {
        const std::string error = failNext(each.m_call, EMFILE, each.m_skipped);

        EXPECT_FALSE(m_socket.initialize(addressOf("inettcp://127.0.0.1:7000")));

        EXPECT_EQ(m_records.take(),
                  Records_{socketRecord(3, kMake,
                                        std::string("VekSocket_::initialize(inettcp://127.0.0.1:7000) ") +
                                            each.m_p_name + " failed with " + error)});
        expectIdle(m_socket);
        EXPECT_FALSE(isOpen(next));
    }
}

TEST_F(VekSocket, eachFailureWhileBindingEndsInIdle) {
    const std::string text = m_folder.localAddress("socket");
    const std::string path = m_folder.path("socket");
    const struct {
        SystemCalls_::Call_ m_call;
        int m_severity;
        const char* m_p_signature;
        std::string m_text;
    } cases[] = {
        {SystemCalls_::Unlink, 3, kRemove, "VekSocket_::initialize() unlink(" + path + ") failed with "},
        {SystemCalls_::Bind, 7, kBind, "VekSocket_::initialize() bind(" + text + ") failed with "},
        {SystemCalls_::Chmod, 3, kBind, "VekSocket_::initialize(" + path + ") chmod failed with "}};
    const int next = nextDescriptor();
    for (const auto& each : cases) {
        m_folder.writeFile("socket", {});
        const std::string error = failNext(each.m_call, EACCES);

        EXPECT_FALSE(m_socket.initialize(addressOf(text)));

        EXPECT_EQ(m_records.take(),
                  Records_{socketRecord(each.m_severity, each.m_p_signature, each.m_text + error)});
        expectIdle(m_socket);
        EXPECT_FALSE(isOpen(next));
    }
}

TEST_F(VekSocket, aFolderInTheWayCannotBeRemoved) {
    const TemporaryFolder_ folder;
    const std::string path = folder.path("");

    EXPECT_FALSE(m_socket.initialize(addressOf("local://" + path)));

    EXPECT_EQ(m_records.take(), Records_{socketRecord(3, kRemove,
                                                      "VekSocket_::initialize() unlink(" + path +
                                                          ") failed with " + errorText(EISDIR))});
    expectIdle(m_socket);
}

TEST_F(VekSocket, anAddressInUseIsADebugRecord) {
    VekSocket_ other;
    const std::string text = listenOn(other, freeTcpAddress());

    EXPECT_FALSE(m_socket.initialize(addressOf(text)));

    EXPECT_EQ(m_records.take(), Records_{socketRecord(7, kBind,
                                                      "VekSocket_::initialize() bind(" + text +
                                                          ") failed with " + errorText(EADDRINUSE))});
    expectIdle(m_socket);
}

TEST_F(VekSocket, anOptionThatFailsIsAWarning) {
    const std::string text = m_folder.localAddress("socket");
    const std::string error = failNext(SystemCalls_::Setsockopt, ENOBUFS);

    EXPECT_TRUE(m_socket.initialize(addressOf(text)));

    EXPECT_EQ(m_records.take(),
              Records_{socketRecord(
                  4, kBind, "setsockopt(SOL_SOCKET, SO_REUSEADDR) on " + text + " failed with " + error)});
    EXPECT_EQ(m_socket.state(), VekSocket_::INITIALIZED);
}

TEST_F(VekSocket, withoutAClockInitializingFailsInItsLastStep) {
    m_calls.fail(SystemCalls_::ClockGettime, EINVAL);

    EXPECT_FALSE(m_socket.initialize(wildcardOf(Type_::LOCAL)));

    EXPECT_EQ(m_socket.state(), VekSocket_::INITIALIZED);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(VekSocket, initializingAgainEndsWhatWasBefore) {
    listenOn(m_socket, m_folder.localAddress("first"));
    const int descriptor = m_socket.descriptor();

    EXPECT_TRUE(m_socket.initialize(addressOf(m_folder.localAddress("second"))));

    EXPECT_EQ(m_socket.state(), VekSocket_::INITIALIZED);
    EXPECT_EQ(m_socket.descriptor(), descriptor);  // the number was free again
    EXPECT_FALSE(exists(m_folder.path("first")));
    EXPECT_TRUE(exists(m_folder.path("second")));
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(VekSocket, aSocketCanBeInitializedFromItsOwnAddress) {
    const std::string text = listenOn(m_socket, m_folder.localAddress("socket"));

    EXPECT_TRUE(m_socket.initialize(m_socket.localAddress()));

    EXPECT_EQ(m_socket.state(), VekSocket_::INITIALIZED);
    EXPECT_EQ(m_socket.localAddress().realName(), text);
}

TEST_F(VekSocket, initializingWithoutMemoryFailsAndLeavesNothingOpen) {
    const VekSocketAddress_ address = addressOf(m_folder.localAddress("socket"));
    const int next = nextDescriptor();
    unsigned int number = 1;
    for (bool hasStruck = true; hasStruck && number < 20; ++number) {
        VekSocket_ socket;
        bool isInitialized = false;
        {
            AllocationFailure_ failure(number);
            isInitialized = socket.initialize(address);
            hasStruck = failure.hasStruck();
        }
        EXPECT_EQ(isInitialized, !hasStruck);
        EXPECT_EQ(isOpen(next), !hasStruck);
        if (hasStruck) expectIdle(socket);
        EXPECT_TRUE(socket.initialize(address));
    }
    EXPECT_GT(number, 2U);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(VekSocket, aListenerIsIdleWhenItCannotBeInitializedAgainForLackOfMemory) {
    const VekSocketAddress_ address = addressOf(m_folder.localAddress("second"));
    unsigned int number = 1;
    for (bool hasStruck = true; hasStruck && number < 20; ++number) {
        VekSocket_ listener;
        listenOn(listener, m_folder.localAddress("first"));
        {
            AllocationFailure_ failure(number);
            listener.initialize(address);
            hasStruck = failure.hasStruck();
        }
        if (hasStruck) expectIdle(listener);
        EXPECT_FALSE(exists(m_folder.path("first")));
    }
    EXPECT_GT(number, 2U);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(VekSocket, aListeningLocalSocketRemovesItsFile) {
    listenOn(m_socket, m_folder.localAddress("socket"));
    const int descriptor = m_socket.descriptor();

    m_socket.cleanUp();

    expectIdle(m_socket);
    EXPECT_FALSE(isOpen(descriptor));
    EXPECT_FALSE(exists(m_folder.path("socket")));
    EXPECT_EQ(m_socket.localAddress().type(), Type_::UNKNOWN);
    EXPECT_EQ(m_socket.localAddress().realName(), "");
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(VekSocket, aBoundLocalSocketThatDoesNotListenLeavesItsFile) {
    EXPECT_TRUE(m_socket.initialize(addressOf(m_folder.localAddress("socket"))));

    m_socket.cleanUp();

    EXPECT_TRUE(exists(m_folder.path("socket")));
}

TEST_F(VekSocket, connectedAndAcceptedLocalSocketsLeaveFilesAlone) {
    Streams_ streams(Type_::LOCAL);

    streams.m_client.cleanUp();
    streams.m_sp_server->cleanUp();

    EXPECT_TRUE(exists(streams.m_folder.path("server")));
    expectIdle(streams.m_client);
    EXPECT_EQ(streams.m_client.remoteAddress().realName(), "");
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(VekSocket, aListeningTcpSocketRemovesNoFile) {
    listenOn(m_socket, freeTcpAddress());

    m_socket.cleanUp();

    EXPECT_EQ(m_calls.count(SystemCalls_::Unlink), 0U);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(VekSocket, aSocketFileThatIsGoneIsAWarning) {
    listenOn(m_socket, m_folder.localAddress("socket"));
    const std::string path = m_folder.path("socket");
    ::unlink(path.c_str());

    m_socket.cleanUp();

    EXPECT_EQ(m_records.take(), Records_{socketRecord(4, kCleanUp,
                                                      "VekSocket_::cleanUp() unlink(" + path +
                                                          ") failed with " + errorText(ENOENT))});
    expectIdle(m_socket);
}

TEST_F(VekSocket, cleaningUpAnIdleSocketDoesNothing) {
    m_socket.cleanUp();

    expectIdle(m_socket);
    EXPECT_EQ(m_calls.count(SystemCalls_::Close), 0U);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(VekSocket, cleaningUpDropsBothBuffers) {
    Streams_ streams(Type_::LOCAL);
    m_calls.fail(SystemCalls_::Send, EAGAIN);
    streams.m_client.send(bufferWith("pending"));
    streams.m_client.receive(4, emptyBuffer(4));

    streams.m_client.cleanUp();

    EXPECT_FALSE(streams.m_client.isSendDataPending());
    EXPECT_TRUE(streams.m_client.receive(4, emptyBuffer(4)));
    EXPECT_EQ(m_records.take(), Records_{});  // no receive buffer was discarded
}

TEST_F(VekSocket, aSocketThatGoesClosesItsDescriptor) {
    SP_VekSocket_ sp_socket(new VekSocket_);
    listenOn(*sp_socket, m_folder.localAddress("socket"));
    const int descriptor = sp_socket->descriptor();

    sp_socket.reset();

    EXPECT_FALSE(isOpen(descriptor));
    EXPECT_FALSE(exists(m_folder.path("socket")));
}

TEST_F(VekSocket, aListenerIsPolledForPeers) {
    listenOn(m_socket, m_folder.localAddress("socket"));
    pollfd entries[2] = {{-5, 0, 0x7F}, {-5, 1, 1}};
    pollfd* p_next = nullptr;

    EXPECT_TRUE(m_socket.fillPollFd(true, entries, p_next));

    EXPECT_EQ(p_next, entries + 1);
    EXPECT_EQ(entries[0].fd, m_socket.descriptor());
    EXPECT_EQ(entries[0].events, POLLIN | POLLPRI | POLLERR | POLLHUP | POLLNVAL);
    EXPECT_EQ(entries[0].revents, 0);
    EXPECT_EQ(entries[1].fd, -5);
    EXPECT_EQ(m_records.take(), Records_{});
}

TEST_F(VekSocket, aSocketThatConnectsIsPolledForRoomToWrite) {
    m_calls.fail(SystemCalls_::Connect, EINPROGRESS);
    startConnecting(m_socket, "inettcp://127.0.0.1:7000");
    pollfd entry = {-5, 0, 0x7F};
    pollfd* p_next = nullptr;

    EXPECT_TRUE(m_socket.fillPollFd(false, &entry, p_next));

    EXPECT_EQ(p_next, &entry + 1);
    EXPECT_EQ(entry.fd, m_socket.descriptor());
    EXPECT_EQ(entry.events, POLLOUT | POLLERR | POLLHUP | POLLNVAL);
    EXPECT_EQ(entry.revents, 0);
}

TEST_F(VekSocket, aStreamIsPolledForRoomToWriteWhenThereIsWork) {
    Streams_ streams(Type_::LOCAL);
    const int reading = POLLIN | POLLPRI | POLLERR | POLLHUP | POLLNVAL;
    pollfd entry = {};
    pollfd* p_next = nullptr;

    EXPECT_TRUE(streams.m_client.fillPollFd(false, &entry, p_next));
    EXPECT_EQ(entry.events, reading);
    EXPECT_EQ(entry.fd, streams.m_client.descriptor());
    EXPECT_EQ(p_next, &entry + 1);

    EXPECT_TRUE(streams.m_client.fillPollFd(true, &entry, p_next));
    EXPECT_EQ(entry.events, reading | POLLOUT);

    m_calls.fail(SystemCalls_::Send, EAGAIN);
    streams.m_client.send(bufferWith("pending"));
    EXPECT_TRUE(streams.m_client.fillPollFd(false, &entry, p_next));
    EXPECT_EQ(entry.events, reading | POLLOUT);
}

TEST_F(VekSocket, anIdleSocketIsNotPolled) {
    pollfd entry = {-5, 0, 0};
    pollfd* p_next = nullptr;

    EXPECT_FALSE(m_socket.fillPollFd(true, &entry, p_next));

    EXPECT_EQ(m_records.take(),
              Records_{socketRecord(3, kFillPollFd,
                                    "VekSocket_::fillPollFd() failed because of the wrong state 0")});
    EXPECT_EQ(p_next, &entry);
    EXPECT_EQ(entry.fd, -5);
}

TEST_F(VekSocket, thereMustBeAnEntryToFill) {
    pollfd entry = {};
    pollfd* p_next = &entry;

    EXPECT_FALSE(m_socket.fillPollFd(true, nullptr, p_next));

    EXPECT_EQ(m_records.take(),
              Records_{socketRecord(3, kFillPollFd, "VekSocket_::fillPollFd() null p_pollFd")});
    EXPECT_EQ(p_next, nullptr);
}

TEST_F(VekSocket, aSocketFileHasAPathOf107CharactersAtMost) {
    const std::string start = m_folder.path("");
    const std::string longest = start + std::string(107 - start.size(), 'p');
    for (const std::string& path : {longest.substr(0, 106), longest, longest + "q"}) {
        VekSocket_ listener;
        EXPECT_TRUE(listener.initialize(addressOf("local://" + path)));
        EXPECT_TRUE(listener.listen(1));
        VekSocket_ client;
        EXPECT_TRUE(client.initialize(wildcardOf(Type_::LOCAL)));

        EXPECT_TRUE(client.connect(addressOf("local://" + path)));

        EXPECT_TRUE(exists(path.substr(0, 107)));
        EXPECT_FALSE(path.size() > 107 && exists(path));
    }
    EXPECT_FALSE(exists(longest));
    EXPECT_EQ(m_records.take(), Records_{});
}
