#ifndef VEKMSG_TRANSPORT_SOCKET_H
#define VEKMSG_TRANSPORT_SOCKET_H

#include <poll.h>

#include <cstdint>

#include "foundation/quiet_spell.h"
#include "libcpp/basic_buffer.h"
#include "libcpp/time_stamp.h"
#include "transport/socket_address.h"

class VekSocket_;
using SP_VekSocket_ = SmartPointer_<VekSocket_>;

/// One non-blocking descriptor: a listener that accepts peers, or a stream that connects, sends one buffer at
/// a time and receives into one buffer at a time. No call waits; the owner polls and then calls `check` or
/// `accept`.
///
/// Operations that return bool fail with false and a record, unless said otherwise.
class VekSocket_ : public BasicObject_ {
public:
    enum SocketState_ : std::uint32_t {
        IDLE = 0,
        INITIALIZED = 1,
        LISTENING = 2,
        CONNECTING = 3,
        CONNECTED = 4
    };

    enum SendResult_ : std::uint32_t {
        SEND_FAILED = 0,
        SEND_OK = 1,   ///< taken over: written whole, or in part with the rest pending
        SEND_BUSY = 2  ///< not connected, or an earlier buffer is pending; the caller keeps its buffer
    };

    VekSocket_();
    ~VekSocket_() override;

    void addRef() final { BasicObject_::addRef(); }
    void removeRef() final { BasicObject_::removeRef(); }

    /// Makes a descriptor for this address and binds it, unless it is a wildcard. A local socket file that
    /// stands in the way is removed. Whatever the socket was before ends.
    bool initialize(const VekSocketAddress_& localAddress);

    bool listen(unsigned int backlog);

    /// Takes one waiting peer; `sp_socket` is null, and the result true, when nobody waits. When a descriptor
    /// was accepted but cannot be used, it is left open. A function of its own in every build: the proof
    /// without memory knows such descriptors by it.
    [[gnu::cold, gnu::noinline]] bool accept(SP_VekSocket_& sp_socket);

    /// Makes this new socket the stream of an accepted descriptor and its owner.
    bool accepted(int descriptor, VekSocketAddress_::AddressType_ type);

    /// True when the stream stands or is under way.
    bool connect(const VekSocketAddress_& remoteAddress);

    /// Looks how a connect under way stands; it fails after 6 seconds. The descriptor stays open on failure.
    [[gnu::cold]] bool connecting();

    /// Writes at once what the descriptor takes; `check` writes the rest, within 8 seconds. After a write
    /// error the buffer stays pending.
    SendResult_ send(SP_BasicBuffer_ sp_buffer);

    /// Asks for `size` bytes behind the data of `sp_buffer`, at most for what fits there. Reads nothing yet.
    bool receive(unsigned int size, SP_BasicBuffer_ sp_buffer);

    /// Does the work that is possible now: connecting, one read, one write. `sp_buffer` gets the buffer of a
    /// receive that is complete, else null. A closed peer gives false without a record. Pending data is
    /// written only while a receive is armed.
    bool check(SP_BasicBuffer_& sp_buffer);

    /// Fills at most one entry; `p_next` is behind it.
    bool fillPollFd(bool wantWrite, pollfd* p_pollFd, pollfd*& p_next) const;

    /// Fills the entry with what would make this socket do something, if anything would but the clock.
    bool fillQuietPollFd(pollfd& entry) const;

    /// The same for one that accepts peers or receives.
    bool fillReadPollFd(pollfd& entry) const {
        entry = {m_descriptor, POLLIN | POLLPRI, 0};
        return m_descriptor >= 0;
    }

    /// A poll for that has just reported nothing. While the spell lasts, `accept`, the read of `check` and
    /// the look at a connect under way take the answer "not yet" without asking. Writes and time limits go
    /// on.
    void noteQuiet(std::uint64_t spell) { m_quietSpell = spell; }
    void forgetQuiet() { m_quietSpell = kNoQuietSpell; }

    /// Whether the present spell is one of those of which that is known.
    bool isQuiet() const { return m_quietSpell != kNoQuietSpell && isQuiet(quietSpell()); }

    /// The same for the spell of that number.
    bool isQuiet(std::uint64_t spell) const { return m_quietSpell == spell && spell != kNoQuietSpell; }

    /// Whether nothing but data from the peer makes `check` do anything.
    bool awaitsOnlyData() const { return m_state == CONNECTED && m_bytesToReceive != 0 && !m_sp_sendBuffer; }

    /// Whether `check` in this spell would find nothing and do nothing.
    bool isAtRest(std::uint64_t spell) const { return isQuiet(spell) && awaitsOnlyData(); }

    bool isConnected() const { return m_state == CONNECTED; }
    bool isSendDataPending() const { return m_dataToBeSent != 0; }

    /// Closes the descriptor and forgets everything. A listening local socket removes its file.
    [[gnu::cold]] void cleanUp();

    SocketState_ state() const { return m_state; }
    int descriptor() const { return m_descriptor; }
    const VekSocketAddress_& localAddress() const { return m_localAddress; }
    const VekSocketAddress_& remoteAddress() const { return m_remoteAddress; }

private:
    // Stages of the public operation of the same name, so that records carry its name.
    bool initialize(int domain, int kind, const char* p_name);
    bool initialize(VekSockNativeAddr_& native);
    bool initialize(const char* p_path);
    bool accept(int descriptor, SP_VekSocket_& sp_socket) const;
    bool connect();
    bool check();
    bool check(BasicBuffer_& receiveBuffer, SP_BasicBuffer_& sp_complete);
    [[gnu::noinline]] bool check(BasicBuffer_& sendBuffer);

    void becomeConnected();
    long writePending() const;
    void takeOffPending(long written);
    void dropBuffers();
    void closeDescriptor();

    SocketState_ m_state = IDLE;
    TimeStamp_ m_timeStamp;
    int m_descriptor = -1;
    VekSocketAddress_ m_localAddress;
    VekSocketAddress_ m_remoteAddress;
    SP_BasicBuffer_ m_sp_receiveBuffer;
    unsigned int m_bytesToReceive = 0;
    SP_BasicBuffer_ m_sp_sendBuffer;
    unsigned int m_dataToBeSent = 0;             // 0 without a send buffer
    std::uint64_t m_quietSpell = kNoQuietSpell;  // in which a poll found nothing here
};

#endif
