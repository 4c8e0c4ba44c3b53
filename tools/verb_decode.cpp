#include <algorithm>
#include <nlohmann/json.hpp>
#include <sstream>

#include "byte_walk.h"
#include "codec.h"
#include "foundation/big_endian.h"
#include "foundation/byte_dump.h"
#include "hex.h"
#include "input.h"
#include "message_json.h"
#include "records.h"
#include "verb.h"

namespace {

constexpr std::size_t kItemHeader = 6;
constexpr std::size_t kBlockHeader = 4;

unsigned int load16At(const std::string& bytes, std::size_t offset) {
    return load16(reinterpret_cast<const unsigned char*>(bytes.data()) + offset);
}

std::string dumpOf(const std::string& bytes) {
    std::ostringstream stream;
    printBytestream(stream, reinterpret_cast<const unsigned char*>(bytes.data()),
                    static_cast<unsigned int>(bytes.size()), 1, 16, "\t", nullptr);
    return stream.str();
}

/// Makes bytes readable.
class DecodeVerb_ : public Verb_ {
public:
    const VerbText_& text() const override {
        static const VerbText_ s_text = {
            "decode",
            "bytes of messages as XML or JSON",
            {"KIND is what the bytes are: one message, one element (a payload), items one",
             "after another, or the blocks of a stream. They are read from FILE or standard",
             "input, in hexadecimal or as they are. What is damaged ends with exit code 6, and",
             "with notes: how far it was understood, where reading stopped, and why."},
            {"vekmsg decode element -x 000a0000000a00000002000400000007",
             "vekmsg decode items -x '0001 0003 0004 666f6f00 # a text' --json"}};
        return s_text;
    }

    void declare(Arguments_& arguments) override {
        arguments.text("-x,--hex", "HEX", m_hex, "these bytes");
        arguments.choice("--from", {"hex", "binary"}, m_form, "the form of FILE, if it is not to be guessed");
        arguments.word("KIND", m_kind, "message, element, items or stream");
        arguments.optionalWord("FILE", m_file, "");
    }

    ExitCode_ run(const CommonOptions_& common, Output_& output) override {
        m_p_common = &common;
        m_p_output = &output;
        m_bytes = bytes();
        if (m_kind == "message") {
            decodeMessage(m_bytes, 0, false);
        } else if (m_kind == "element") {
            decodeElement();
        } else if (m_kind == "items") {
            decodeItems();
        } else if (m_kind == "stream") {
            decodeStream();
        } else {
            throw Failure_(ExitCode_::Usage,
                           "'" + m_kind + "' is no kind: message, element, items or stream");
        }
        return m_result;
    }

private:
    std::string bytes() const {
        if (!m_hex.empty()) return bytesOfHexText(m_hex);
        const std::string input = readInput(m_file);
        // No message, element or stream is all text: numbers and lengths have bytes that no text has.
        const bool isText = std::all_of(input.begin(), input.end(), [](unsigned char byte) {
            return (byte >= 0x20 && byte < 0x7F) || byte == '\n' || byte == '\r' || byte == '\t';
        });
        if (m_form == "binary" || (m_form.empty() && !isText)) return input;
        return bytesOfHexText(input);
    }

    static std::string bytesOfHexText(const std::string& text) {
        const auto bytes = bytesOfDump(text);
        if (!bytes)
            throw Failure_(ExitCode_::BadData, "the input is no hexadecimal, two digits for each byte");
        return *bytes;
    }

    bool isJson() const { return m_p_common->m_json != JsonStyle_::None; }

    void write(const Json_& json) { m_p_output->write(jsonText(json, m_p_common->m_json)); }

    /// Says where `bytes`, which begin at `offset` of the input, stop making sense.
    void reportStop(const std::string& bytes, std::size_t offset, const ByteWalk_::Stop_& stop) {
        m_result = ExitCode_::BadData;
        std::ostringstream where;
        where << "stopped at offset " << offset + stop.m_offset << " (0x" << std::hex
              << offset + stop.m_offset << std::dec << ") of " << m_bytes.size() << ": " << stop.m_reason;
        note(where.str());
        note("    understood: " + (stop.m_understood.empty() ? "nothing" : stop.m_understood));
        note("    bytes: " + bytesAround(bytes, stop.m_offset));
    }

    /// The same where the library refused the bytes, in whose words it ends.
    void reportRefusal(const std::string& bytes, std::size_t offset,
                       const std::optional<ByteWalk_::Stop_>& stop, const CaughtRecords_& records) {
        m_result = ExitCode_::BadData;
        if (stop) reportStop(bytes, offset, *stop);
        note("    the library says: " + records.last("nothing"));
    }

    /// What the library remarked about bytes that it read all the same.
    void reportRemarks(const CaughtRecords_& records) const {
        if (m_p_common->m_isQuiet) return;
        for (const std::string& text : records.texts()) note("warning: " + text);
    }

    void decodeElement() {
        CaughtRecords_ records;
        const SP_VekmsgElement_ sp_element = ::decodeElement(m_bytes);
        if (!sp_element) {
            reportRefusal(m_bytes, 0, ByteWalk_(m_bytes).walkElement(0), records);
        } else {
            reportRemarks(records);
        }
        if (isJson()) return write(jsonOf(sp_element, m_bytes));
        if (!sp_element) return m_p_output->write(dumpOf(m_bytes) + '\n');
        std::ostringstream xml;
        sp_element->print(&xml, 0);
        m_p_output->write(xml.str());
    }

    void decodeMessage(const std::string& bytes, std::size_t offset, bool isBlock) {
        CaughtRecords_ records;
        const SP_VekMessage_ sp_message = ::decodeMessage(bytes);
        const std::string payload = sp_message ? rawPayloadOf(*sp_message) : "";
        const std::string header = bytes.substr(0, bytes.size() - payload.size());
        const bool isEmpty = sp_message && payload.empty();
        const Json_ json = sp_message ? jsonOf(*sp_message, header) : Json_{{"bytes", hexOf(bytes)}};
        if (isEmpty || json.value("payload", Json_()) != Json_()) {
            if (!isEmpty) reportRemarks(records);  // to have no payload is not to have a damaged one
        } else {
            reportRefusal(bytes, offset, ByteWalk_(bytes).walkMessage(0), records);
        }
        if (isJson()) {
            if (!isBlock) return write(json);
            return write(sp_message ? messageBlockJson(json) : blockJson(kMessageBlock, bytes));
        }
        if (!sp_message) return m_p_output->write(dumpOf(bytes) + '\n');
        std::ostringstream xml;
        sp_message->print(&xml, 0);
        m_p_output->write(xml.str());
    }

    void decodeItems() {
        for (std::size_t offset = 0; offset < m_bytes.size();) {
            const auto stop = ByteWalk_(m_bytes).walkItem(offset);
            if (stop) return stopAt(offset, *stop);
            const unsigned int tag = load16At(m_bytes, offset);
            const unsigned int type = load16At(m_bytes, offset + 2);
            const std::string value = m_bytes.substr(offset + kItemHeader, load16At(m_bytes, offset + 4));
            if (isJson()) {
                write(itemJson(tag, type, value));
            } else {
                m_p_output->write("<vek:Item Tag=\"" + std::to_string(tag) + "\" Type=\"" +
                                  std::to_string(type) + "\">\n" + dumpOf(value) + "\n</vek:Item>\n");
            }
            offset += kItemHeader + value.size();
        }
    }

    void decodeStream() {
        for (std::size_t offset = 0; offset < m_bytes.size();) {
            const std::size_t left = m_bytes.size() - offset;
            if (left < kBlockHeader)
                return stopAt(
                    offset,
                    {offset, "a block needs a header of 4 bytes, and " + std::to_string(left) + " are left",
                     countedBlocks()});
            const unsigned int type = load16At(m_bytes, offset);
            const unsigned int length = load16At(m_bytes, offset + 2);
            if (length > left - kBlockHeader)
                return stopAt(offset, {offset + 2,
                                       "the block announces " + std::to_string(length) + " bytes, and " +
                                           std::to_string(left - kBlockHeader) + " are left",
                                       countedBlocks()});
            decodeBlock(type, m_bytes.substr(offset + kBlockHeader, length), offset + kBlockHeader);
            ++m_blocks;
            offset += kBlockHeader + length;
        }
    }

    std::string countedBlocks() const { return m_blocks == 0 ? "" : counted(m_blocks, "block"); }

    void decodeBlock(unsigned int type, const std::string& payload, std::size_t offset) {
        if (type == kMessageBlock) return decodeMessage(payload, offset, true);
        if (isJson()) return write(type == kNameBlock ? nameBlockJson(payload) : blockJson(type, payload));
        const std::string opening = "<vek:Block Type=\"" + std::to_string(type) + "\">";
        if (type == kNameBlock) {
            const std::string name = payload.substr(0, payload.find('\0'));
            m_p_output->write(opening + printableText(name) + "</vek:Block>\n");
        } else {
            m_p_output->write(opening + '\n' + dumpOf(payload) + "\n</vek:Block>\n");
        }
    }

    /// Ends the reading of a row of items or blocks. What begins at `offset` is shown as it is, so that
    /// nothing of the input is missing in the output.
    void stopAt(std::size_t offset, const ByteWalk_::Stop_& stop) {
        reportStop(m_bytes, 0, stop);
        const std::string rest = m_bytes.substr(offset);
        if (isJson()) {
            write(Json_{{"bytes", hexOf(rest)}});
        } else {
            m_p_output->write(dumpOf(rest) + '\n');
        }
    }

    std::string m_hex;
    std::string m_form;
    std::string m_kind;
    std::string m_file;
    const CommonOptions_* m_p_common = nullptr;
    Output_* m_p_output = nullptr;
    std::string m_bytes;
    std::size_t m_blocks = 0;
    ExitCode_ m_result = ExitCode_::Done;
};

}  // namespace

UniqueVerb_ createDecodeVerb() {
    return std::make_unique<DecodeVerb_>();
}
