#ifndef VEKMSG_BENCH_TRANSFER_H
#define VEKMSG_BENCH_TRANSFER_H

#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

// The frame of every transfer benchmark: two real processes, one of which measures.
//
//     PROGRAM --transport unix|tcp --mode rtt|stream|burst|fanin --size N --count N
//             [--peers N] [--batch N] [--cores one|two|free] [--counted] [--variant NAME] [--polls N,N]
//
// rtt     a message there and the same back, `count` times. With --peers N the receiver holds N open
//         connections, of which one is busy.
// stream  `count` messages one way, with a reply for every 64th so that at most 256 are on their way.
// burst   `batch` messages, then one reply, `count` times.
// fanin   a stream from --peers N senders that take turns, one message each. The replies take turns too.
//
// All senders live in one process, each with a connection of its own. Every receiver checks the length of
// each message and its sequence number. --counted counts calls instead of measuring well; --variant and
// --polls mean what the program says. The result is one line of JSON. Exit codes: 0 done, 1 a fault,
// 4 the program has no such transport, mode or number of peers.

enum class Mode_ { RoundTrip, Stream, Burst, FanIn };

struct Options_ {
    bool m_isTcp = false;
    Mode_ m_mode = Mode_::RoundTrip;
    std::size_t m_size = 64;
    unsigned long m_count = 10000;
    unsigned int m_peers = 1;
    unsigned int m_batch = 2;
    unsigned int m_senderPolls = 0;
    unsigned int m_receiverPolls = 0;
    bool m_isCounted = false;
    std::string m_cores = "free";
    std::string m_variant;
};

/// Where the processes meet: made before they part.
struct Meeting_ {
    std::string m_folder;      // holds the socket files
    std::string m_brokerPort;  // TCP ports
    std::string m_receiverPort;
    std::vector<std::string> m_senderPorts;
};

/// A socket address: a file in the meeting's folder, or a TCP port of the loopback.
struct Address_ {
    sockaddr_storage m_bytes = {};
    socklen_t m_length = 0;
    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&m_bytes); }
};
Address_ makeAddress(const Options_& options, const Meeting_& meeting, const std::string& name,
                     const std::string& port);

/// One end of the exchange. Faults end the process with a message.
class Side_ {
public:
    virtual ~Side_() = default;

    /// Sends `size` bytes, taking over those that cannot be written at once. A receiver sends to the sender
    /// with that number, from which it has had a message; a sender has only the receiver to send to.
    virtual void send(unsigned int to, const unsigned char* p_bytes, std::size_t size) = 0;

    /// Waits for a message and gives its size.
    virtual std::size_t receive(unsigned char* p_bytes, std::size_t capacity) = 0;
};

/// What each benchmark program provides. Sides are made by the process that uses them; the receiver first.
struct Program_ {
    const char* m_p_name;
    std::unique_ptr<Side_> (*m_p_makeReceiver)(const Options_&, const Meeting_&);
    std::unique_ptr<Side_> (*m_p_makeSender)(const Options_&, const Meeting_&, unsigned int number);
    /// Starts the process that stands between the two, if there is one, on the cores of its caller.
    pid_t (*m_p_startBroker)(const Options_&, const Meeting_&) = nullptr;
};
extern const Program_ g_program;

/// The number of the sender that a message comes from or is sent to: each message says it.
unsigned int senderOf(const unsigned char* p_bytes);

[[noreturn]] void fail(const char* p_what);
/// For transports, modes and numbers that a program does not have.
[[noreturn]] void refuse(const char* p_what);

/// Starts a program that ends with this process. Waits until `isReady` says so, for ten seconds at most.
pid_t startBroker(const std::vector<std::string>& command,
                  bool (*p_isReady)(const Options_&, const Meeting_&), const Options_& options,
                  const Meeting_& meeting);
/// Whether something listens at the meeting's broker port, or socket file `broker`.
bool isBrokerListening(const Options_& options, const Meeting_& meeting);

#endif
