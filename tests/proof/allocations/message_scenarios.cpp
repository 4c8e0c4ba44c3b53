// Messages, elements and buffers, and the reading of encoded payloads.

#include <ostream>
#include <sstream>

#include "proof/allocations/long_texts.h"
#include "proof/allocations/scenario.h"
#include "support/buffer_bytes.h"
#include "support/temporary_folder.h"
#include "support/utf8_text.h"
#include "support/wire_bytes.h"
#include "vekmsg/vekmsg.h"

namespace {

const std::string g_endless(600, 'n');  // longer than any room that a thread keeps for texts

const unsigned char g_bytes[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18};

/// Tag 1 with 3 (uint), 5 (text) and 9 (bytes), and with 7, which holds `depth` elements one in the other.
std::string encodedTree(unsigned int depth) {
    return wire::element(1, wire::Complex,
                         wire::element(3, wire::Uint, wire::u32(3)) +
                             wire::element(5, wire::String, wire::text("text")) +
                             wire::element(7, wire::Complex, wire::nest(depth)) +
                             wire::element(9, wire::Binary, std::string("bytes")));
}

/// A message with short texts, a tree whose root is `m_sp_root`, and another message whose payload is
/// encoded.
class Messages_ {
public:
    void prepare() {
        const std::string directory = m_folder.writeFile("names", {});
        if (!m_terminal.open(utf8("unlisted"), directory.c_str())) throw std::runtime_error("no terminal");
        m_sp_message = createMessage();
        m_sp_encoded = createMessage();
        m_sp_message->setDestination(utf8("to"));
        m_sp_message->setSource(utf8("from"));
        m_sp_message->setPayloadSchema(utf8("schema"), VekMessage_::SCHEMA_LITERAL);
        m_sp_root = m_sp_message->createElement(1);
        m_sp_root->setSubElementValue(3, 3U);
        m_sp_root->setSubElementValue(5, utf8("text"));
        m_sp_root->setSubElementValue(9, g_bytes, sizeof(g_bytes));
        m_sp_message->setPayload(m_sp_root);
        m_sp_element = m_sp_message->createElement(6);
        m_sp_element->setValue(6U);
        m_sp_encoded->setRawPayload(bufferOf(encodedTree(3)));
    }

    void proveUse(Run_& run) {
        run.require(m_sp_message->setDestination(utf8(kLongText)), "the destination");
        run.require(m_sp_message->setSource(utf8(kLongText)), "the source");
        run.require(m_sp_message->setPayloadSchema(utf8(kLongText), VekMessage_::SCHEMA_URI), "the schema");
        run.require(plain(m_sp_message->getPayloadSchema()) == kLongText, "the schema's text");
        run.require(m_sp_root->setSubElementValue(3, 33U), "the value of a sub-element");
        run.require(m_sp_root->setSubElementValue(300, utf8("new")), "the value of a new sub-element");
        unsigned int value = 0;
        run.require(m_sp_root->getSubElementValue(3, value) && value == 33, "the value that was set");
        run.require(countIn(m_sp_root) >= 4, "the walk");
        run.require(m_sp_element->addSubelements(m_sp_message->createElement(2)), "a new child");
        std::ostringstream stream;
        run.require(m_sp_message->print(&stream, 0), "the print");
        m_sp_encoded->setRawPayload(bufferOf(encodedTree(3)));
        const SP_VekmsgElement_ sp_read = m_sp_encoded->getPayload();
        run.require(sp_read && countIn(sp_read) == 4, "the payload");
        m_terminal.close();
    }

    SP_VekMessage_ createMessage() {
        SP_VekMessage_ sp_message;
        if (!m_terminal.createMessage(sp_message)) throw std::runtime_error("no message");
        return sp_message;
    }

    static unsigned int countIn(const SP_VekmsgElement_& sp_element) {
        unsigned int count = 0;
        if (!sp_element->querySubelements(VEKMSGTAG_ANY)) return 0;
        while (sp_element->getNextSubelement()) ++count;
        return count;
    }

    TemporaryFolder_ m_folder;
    VekmsgTerminal_ m_terminal;
    SP_VekMessage_ m_sp_message;
    SP_VekMessage_ m_sp_encoded;
    SP_VekmsgElement_ m_sp_root;
    SP_VekmsgElement_ m_sp_element;
    std::ostringstream m_stream;
};

using Of_ = ScenariosOf_<Messages_>;

/// Reads the encoded payload; it is kept when that fails.
void readPayload(Messages_& s, Run_& run) {
    const SP_BasicBuffer_ sp_raw = s.m_sp_encoded->getRawPayload();
    const SP_VekmsgElement_ sp_root =
        run.succeeds("getPayload", [&] { return s.m_sp_encoded->getPayload(); });
    if (sp_root) {
        run.require(!s.m_sp_encoded->getRawPayload(), "the encoded bytes stay beside the tree");
        run.require(sp_root->getTag() == 1 && Messages_::countIn(sp_root) == 4, "the tree is not whole");
    } else {
        run.require(s.m_sp_encoded->getRawPayload() == sp_raw, "the encoded bytes are not kept");
        run.require(Messages_::countIn(s.m_sp_encoded->getPayload()) == 4, "cannot be read again");
    }
}

/// `set` gives a text of the message to the call; it stays as it was when that fails.
template <class Set, class Get>
void setText(Run_& run, const char* p_operation, const std::string& old, const std::string& text, Set set,
             Get get) {
    const bool isDone = run.succeeds(p_operation, [&] { return set(utf8(text)); });
    run.require(plain(get()) == (isDone ? text : old), "the text is neither the old nor the new one");
}

void addTexts(Of_& of) {
    of.add("message: set the destination", [](Messages_& s, Run_& run) {
        setText(
            run, "setDestination", "to", kLongText,
            [&](const Utf8Char_* p_text) { return s.m_sp_message->setDestination(p_text); },
            [&] { return s.m_sp_message->getDestination(); });
    });
    of.add("message: set the source, very long", [](Messages_& s, Run_& run) {
        setText(
            run, "setSource", "from", g_endless,
            [&](const Utf8Char_* p_text) { return s.m_sp_message->setSource(p_text); },
            [&] { return s.m_sp_message->getSource(); });
    });
    of.add("message: set the schema", [](Messages_& s, Run_& run) {
        setText(
            run, "setPayloadSchema", "schema", kLongText,
            [&](const Utf8Char_* p_text) {
                return s.m_sp_message->setPayloadSchema(p_text, VekMessage_::SCHEMA_URI);
            },
            [&] { return s.m_sp_message->getPayloadSchema(); });
        const bool isUri = s.m_sp_message->getPayloadSchemaType() == VekMessage_::SCHEMA_URI;
        run.require(isUri == (plain(s.m_sp_message->getPayloadSchema()) == kLongText),
                    "text and type do not belong together");
    });
    of.add("message: new texts in place of old ones", [](Messages_& s, Run_& run) {
        for (const std::string& text : {std::string(kLongText), g_endless, std::string(300, 'x')}) {
            const std::string old = plain(s.m_sp_message->getSource());
            setText(
                run, "setSource", old, text,
                [&](const Utf8Char_* p_text) { return s.m_sp_message->setSource(p_text); },
                [&] { return s.m_sp_message->getSource(); });
            run.succeeds("swapSourceDestination", [&] { return s.m_sp_message->swapSourceDestination(); });
        }
    });
}

bool isValueOf(const SP_VekmsgElement_& sp_parent, VekmsgTag_ tag, unsigned int number) {
    bool isFound = false;
    sp_parent->querySubelements(tag);
    while (const SP_VekmsgElement_ sp_child = sp_parent->getNextSubelement()) {
        unsigned int value = 0;
        isFound = isFound || (sp_child->getValue(value) && value == number);
    }
    return isFound;
}

void addElements(Of_& of) {
    of.add("message: create an element", [](Messages_& s, Run_& run) {
        const SP_VekmsgElement_ sp_new =
            run.succeeds("createElement", [&] { return s.m_sp_message->createElement(4); });
        run.require(!sp_new || sp_new->getTag() == 4, "another tag");
    });
    of.add("element: add a sub-element", [](Messages_& s, Run_& run) {
        const SP_VekmsgElement_ sp_child = s.m_sp_message->createElement(2);
        const bool isDone =
            run.succeeds("addSubelements", [&] { return s.m_sp_element->addSubelements(sp_child); });
        unsigned int value = 0;
        if (isDone) {
            run.require(Messages_::countIn(s.m_sp_element) == 1, "it is not there");
        } else {
            run.require(s.m_sp_element->getValue(value) && value == 6, "the value is lost");
        }
    });
    of.add("element: find a sub-element", [](Messages_& s, Run_& run) {
        for (const VekmsgTag_ tag : {5U, 9U, VEKMSGTAG_ANY}) {
            const SP_VekmsgElement_ sp_found = run.succeeds(
                "findFirstMatchingSubelement", [&] { return s.m_sp_root->findFirstMatchingSubelement(tag); });
            run.require(!sp_found || tag == VEKMSGTAG_ANY || sp_found->getTag() == tag,
                        "another one is found");
        }
    });
    of.add("element: walk over sub-elements", [](Messages_& s, Run_& run) {
        const bool isDone =
            run.succeeds("querySubelements", [&] { return s.m_sp_root->querySubelements(5); });
        if (isDone)
            run.require(s.m_sp_root->getNextSubelement() && !s.m_sp_root->getNextSubelement(),
                        "not one of it");
        s.m_sp_root->endQuerySubelements();
    });
    of.add("element: get values of sub-elements", [](Messages_& s, Run_& run) {
        unsigned int number = 77;
        bool isSet = false;
        const unsigned char* p_text = nullptr;
        unsigned int length = 77;
        // From the last to the first: who asks in the order of tags needs no memory.
        bool isDone = run.succeeds("getSubElementValue of bytes",
                                   [&] { return s.m_sp_root->getSubElementValue(9, p_text, length); });
        run.require(length == (isDone ? sizeof(g_bytes) : 77), "the output");
        p_text = nullptr;
        isDone = run.succeeds("getSubElementValue of a text",
                              [&] { return s.m_sp_root->getSubElementValue(5, p_text); });
        run.require(isDone ? plain(p_text) == "text" : p_text == nullptr, "the output");
        isDone = run.succeeds("getSubElementValue of a uint",
                              [&] { return s.m_sp_root->getSubElementValue(3, number); });
        run.require(number == (isDone ? 3 : 77), "the output");
        isDone = run.succeeds("getSubElementValue of a bool",
                              [&] { return s.m_sp_root->getSubElementValue(3, isSet); });
        run.require(isSet == isDone, "the output");
    });
    of.add("element: set values of new sub-elements", [](Messages_& s, Run_& run) {
        unsigned int count = 3;
        const auto judge = [&](bool isDone) {
            if (isDone) ++count;
            run.require(Messages_::countIn(s.m_sp_root) == count, "a child that failed is there");
        };
        judge(run.succeeds("setSubElementValue of a uint",
                           [&] { return s.m_sp_root->setSubElementValue(20, 1U); }));
        judge(run.succeeds("setSubElementValue of a bool",
                           [&] { return s.m_sp_root->setSubElementValue(21, true); }));
        judge(run.succeeds("setSubElementValue of a text",
                           [&] { return s.m_sp_root->setSubElementValue(22, utf8(kLongText)); }));
        judge(run.succeeds("setSubElementValue of bytes",
                           [&] { return s.m_sp_root->setSubElementValue(4, g_bytes, sizeof(g_bytes)); }));
    });
    // A look-up that finds no memory counts as one that finds nothing: a second sub-element is added then.
    // What fails may also be the memory that a thread takes on trial, which changes nothing.
    of.add("element: set values of present sub-elements", [](Messages_& s, Run_& run) {
        unsigned int mayBeAdded = 0;
        for (const unsigned int number : {30U, 31U}) {
            const bool isDone = run.succeeds("setSubElementValue",
                                             [&] { return s.m_sp_root->setSubElementValue(5, number); });
            if (isDone && run.hasStruckInCall()) ++mayBeAdded;
            run.require(!isDone || isValueOf(s.m_sp_root, 5, number), "no sub-element has the value");
        }
        const unsigned int count = Messages_::countIn(s.m_sp_root);
        run.require(count >= 3 && count <= 3 + mayBeAdded, "the number of sub-elements");
    });
    of.add("element: attributes and plain values", [](Messages_& s, Run_& run) {
        run.succeeds("setValue", [&] { return s.m_sp_element->setValue(utf8(kLongText)); });
        run.call("createAttribute", [&] { return s.m_sp_element->createAttribute(1); });
        run.succeeds("setAttribute", [&] { return s.m_sp_element->setAttribute(1, 1U); });
        run.succeeds("createElement", [&] { return s.m_sp_message->createElement(1); });
    });
}

void addReading(Of_& of) {
    of.add("payload: read a tree", readPayload);
    of.add(
        "payload: read a deep tree",
        [](Messages_& s) { s.m_sp_encoded->setRawPayload(bufferOf(encodedTree(20))); }, readPayload);
    of.add(
        "payload: read a tree with bytes behind it",
        [](Messages_& s) { s.m_sp_encoded->setRawPayload(bufferOf(encodedTree(1) + std::string(20, 'x'))); },
        readPayload);
    of.add("payload: put a tree in place of bytes and back", [](Messages_& s, Run_& run) {
        const SP_BasicBuffer_ sp_raw = bufferOf(encodedTree(1));
        run.succeeds("setPayload", [&] { return s.m_sp_encoded->setPayload(s.m_sp_root); });
        run.require(s.m_sp_encoded->getPayload() == s.m_sp_root, "another tree");
        run.succeeds("setRawPayload", [&] { return s.m_sp_encoded->setRawPayload(sp_raw); });
        readPayload(s, run);
    });
}

/// A stream that has no memory either may end up bad, but then it has said so.
void print(Messages_& s, Run_& run, const VekMessage_& message) {
    const bool isDone = run.succeeds("print", [&] { return message.print(&s.m_stream, 1); });
    const std::string text = s.m_stream.str();
    const bool isWhole = text.find("</vek:Message>") != std::string::npos &&
                         text.find("<vek:RawPayload>\n\t\t</vek:RawPayload>") == std::string::npos;
    run.require(!isDone || isWhole || s.m_stream.bad(), "says that all was printed");
}

void addPrinting(Of_& of) {
    of.add("message: print a tree", [](Messages_& s, Run_& run) { print(s, run, *s.m_sp_message); });
    of.add("message: print encoded bytes", [](Messages_& s, Run_& run) { print(s, run, *s.m_sp_encoded); });
    of.add(
        "message: print to a stream that throws",
        [](Messages_& s) { s.m_stream.exceptions(std::ios::badbit); },
        [](Messages_& s, Run_& run) {
            run.succeeds("print", [&] { return s.m_sp_message->print(&s.m_stream, 1); });
        });
    of.add("element: print a value of bytes", [](Messages_& s, Run_& run) {
        const SP_VekmsgElement_ sp_bytes = s.m_sp_root->findFirstMatchingSubelement(9);
        run.succeeds("print", [&] { return sp_bytes->print(&s.m_stream, 1); });
    });
    of.add(
        "element: print to a stream that throws",
        [](Messages_& s) { s.m_stream.exceptions(std::ios::badbit); },
        [](Messages_& s, Run_& run) {
            run.succeeds("print", [&] { return s.m_sp_root->print(&s.m_stream, 1); });
        });
}

/// Of another size than those that wait on lists.
struct LargerBuffer_ : BasicBuffer_ {
    LargerBuffer_() : BasicBuffer_(10) {}
    char m_more[100] = {};
};

void addBuffers(Of_& of) {
    of.add("buffer: create, of both kinds of size", [](Messages_&, Run_& run) {
        for (const unsigned int capacity : {100U, 20000U}) {
            const SP_BasicBuffer_ sp_buffer = run.succeeds(
                "BasicBuffer_", [&] { return SP_BasicBuffer_(new (std::nothrow) BasicBuffer_(capacity)); });
            if (!sp_buffer) continue;
            run.require(
                sp_buffer->capacity() == capacity || (run.hasStruckInCall() && sp_buffer->capacity() == 0),
                "the capacity");
        }
    });
    of.add("buffer: create one of a derived class", [](Messages_&, Run_& run) {
        run.succeeds("LargerBuffer_", [] { return SP_BasicBuffer_(new (std::nothrow) LargerBuffer_); });
        run.call("LargerBuffer_", [] {
            try {
                return SP_BasicBuffer_(new LargerBuffer_);
            } catch (const std::bad_alloc&) {
                return SP_BasicBuffer_();
            }
        });
    });
    of.add("buffer: create by a new that may throw", [](Messages_&, Run_& run) {
        bool hasThrown = false;
        const SP_BasicBuffer_ sp_buffer = run.call("BasicBuffer_", [&]() -> SP_BasicBuffer_ {
            try {
                return SP_BasicBuffer_(new BasicBuffer_(100));
            } catch (const std::bad_alloc&) {
                hasThrown = true;
            }
            return SP_BasicBuffer_();
        });
        run.require(hasThrown == sp_buffer.isNull(), "neither a buffer nor an exception");
        run.require(!hasThrown || run.hasStruckInCall(), "throws with all its memory");
    });
    of.add("buffer: copy", [](Messages_&, Run_& run) {
        for (const unsigned int capacity : {100U, 20000U}) {
            const SP_BasicBuffer_ sp_from = bufferOf("some bytes", 10, capacity);
            const SP_BasicBuffer_ sp_copy = run.succeeds("copy", [&] { return sp_from->copy(); });
            run.require(!sp_copy || bytesOf(sp_copy) == "some bytes", "the bytes");
        }
    });
    of.add("buffer: print", [](Messages_& s, Run_& run) {
        const SP_BasicBuffer_ sp_buffer = bufferOf(std::string(100, 'x'));
        run.succeeds("print", [&] {
            return sp_buffer->print(&s.m_stream, 100, 2, 16, "a prefix that is not short at all ");
        });
    });
}

}  // namespace

void addMessageScenarios(Scenarios_& list) {
    Of_ of(list);
    addTexts(of);
    addElements(of);
    addReading(of);
    addPrinting(of);
    addBuffers(of);
}
