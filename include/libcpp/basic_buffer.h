#ifndef LIBCPP_BASIC_BUFFER_H
#define LIBCPP_BASIC_BUFFER_H

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <new>

#include "libcpp/basic_object.h"
#include "libcpp/smart_pointer.h"

namespace libcpp {

class BasicBuffer_;
using SP_BasicBuffer_ = SmartPointer_<BasicBuffer_>;

/// A block of storage of fixed capacity with one data area inside it.
///
///     | header room |    data    | trailer room |
///     ^ storage()   ^ data()                    ^ storage() + capacity()
///
/// Bytes are written into a room first and then become data by moving the border, so that headers can be put
/// in front of data, and received bytes behind it, without copying. Storage is never cleared. Moving a border
/// copies nothing.
class VEKMSG_API BasicBuffer_ : public BasicObject_ {
public:
    /// The capacity is 0 when the storage cannot be allocated. The data area is empty, at the start.
    explicit BasicBuffer_(unsigned int capacity);
    BasicBuffer_(const BasicBuffer_&) = delete;
    BasicBuffer_& operator=(const BasicBuffer_&) = delete;
    ~BasicBuffer_() override;

    static void* operator new(std::size_t size);
    static void* operator new(std::size_t size, const std::nothrow_t&) noexcept;
    static void operator delete(void* p_memory, std::size_t size) noexcept;

    unsigned char* storage() const noexcept { return m_p_storage; }
    unsigned char* data() const noexcept { return m_p_storage + m_dataOffset; }
    unsigned int capacity() const noexcept { return m_capacity; }
    unsigned int dataOffset() const noexcept { return m_dataOffset; }
    unsigned int dataLength() const noexcept { return m_dataLength; }
    unsigned int headerRoom() const noexcept { return m_dataOffset; }
    unsigned int trailerRoom() const noexcept { return m_capacity - m_dataOffset - m_dataLength; }

    /// False, with nothing changed, when the area would not lie inside the capacity.
    bool setDataArea(unsigned int offset, unsigned int length);

    /// Moves the start of the data `count` bytes towards the start of the storage; a negative count removes
    /// bytes from the front of the data. False, with nothing changed, when the header room or the data is too
    /// small.
    bool extendDataIntoHeader(int count);

    /// Moves the end of the data `count` bytes towards the end of the storage; a negative count removes bytes
    /// from the end of the data. False, with nothing changed, when the trailer room or the data is too small.
    bool extendDataIntoTrailer(int count);

    /// A new buffer of the same capacity with the same data at the same place. The rooms are not copied. Null
    /// when memory is short.
    SP_BasicBuffer_ copy() const;

    /// Dumps the first `length` data bytes in hexadecimal: `group` bytes without a blank between them,
    /// `perLine` bytes a line, each line behind `p_prefix` (null: nothing) and closed by a line end. False,
    /// with nothing written, when there is no stream or no such length, or `group` or `perLine` is 0.
    bool print(std::ostream* p_stream, unsigned int length, unsigned int group, unsigned int perLine,
               const char* p_prefix) const;

protected:
    std::uint32_t m_storageSize = 0;  // what was really allocated: the capacity that was asked for, or more
    unsigned char* m_p_storage = nullptr;
    std::uint32_t m_capacity = 0;
    std::uint32_t m_dataOffset = 0;
    std::uint32_t m_dataLength = 0;  // m_dataOffset + m_dataLength <= m_capacity always
};

}  // namespace libcpp

using libcpp::BasicBuffer_;
using libcpp::SP_BasicBuffer_;

#endif
