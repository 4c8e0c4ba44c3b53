#ifndef VEKMSG_BENCH_TRANSFER_H
#define VEKMSG_BENCH_TRANSFER_H

#include <cstddef>
#include <string>

// The frame of every transfer benchmark: two real processes, one of which measures.
//
//     PROGRAM --transport unix|tcp --mode rtt|stream --size N --count N [--blocking] [--cores one|two|free]
//
// rtt: a message there and the same back, `count` times. stream: `count` messages one way, with a reply for
// every 64th so that at most 256 are on their way. Each receiver checks length and sequence number. The
// result is one line of JSON.

struct Options_ {
    bool m_isTcp = false;
    bool m_isStream = false;
    bool m_isBlocking = false;
    std::size_t m_size = 64;
    unsigned long m_count = 10000;
    std::string m_cores = "free";
};

/// Where the two sides meet: made before the processes part.
struct Meeting_ {
    std::string m_folder;  // holds the socket files
    std::string m_senderPort;
    std::string m_receiverPort;
};

/// One side of the exchange. Faults end the process with a message.
class Side_ {
public:
    virtual ~Side_() = default;

    /// Sends `size` bytes, taking over those that cannot be written at once.
    virtual void send(const unsigned char* p_bytes, std::size_t size) = 0;

    /// Waits for a message and gives its size.
    virtual std::size_t receive(unsigned char* p_bytes, std::size_t capacity) = 0;
};

/// Each program makes its own kind of side: the receiver first, in the second process.
Side_* makeReceiver(const Options_& options, const Meeting_& meeting);
Side_* makeSender(const Options_& options, const Meeting_& meeting);
extern const char* const g_p_programName;

[[noreturn]] void fail(const char* p_what);

/// What a message adds to its payload on the stream: block header, names, time-to-live, schema and element
/// headers.
constexpr std::size_t kFraming = 4 + 9 + 7 + 4 + 2 + 4 * 6 + 12;

#endif
