#include "libcpp/basic_buffer.h"

#include <cstring>
#include <ostream>

#include "foundation/byte_dump.h"
#include "foundation/exception_barrier.h"
#include "foundation/free_list.h"

namespace libcpp {

namespace {

// One size of storage serves nearly every buffer of the library, whatever capacity was asked.
constexpr unsigned int kPooledStorage = 9400;
using StorageList_ = FreeList_<kPooledStorage, 256>;
using ObjectMemory_ = FromFreeList_<BasicBuffer_, 256>;

}  // namespace

[[gnu::hot]] BasicBuffer_::BasicBuffer_(unsigned int capacity) {
    if (capacity == 0) return;
    m_storageSize = capacity <= kPooledStorage ? kPooledStorage : capacity;
    void* p_storage = m_storageSize == kPooledStorage ? StorageList_::take() : takeFromHeap(capacity);
    m_p_storage = static_cast<unsigned char*>(p_storage);
    if (m_p_storage != nullptr) m_capacity = capacity;
}

[[gnu::hot]] BasicBuffer_::~BasicBuffer_() {
    if (m_storageSize == kPooledStorage) {
        StorageList_::give(m_p_storage);
    } else {
        ::operator delete(m_p_storage);
    }
}

void* BasicBuffer_::operator new(std::size_t size) {
    return ObjectMemory_::operator new(size);
}

void* BasicBuffer_::operator new(std::size_t size, const std::nothrow_t& tag) noexcept {
    return ObjectMemory_::operator new(size, tag);
}

void BasicBuffer_::operator delete(void* p_memory, std::size_t size) noexcept {
    ObjectMemory_::operator delete(p_memory, size);
}

bool BasicBuffer_::setDataArea(unsigned int offset, unsigned int length) {
    if (offset > m_capacity || length > m_capacity - offset) return false;
    m_dataOffset = offset;
    m_dataLength = length;
    return true;
}

bool BasicBuffer_::extendDataIntoHeader(int count) {
    if (count >= 0 ? static_cast<unsigned int>(count) > headerRoom()
                   : 0U - static_cast<unsigned int>(count) > m_dataLength)
        return false;
    m_dataOffset -= static_cast<unsigned int>(count);
    m_dataLength += static_cast<unsigned int>(count);
    return true;
}

bool BasicBuffer_::extendDataIntoTrailer(int count) {
    if (count >= 0 ? static_cast<unsigned int>(count) > trailerRoom()
                   : 0U - static_cast<unsigned int>(count) > m_dataLength)
        return false;
    m_dataLength += static_cast<unsigned int>(count);
    return true;
}

SP_BasicBuffer_ BasicBuffer_::copy() const {
    SP_BasicBuffer_ sp_copy(new (std::nothrow) BasicBuffer_(m_capacity));
    if (!sp_copy || sp_copy->m_capacity != m_capacity) return SP_BasicBuffer_();
    sp_copy->setDataArea(m_dataOffset, m_dataLength);
    if (m_dataLength != 0) std::memcpy(sp_copy->data(), data(), m_dataLength);
    return sp_copy;
}

bool BasicBuffer_::print(std::ostream* p_stream, unsigned int length, unsigned int group,
                         unsigned int perLine, const char* p_prefix) const {
    if (p_stream == nullptr || length > m_dataLength) return false;
    static const unsigned char s_nothing = 0;
    try {
        if (!printBytestream(*p_stream, m_capacity != 0 ? data() : &s_nothing, length, group, perLine,
                             p_prefix, nullptr))
            return false;
        p_stream->put('\n');
        return true;
    }
    VEKMSG_RETURN_ON_EXCEPTION(false)
}

}  // namespace libcpp
