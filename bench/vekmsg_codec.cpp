// How long does it take to encode a populated tree and to decode one and read every value, and does either
// ask the heap for memory? For the payloads see codec_payloads.h.

#include "codec_payloads.h"
#include "message/message_binary.h"

namespace {

constexpr VekmsgTag_ kRootTag = 5;
constexpr VekmsgTag_ kFirstLeafTag = 10;
constexpr VekmsgTag_ kFirstBranchTag = 100;

const Utf8Char_* utf8(const char* p_text) {
    return reinterpret_cast<const Utf8Char_*>(p_text);
}

void addTenLeaves(VekmsgElement_& parent, const char* p_text) {
    for (unsigned int i = 0; i < kLeaves; ++i) {
        const VekmsgTag_ tag = kFirstLeafTag + i;
        switch (kindOf(i)) {
            case Kind_::Number:
                parent.setSubElementValue(tag, i * 1000U + 1);
                break;
            case Kind_::Text:
                parent.setSubElementValue(tag, utf8(p_text));
                break;
            case Kind_::Bytes:
                parent.setSubElementValue(tag, kBytes, kByteCount);
                break;
        }
    }
}

SP_VekmsgElement_ makeTree(const VekMessageBinary_& message, Payload_ payload) {
    SP_VekmsgElement_ sp_root = message.createElement(kRootTag);
    if (payload == OneNumber) sp_root->setValue(kOneNumber);
    if (payload == TenLeaves) addTenLeaves(*sp_root, textOf(payload));
    for (unsigned int i = 0; payload == HundredLeaves && i < kBranches; ++i) {
        const SP_VekmsgElement_ sp_branch = message.createElement(kFirstBranchTag + i);
        addTenLeaves(*sp_branch, textOf(payload));
        sp_root->addSubelements(sp_branch);
    }
    return sp_root;
}

SP_VekMessageBinary_ makeMessage(Payload_ payload) {
    SP_VekMessageBinary_ sp_message(new (std::nothrow) VekMessageBinary_);
    sp_message->setDestination(utf8("receiver"));
    sp_message->setSource(utf8("sender"));
    sp_message->setPayload(makeTree(*sp_message, payload));
    return sp_message;
}

unsigned long readAll(VekmsgElement_& element);

unsigned long readOne(VekmsgElement_& element) {
    unsigned int number = 0;
    const Utf8Char_* p_text = nullptr;
    const unsigned char* p_bytes = nullptr;
    unsigned int length = 0;
    const VekmsgTag_ tag = element.getTag();
    if (tag >= kFirstBranchTag) return readAll(element);
    switch (kindOf(tag - kFirstLeafTag)) {
        case Kind_::Number:
            return element.getValue(number) ? number : 0;
        case Kind_::Text:
            return element.getValue(p_text) ? p_text[0] : 0;
        default:
            return element.getValue(p_bytes, length) ? length : 0;
    }
}

unsigned long readAll(VekmsgElement_& element) {
    unsigned long sum = 0;
    element.querySubelements(VEKMSGTAG_ANY);
    for (SP_VekmsgElement_ sp_child = element.getNextSubelement(); sp_child;
         sp_child = element.getNextSubelement())
        sum += readOne(*sp_child);
    return sum;
}

}  // namespace

void encode(benchmark::State& state) {
    const SP_VekMessageBinary_ sp_message = makeMessage(static_cast<Payload_>(state.range(0)));
    SP_BasicBuffer_ sp_first;
    const unsigned int size = sp_message->serialize(sp_first);
    measureCodec(state, size, size, [&] {
        SP_BasicBuffer_ sp_buffer;
        const unsigned long encoded = sp_message->serialize(sp_buffer);
        benchmark::DoNotOptimize(sp_buffer->data());
        return encoded;
    });
}

void decode(benchmark::State& state) {
    const auto payload = static_cast<Payload_>(state.range(0));
    SP_BasicBuffer_ sp_encoded;
    makeMessage(payload)->serialize(sp_encoded);
    const unsigned int length = sp_encoded->dataLength();
    const unsigned int offset = sp_encoded->dataOffset();
    measureCodec(state, length, sumOf(payload), [&]() -> unsigned long {
        sp_encoded->setDataArea(offset, length);
        SP_VekMessageBinary_ sp_message(new (std::nothrow) VekMessageBinary_);
        sp_message->deserialize(sp_encoded);
        const SP_VekmsgElement_ sp_root = sp_message->getPayload();
        unsigned int number = 0;
        if (payload != OneNumber) return readAll(*sp_root);
        return sp_root->getValue(number) ? number : 0;
    });
}

VEKMSG_CODEC_BENCHMARKS;
