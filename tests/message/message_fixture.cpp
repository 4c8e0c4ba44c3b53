#include "message/message_fixture.h"

#include <pthread.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "support/allocation_failure.h"
#include "support/wire_bytes.h"

namespace {

Bytes_ number16(unsigned int value) {
    return bytesOf(wire::u16(value));
}

void* runBody(void* p_body) {
    (*static_cast<const std::function<void()>*>(p_body))();
    return nullptr;
}

}  // namespace

Bytes_ operator+(const Bytes_& a, const Bytes_& b) {
    Bytes_ sum = a;
    sum.insert(sum.end(), b.begin(), b.end());
    return sum;
}

Bytes_ bytesOf(const std::string& text) {
    return Bytes_(text.begin(), text.end());
}

Bytes_ item(unsigned int tag, unsigned int type, const Bytes_& value) {
    return bytesOf(wire::item(tag, type, std::string(value.begin(), value.end())));
}

Bytes_ element(unsigned int tag, unsigned int type, const Bytes_& value) {
    return item(tag, 0, item(0, type, value));
}

Bytes_ uintElement(unsigned int tag, unsigned char value) {
    return element(tag, VEKMSG_UINT, {0, 0, 0, value});
}

Bytes_ nestedElements(unsigned int levels) {
    Bytes_ bytes;
    for (unsigned int size = 12 * (levels - 1); size != 0; size -= 12) {
        const Bytes_ headers = number16(7) + number16(0) + number16(size + 6) + number16(0) +
                               number16(VEKMSG_COMPLEX) + number16(size);
        bytes.insert(bytes.end(), headers.begin(), headers.end());
    }
    return bytes + element(7, VEKMSG_BINARY, {});
}

Bytes_ header(const std::string& destination, const std::string& source, unsigned int timeToLive,
              const std::string& schema) {
    return bytesOf(wire::header(destination, source, timeToLive, schema));
}

SP_BasicBuffer_ bufferOf(const Bytes_& bytes, unsigned int headerRoom) {
    // Capacities up to 9400 bytes share one size of storage; with that one, the data ends where it ends.
    const auto length = static_cast<unsigned int>(bytes.size());
    const unsigned int capacity = std::max(headerRoom + length, 9400U);
    SP_BasicBuffer_ sp_buffer(new BasicBuffer_(capacity));
    sp_buffer->setDataArea(capacity - length, length);
    if (length != 0) std::memcpy(sp_buffer->data(), bytes.data(), length);
    return sp_buffer;
}

Bytes_ dataOf(const SP_BasicBuffer_& sp_buffer) {
    return Bytes_(sp_buffer->data(), sp_buffer->data() + sp_buffer->dataLength());
}

SP_VekmsgElementBinary_ newElement(VekmsgTag_ tag) {
    return SP_VekmsgElementBinary_(VekMessageBinary_::createElement(tag, nullptr));
}

SP_VekmsgElementBinary_ newBinary(VekmsgTag_ tag, const Bytes_& value) {
    SP_VekmsgElementBinary_ sp_element = newElement(tag);
    static const unsigned char s_nothing = 0;
    sp_element->setValue(value.empty() ? &s_nothing : value.data(), static_cast<unsigned int>(value.size()));
    return sp_element;
}

Bytes_ encoded(const VekmsgElementBinary_& element) {
    Bytes_ bytes(element.getMaxSerializationSize());
    const auto size = static_cast<unsigned int>(bytes.size());
    EXPECT_EQ(element.serialize(bytes.data() + size, size), size);
    return bytes;
}

unsigned int deserialize(VekmsgElementBinary_& element, const Bytes_& bytes) {
    const std::unique_ptr<unsigned char[]> sp_bytes(new unsigned char[bytes.size()]);
    std::copy(bytes.begin(), bytes.end(), sp_bytes.get());
    return element.deserialize(sp_bytes.get(), static_cast<unsigned int>(bytes.size()));
}

std::string textOf(const VekmsgElement_& element) {
    const Utf8Char_* p_text = nullptr;
    return element.getValue(p_text) ? plain(p_text) : "no text";
}

unsigned int uintOf(const VekmsgElement_& element) {
    unsigned int value = 0;
    EXPECT_TRUE(element.getValue(value));
    return value;
}

Bytes_ binaryOf(const VekmsgElement_& element) {
    const unsigned char* p_value = nullptr;
    unsigned int length = 0;
    EXPECT_TRUE(element.getValue(p_value, length));
    return Bytes_(p_value, p_value + length);
}

Record_ error(const std::string& signature, const std::string& text) {
    return Record_(3, "vekmsg_binary.cpp", signature, text);
}

Record_ warning(const std::string& signature, const std::string& text) {
    return Record_(4, "vekmsg_binary.cpp", signature, text);
}

const Record_ kCantCreate = error("static SP_VekmsgElement_ VekMessageBinary_::createElement(NoMemory_)",
                                  "VekMessageBinary_::createElement() Can't create vekMessageBinary_");

#ifdef __clang__  // spells out where a nested type belongs
const char* const kDeserializeSubElements =
    "bool VekmsgElementBinary_::deserialize(const VekmsgElementBinary_::Item_&, "
    "SubElements_&)";
#else
const char* const kDeserializeSubElements =
    "bool VekmsgElementBinary_::deserialize(const Item_&, SubElements_&)";
#endif

void onUsualStack(const std::function<void()>& body) {
    pthread_attr_t attributes;
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, 8 * 1024 * 1024), 0);
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, &attributes, runBody, const_cast<std::function<void()>*>(&body)), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
}

unsigned int failEachAllocation(const std::function<bool(unsigned int number)>& scenario) {
    for (unsigned int number = 1; number <= 1000; ++number) {
        bool hasStruck = false;
        inFreshThread([&] { hasStruck = scenario(number); });
        if (!hasStruck) return number - 1;
    }
    ADD_FAILURE() << "no end of allocations";
    return 0;
}
