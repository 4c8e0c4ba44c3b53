#ifndef VEKMSG_TESTS_RAW_PEER_H
#define VEKMSG_TESTS_RAW_PEER_H

#include <string>

/// One end of a stream that knows nothing of the library: tests write bytes into it and read what comes.
class RawPeer_ {
public:
    /// Takes over a connected descriptor.
    explicit RawPeer_(int descriptor) : m_descriptor(descriptor) {}

    /// Connects to an address text, or throws.
    explicit RawPeer_(const std::string& address);

    ~RawPeer_() { close(); }
    RawPeer_(RawPeer_&& other) noexcept;
    RawPeer_& operator=(RawPeer_&& other) noexcept;

    /// Writes what fits at once; the number of bytes written, 0 also when the other end is closed.
    std::size_t write(const std::string& bytes);

    /// Writes one byte as urgent data. For TCP.
    bool writeUrgent(char byte);

    /// Waits for `size` bytes; fewer when the stream ends or the limit passes.
    std::string read(std::size_t size, unsigned int limitMs = 10000);

    /// Whether the other end has closed the stream, with nothing left to be read.
    bool isClosed(unsigned int limitMs = 0);

    /// Ends the sending direction alone.
    void finish();

    /// From now on close() resets a TCP stream, so that no port stays occupied behind it.
    void resetOnClose();

    void close();
    bool isOpen() const { return m_descriptor != -1; }

private:
    int m_descriptor;
};

/// Waits for streams at an address.
class RawListener_ {
public:
    explicit RawListener_(const std::string& address);
    ~RawListener_();
    RawListener_(const RawListener_&) = delete;
    RawListener_& operator=(const RawListener_&) = delete;

    /// Throws when nobody comes within the limit.
    RawPeer_ accept(unsigned int limitMs = 10000);

private:
    int m_descriptor;
};

#endif
