#include "libcpp/basic_buffer.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <sstream>
#include <string>

#include "support/allocation_failure.h"

namespace {

/// Reaches the fields, to see where they lie.
class OpenBuffer_ : public BasicBuffer_ {
public:
    using BasicBuffer_::BasicBuffer_;

    std::size_t ownFieldPlace() const { return place(&OpenBuffer_::m_storageSize); }
    std::size_t storagePlace() const { return place(&OpenBuffer_::m_p_storage); }
    std::size_t capacityPlace() const { return place(&OpenBuffer_::m_capacity); }
    std::size_t offsetPlace() const { return place(&OpenBuffer_::m_dataOffset); }
    std::size_t lengthPlace() const { return place(&OpenBuffer_::m_dataLength); }

private:
    template <class Field>
    std::size_t place(Field BasicBuffer_::*p_field) const {
        return static_cast<std::size_t>(reinterpret_cast<const char*>(&(this->*p_field)) -
                                        reinterpret_cast<const char*>(this));
    }
};

/// The data area as one number pair, so that a test sees at once that nothing has changed.
struct Area_ {
    unsigned int m_offset;
    unsigned int m_length;
    bool operator==(const Area_& other) const {
        return m_offset == other.m_offset && m_length == other.m_length;
    }
};

std::ostream& operator<<(std::ostream& stream, const Area_& area) {
    return stream << area.m_offset << '+' << area.m_length;
}

Area_ area(const BasicBuffer_& buffer) {
    return Area_{buffer.dataOffset(), buffer.dataLength()};
}

/// A buffer of 100 bytes with 30 bytes of data behind 20 of header room.
class BasicBuffer : public testing::Test {
protected:
    BasicBuffer() : m_buffer(100) { m_buffer.setDataArea(20, 30); }

    BasicBuffer_ m_buffer;
};

void fill(BasicBuffer_& buffer, const std::string& text) {
    ASSERT_TRUE(buffer.setDataArea(2, static_cast<unsigned int>(text.size())));
    std::memcpy(buffer.data(), text.data(), text.size());
}

std::string dataOf(const BasicBuffer_& buffer) {
    return std::string(reinterpret_cast<const char*>(buffer.data()), buffer.dataLength());
}

}  // namespace

TEST_F(BasicBuffer, aNewOneIsEmptyAtItsStart) {
    const BasicBuffer_ buffer(64);

    EXPECT_EQ(buffer.capacity(), 64U);
    EXPECT_EQ(area(buffer), (Area_{0, 0}));
    EXPECT_EQ(buffer.headerRoom(), 0U);
    EXPECT_EQ(buffer.trailerRoom(), 64U);
    EXPECT_EQ(buffer.data(), buffer.storage());
}

TEST_F(BasicBuffer, itsRoomsAndDataMakeUpTheCapacity) {
    EXPECT_EQ(m_buffer.headerRoom(), 20U);
    EXPECT_EQ(m_buffer.trailerRoom(), 50U);
    EXPECT_EQ(m_buffer.data(), m_buffer.storage() + 20);
}

TEST_F(BasicBuffer, itKeepsTheCapacityThatWasAskedForBelowAtAndAboveTheCommonSize) {
    for (const unsigned int capacity : {1U, 9399U, 9400U, 9401U, 70000U}) {
        BasicBuffer_ buffer(capacity);
        EXPECT_EQ(buffer.capacity(), capacity);
        std::memset(buffer.storage(), 0xA5, capacity);
        EXPECT_EQ(buffer.storage()[capacity - 1], 0xA5);
    }
}

TEST_F(BasicBuffer, theDataAreaMayLieAnywhereInsideTheCapacity) {
    EXPECT_TRUE(m_buffer.setDataArea(100, 0));
    EXPECT_EQ(m_buffer.headerRoom(), 100U);
    EXPECT_EQ(m_buffer.trailerRoom(), 0U);

    EXPECT_TRUE(m_buffer.setDataArea(0, 0));
    EXPECT_EQ(m_buffer.trailerRoom(), 100U);

    EXPECT_TRUE(m_buffer.setDataArea(0, 100));
    EXPECT_EQ(area(m_buffer), (Area_{0, 100}));
}

TEST_F(BasicBuffer, aDataAreaBeyondTheCapacityIsRefused) {
    EXPECT_FALSE(m_buffer.setDataArea(101, 0));
    EXPECT_FALSE(m_buffer.setDataArea(0, 101));
    EXPECT_FALSE(m_buffer.setDataArea(60, 41));

    EXPECT_EQ(area(m_buffer), (Area_{20, 30}));
}

TEST_F(BasicBuffer, aDataAreaWhoseEndWrapsIsRefused) {
    EXPECT_FALSE(m_buffer.setDataArea(10, UINT_MAX - 9));
    EXPECT_FALSE(m_buffer.setDataArea(UINT_MAX, 1));
    EXPECT_FALSE(m_buffer.setDataArea(UINT_MAX, UINT_MAX));

    EXPECT_EQ(area(m_buffer), (Area_{20, 30}));
}

TEST_F(BasicBuffer, extendingIntoTheHeaderMovesTheStart) {
    EXPECT_TRUE(m_buffer.extendDataIntoHeader(15));
    EXPECT_EQ(area(m_buffer), (Area_{5, 45}));

    EXPECT_TRUE(m_buffer.extendDataIntoHeader(5));
    EXPECT_EQ(area(m_buffer), (Area_{0, 50}));

    EXPECT_TRUE(m_buffer.extendDataIntoHeader(0));
    EXPECT_EQ(area(m_buffer), (Area_{0, 50}));
}

TEST_F(BasicBuffer, aNegativeCountTakesBytesFromTheFront) {
    EXPECT_TRUE(m_buffer.extendDataIntoHeader(-10));
    EXPECT_EQ(area(m_buffer), (Area_{30, 20}));

    EXPECT_TRUE(m_buffer.extendDataIntoHeader(-20));
    EXPECT_EQ(area(m_buffer), (Area_{50, 0}));
}

TEST_F(BasicBuffer, moreThanTheHeaderRoomIsRefused) {
    EXPECT_FALSE(m_buffer.extendDataIntoHeader(21));
    EXPECT_FALSE(m_buffer.extendDataIntoHeader(INT_MAX));

    EXPECT_EQ(area(m_buffer), (Area_{20, 30}));
}

TEST_F(BasicBuffer, moreThanTheDataCannotBeTakenFromTheFront) {
    EXPECT_FALSE(m_buffer.extendDataIntoHeader(-31));
    EXPECT_FALSE(m_buffer.extendDataIntoHeader(INT_MIN));
    EXPECT_FALSE(m_buffer.extendDataIntoHeader(INT_MIN + 1));

    EXPECT_EQ(area(m_buffer), (Area_{20, 30}));
}

TEST_F(BasicBuffer, extendingIntoTheTrailerMovesTheEnd) {
    EXPECT_TRUE(m_buffer.extendDataIntoTrailer(49));
    EXPECT_EQ(area(m_buffer), (Area_{20, 79}));

    EXPECT_TRUE(m_buffer.extendDataIntoTrailer(1));
    EXPECT_EQ(area(m_buffer), (Area_{20, 80}));

    EXPECT_TRUE(m_buffer.extendDataIntoTrailer(0));
    EXPECT_EQ(area(m_buffer), (Area_{20, 80}));
}

TEST_F(BasicBuffer, aNegativeCountTakesBytesFromTheEnd) {
    EXPECT_TRUE(m_buffer.extendDataIntoTrailer(-30));

    EXPECT_EQ(area(m_buffer), (Area_{20, 0}));
}

TEST_F(BasicBuffer, moreThanTheTrailerRoomIsRefused) {
    EXPECT_FALSE(m_buffer.extendDataIntoTrailer(51));
    EXPECT_FALSE(m_buffer.extendDataIntoTrailer(INT_MAX));

    EXPECT_EQ(area(m_buffer), (Area_{20, 30}));
}

TEST_F(BasicBuffer, moreThanTheDataCannotBeTakenFromTheEnd) {
    EXPECT_FALSE(m_buffer.extendDataIntoTrailer(-31));
    EXPECT_FALSE(m_buffer.extendDataIntoTrailer(INT_MIN));
    EXPECT_FALSE(m_buffer.extendDataIntoTrailer(INT_MIN + 1));

    EXPECT_EQ(area(m_buffer), (Area_{20, 30}));
}

TEST_F(BasicBuffer, movingBordersLeavesTheBytesWhereTheyAre) {
    fill(m_buffer, "abcdef");

    m_buffer.extendDataIntoHeader(-2);
    m_buffer.extendDataIntoTrailer(-1);

    EXPECT_EQ(dataOf(m_buffer), "cde");
}

TEST_F(BasicBuffer, aCopyHoldsTheSameDataInStorageOfItsOwn) {
    fill(m_buffer, "abcdef");

    const SP_BasicBuffer_ sp_copy = m_buffer.copy();

    ASSERT_TRUE(sp_copy);
    EXPECT_EQ(dataOf(*sp_copy), "abcdef");
    EXPECT_NE(sp_copy->storage(), m_buffer.storage());
    EXPECT_EQ(sp_copy->capacity(), 100U);
    EXPECT_EQ(area(*sp_copy), (Area_{2, 6}));
}

TEST_F(BasicBuffer, anEmptyOneIsCopied) {
    const SP_BasicBuffer_ sp_copy = BasicBuffer_(0).copy();

    ASSERT_TRUE(sp_copy);
    EXPECT_EQ(sp_copy->dataLength(), 0U);
}

TEST_F(BasicBuffer, printDumpsTheFirstDataBytesInGroups) {
    fill(m_buffer, "abcdefghijklmnopqr");
    std::ostringstream stream;

    EXPECT_TRUE(m_buffer.print(&stream, 18, 2, 16, nullptr));
    EXPECT_TRUE(m_buffer.print(&stream, 3, 1, 16, "> "));

    EXPECT_EQ(stream.str(), "6162 6364 6566 6768 696a 6b6c 6d6e 6f70\n7172\n> 61 62 63\n");
}

TEST_F(BasicBuffer, printOfNothingIsAnEmptyLine) {
    std::ostringstream stream;

    EXPECT_TRUE(m_buffer.print(&stream, 0, 2, 16, nullptr));
    EXPECT_TRUE(BasicBuffer_(0).print(&stream, 0, 2, 16, nullptr));

    EXPECT_EQ(stream.str(), "\n\n");
}

TEST_F(BasicBuffer, printWithoutMemoryForALineFails) {
    fill(m_buffer, "abcdefghijklmnopqr");
    std::ostringstream stream;
    bool isPrinted = true;
    {
        const AllocationFailure_ failure(1);
        EXPECT_NO_THROW(isPrinted = m_buffer.print(&stream, 18, 2, 16, nullptr));
        EXPECT_TRUE(failure.hasStruck());
    }

    EXPECT_FALSE(isPrinted);
    EXPECT_EQ(stream.str(), "");
}

TEST_F(BasicBuffer, printRefusesMoreThanTheDataAndCountsOfZero) {
    std::ostringstream stream;

    EXPECT_FALSE(m_buffer.print(nullptr, 1, 2, 16, nullptr));
    EXPECT_FALSE(m_buffer.print(&stream, 31, 2, 16, nullptr));
    EXPECT_FALSE(m_buffer.print(&stream, 30, 0, 16, nullptr));
    EXPECT_FALSE(m_buffer.print(&stream, 30, 2, 0, nullptr));

    EXPECT_EQ(stream.str(), "");
}

TEST_F(BasicBuffer, withoutStorageItsCapacityIsZero) {
    inFreshThread([] {
        for (const unsigned int capacity : {100U, 9400U, 70000U}) {
            const AllocationFailure_ failure(1);
            BasicBuffer_ buffer(capacity);
            EXPECT_TRUE(failure.hasStruck());
            EXPECT_EQ(buffer.capacity(), 0U);
            EXPECT_EQ(buffer.trailerRoom(), 0U);
            EXPECT_FALSE(buffer.setDataArea(0, 1));
            EXPECT_TRUE(buffer.setDataArea(0, 0));
            EXPECT_FALSE(buffer.extendDataIntoTrailer(1));
        }
    });
}

TEST_F(BasicBuffer, aCreationWithoutMemoryIsNull) {
    inFreshThread([] {
        const AllocationFailure_ failure(1);
        EXPECT_EQ(new (std::nothrow) BasicBuffer_(100), nullptr);
        EXPECT_TRUE(failure.hasStruck());
    });
}

TEST_F(BasicBuffer, aThrowingCreationWithoutMemoryThrows) {
    inFreshThread([] {
        const AllocationFailure_ failure(1);
        EXPECT_THROW(new BasicBuffer_(100), std::bad_alloc);
    });
}

TEST_F(BasicBuffer, aCopyIsNullWhicheverAllocationFails) {
    for (const unsigned int number : {1U, 2U}) {
        inFreshThread([number] {
            BasicBuffer_ buffer(70000);
            buffer.setDataArea(0, 5);
            const AllocationFailure_ failure(number);
            EXPECT_TRUE(buffer.copy().isNull());
            EXPECT_TRUE(failure.hasStruck());
        });
    }
}

TEST_F(BasicBuffer, aCopyOfOneWithoutDataIsNullWhicheverAllocationFails) {
    for (const unsigned int number : {1U, 2U}) {
        inFreshThread([number] {
            const BasicBuffer_ buffer(70000);
            const AllocationFailure_ failure(number);
            EXPECT_TRUE(buffer.copy().isNull());
            EXPECT_TRUE(failure.hasStruck());
        });
    }
}

TEST_F(BasicBuffer, manyOfAllSizesCanLiveAtOnceAndComeBack) {
    for (int round = 0; round < 3; ++round) {
        SP_BasicBuffer_ buffers[600];
        for (unsigned int i = 0; i < 600; ++i) {
            buffers[i] = new BasicBuffer_(i * 40);
            ASSERT_EQ(buffers[i]->capacity(), i * 40);
            if (i != 0) std::memset(buffers[i]->storage(), static_cast<int>(i), i * 40);
        }
    }
}

TEST_F(BasicBuffer, itsFieldsLieInTheAgreedOrderBehindTheBase) {
    const OpenBuffer_ buffer(1);
    constexpr std::size_t baseEnd = sizeof(void*) + sizeof(std::uint32_t);

    EXPECT_EQ(buffer.ownFieldPlace(), baseEnd);
    EXPECT_EQ(buffer.storagePlace(), baseEnd + sizeof(std::uint32_t));
    EXPECT_EQ(buffer.capacityPlace(), buffer.storagePlace() + sizeof(void*));
    EXPECT_EQ(buffer.offsetPlace(), buffer.capacityPlace() + 4);
    EXPECT_EQ(buffer.lengthPlace(), buffer.offsetPlace() + 4);
    EXPECT_LE(buffer.lengthPlace() + 4, sizeof(BasicBuffer_));
}

TEST_F(BasicBuffer, aDerivedClassHasMemoryOfItsOwnSize) {
    struct Wide_ : BasicBuffer_ {
        using BasicBuffer_::BasicBuffer_;
        unsigned char m_more[200] = {};
    };

    const SmartPointer_<Wide_> sp_wide(new (std::nothrow) Wide_(10));

    ASSERT_TRUE(sp_wide);
    std::memset(sp_wide->m_more, 0x5A, sizeof(sp_wide->m_more));
    EXPECT_EQ(sp_wide->capacity(), 10U);
}

TEST_F(BasicBuffer, countsAtTheEndsOfTheirRangeAreRefused) {
    for (const int count : {INT_MAX, INT_MIN, INT_MIN + 1}) {
        EXPECT_FALSE(m_buffer.extendDataIntoHeader(count));
        EXPECT_FALSE(m_buffer.extendDataIntoTrailer(count));
    }
    EXPECT_FALSE(m_buffer.setDataArea(UINT_MAX, UINT_MAX));

    EXPECT_EQ(area(m_buffer), (Area_{20, 30}));
}
