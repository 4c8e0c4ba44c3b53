// How long does it take to encode a populated tree and to decode one and read every value, alone and as a
// whole message, and does either ask the heap for memory? For the payloads see codec_payloads.h.

#include <vector>

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

unsigned long readNumber(const VekmsgElement_& parent, VekmsgTag_ tag) {
    unsigned int number = 0;
    return parent.getSubElementValue(tag, number) ? number : 0;
}
unsigned long readText(const VekmsgElement_& parent, VekmsgTag_ tag) {
    const Utf8Char_* p_text = nullptr;
    return parent.getSubElementValue(tag, p_text) ? p_text[0] : 0;
}
unsigned long readBytes(const VekmsgElement_& parent, VekmsgTag_ tag) {
    const unsigned char* p_bytes = nullptr;
    unsigned int length = 0;
    return parent.getSubElementValue(tag, p_bytes, length) ? length : 0;
}

unsigned long readTen(const VekmsgElement_& parent) {
    unsigned long sum = 0;
    VekmsgTag_ tag = kFirstLeafTag;
    for (int i = 0; i < 3; ++i, tag += 3)
        sum += readNumber(parent, tag) + readText(parent, tag + 1) + readBytes(parent, tag + 2);
    return sum + readNumber(parent, tag);
}

unsigned long readHundred(VekmsgElement_& root) {
    unsigned long sum = 0;
    root.querySubelements(VEKMSGTAG_ANY);
    while (const SP_VekmsgElement_ sp_branch = root.getNextSubelement()) sum += readTen(*sp_branch);
    return sum;
}

unsigned long readAll(VekmsgElement_& root, Payload_ payload) {
    unsigned int number = 0;
    switch (payload) {
        case OneNumber:
            return root.getValue(number) ? number : 0;
        case TenLeaves:
            return readTen(root);
        default:
            return readHundred(root);
    }
}

}  // namespace

// The element tree alone, in a buffer that is there: what the other codecs do.

void encode(benchmark::State& state) {
    const SP_VekMessageBinary_ sp_message = makeMessage(static_cast<Payload_>(state.range(0)));
    const SP_VekmsgElementBinary_ sp_root = sp_message->getPayload();
    const unsigned int size = sp_root->getMaxSerializationSize();
    std::vector<unsigned char> buffer(size);
    measureCodec(state, size, size, [&]() -> unsigned long {
        const unsigned int needed = sp_root->getMaxSerializationSize();
        return needed <= size ? sp_root->serialize(buffer.data() + size, size) : 0;
    });
}

void decode(benchmark::State& state) {
    const auto payload = static_cast<Payload_>(state.range(0));
    const SP_VekMessageBinary_ sp_message = makeMessage(payload);
    const SP_VekmsgElementBinary_ sp_original = sp_message->getPayload();
    const unsigned int size = sp_original->getMaxSerializationSize();
    std::vector<unsigned char> buffer(size);
    sp_original->serialize(buffer.data() + size, size);
    measureCodec(state, size, sumOf(payload), [&]() -> unsigned long {
        const SP_VekmsgElementBinary_ sp_root(new (std::nothrow)
                                                  VekmsgElementBinary_(VEKMSGTAG_ANY, sp_message.get()));
        return sp_root->deserialize(buffer.data(), size) == size ? readAll(*sp_root, payload) : 0;
    });
}

// What stands between an application and its terminal: with names, schema and the rest of the message around
// the tree, and a new buffer or message each time.

void encodeMessage(benchmark::State& state) {
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

void decodeMessage(benchmark::State& state) {
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
        return readAll(*sp_root, payload);
    });
}

VEKMSG_CODEC_BENCHMARKS;
BENCHMARK(encodeMessage)->Arg(OneNumber)->Arg(TenLeaves)->Arg(HundredLeaves);
BENCHMARK(decodeMessage)->Arg(OneNumber)->Arg(TenLeaves)->Arg(HundredLeaves);
