#ifndef VEKMSG_TESTS_SIDE_BY_SIDE_H
#define VEKMSG_TESTS_SIDE_BY_SIDE_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "proof/boundaries/reference_stream.h"
#include "support/raw_peer.h"
#include "support/station.h"
#include "support/system_calls.h"
#include "support/temporary_folder.h"

/// The finished library beside the reader that knows only the page: both get the same bytes in the same
/// pieces, and everything that can be seen of the library is compared after each turn: records, messages down
/// to each value, bytes sent, and whether the connection lives.
///
/// Each check returns the first difference, or nothing. A check that found one leaves the next as it should
/// be.
class SideBySide_ {
public:
    /// Sizes of the pieces in which a stream arrives. Between two of them the library finds nothing to
    /// receive and works until it is quiet.
    using Pieces_ = std::vector<unsigned int>;

    /// Whether the end of a stream shows together with its last piece or when the library is quiet again.
    enum class End_ { Later, AtOnce };

    struct Compared_ {
        unsigned long long m_streams = 0;
        unsigned long long m_pieces = 0;
        unsigned long long m_messages = 0;
        unsigned long long m_records = 0;
    };

    SideBySide_();

    static const char* ownName() { return "sensor"; }

    /// A stream to the library from its opening to its end.
    std::string stream(const std::string& bytes, const Pieces_& pieces, End_ end);

    /// The same for a stream that the library has opened.
    std::string openedStream(const std::string& bytes, const Pieces_& pieces, End_ end);

    /// One more block on a stream of the component "panel" that stays open from one call to the next.
    std::string block(const std::string& bytes);

    /// The raw payload `bytes` of a message, decoded. Behind the bytes the buffer holds `behind`.
    std::string payload(std::string_view bytes, std::string_view behind);

    const Compared_& compared() const { return m_compared; }

private:
    void begin();
    void open(const std::string& bytes);
    void letOpen(const std::string& bytes);
    void write(const std::string& bytes);
    void give(const Pieces_& pieces, End_ end);
    void closeLine();
    void admit(unsigned int size);
    void settle();
    void end();
    bool turn();
    void compareMessage(const SP_VekMessage_& sp_message, const reference::Message_& expected);
    void comparePayload(const SP_VekMessage_& sp_message, std::string_view bytes);
    void compareEnds();
    void differ(const std::string& what, const std::string& expected, const std::string& found);
    void compareLines(const std::string& when, const Lines_& expected, const Lines_& found);
    template <class Steps>
    std::string check(Steps steps);
    void recover();

    TemporaryFolder_ m_folder;
    const std::string m_address = m_folder.localAddress(ownName());
    const std::string m_calleeAddress = m_folder.localAddress("callee");
    RawListener_ m_callee{m_calleeAddress};
    RecordCapture_ m_records;
    Station_ m_station{ownName(), m_folder.writeFile("directory", {m_address + ' ' + ownName(),
                                                                   m_calleeAddress + " callee"})};
    SystemCalls_ m_calls;
    std::optional<reference::Stream_> m_reference;
    RawPeer_ m_peer;
    std::string m_bytes;         // of the open stream
    std::size_t m_arrived = 0;   // of them, at the page's reader
    bool m_isLineOpen = false;   // the stream that block() writes to
    SP_VekMessage_ m_sp_holder;  // of raw payloads
    std::string m_difference;
    Compared_ m_compared;
};

#endif
