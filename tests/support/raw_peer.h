#ifndef VEKMSG_TESTS_RAW_PEER_H
#define VEKMSG_TESTS_RAW_PEER_H

#include <string>

/// One end of a stream that knows nothing of the library: tests write bytes into it and read what comes. What
/// it does with an open stream are not the calls that tests make fail, nor does it look at their clock.
class RawPeer_ {
public:
    RawPeer_() = default;

    /// Takes over a connected descriptor.
    explicit RawPeer_(int descriptor) : m_descriptor(descriptor) {}

    /// Connects to an address text, or throws.
    explicit RawPeer_(const std::string& address);

    /// Accepts a stream from a listening descriptor; throws when nobody comes within the limit.
    static RawPeer_ acceptedFrom(int listener, unsigned int limitMs = 10000);

    ~RawPeer_() { close(); }
    RawPeer_(RawPeer_&& other) noexcept;
    RawPeer_& operator=(RawPeer_&& other) noexcept;

    /// Writes all bytes; throws when the other end is closed or leaves no room for some seconds.
    void write(const std::string& bytes);

    /// Writes what fits at once; the number of bytes written, 0 also when the other end is closed.
    std::size_t writeSome(const std::string& bytes);

    /// Writes one byte as urgent data, or throws. For TCP.
    void writeUrgent(char byte);

    /// Waits for `size` bytes; fewer when the stream ends or nothing more comes within the limit.
    std::string read(std::size_t size, unsigned int limitMs = 10000);

    /// What has arrived up to now.
    std::string readArrived();

    /// Header and payload of the next block.
    std::string readBlock();

    /// Whether there is nothing to read now, not even the end of the stream.
    bool isQuiet() const;

    /// Whether the other end closes the stream within the limit, with nothing left to be read.
    bool isAtEnd(unsigned int limitMs = 10000) const;

    /// The address text of this end of a TCP stream.
    std::string address() const;

    /// Waits until the other end's system has all that was written; false when it has not within the limit.
    /// For TCP.
    bool isAcknowledged(unsigned int limitMs = 10000) const;

    /// Ends the sending direction alone.
    void finish();

    /// From now on close() resets a TCP stream, so that no port stays occupied behind it.
    void resetOnClose();

    void close();

private:
    int m_descriptor = -1;
};

/// Waits for streams at an address.
class RawListener_ {
public:
    explicit RawListener_(const std::string& address, int backlog = 8);
    ~RawListener_();
    RawListener_(const RawListener_&) = delete;
    RawListener_& operator=(const RawListener_&) = delete;

    /// Throws when nobody comes within the limit.
    RawPeer_ accept(unsigned int limitMs = 10000) { return RawPeer_::acceptedFrom(m_descriptor, limitMs); }

private:
    int m_descriptor;
};

#endif
