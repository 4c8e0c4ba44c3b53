#include <gtest/gtest.h>

#include <cstring>
#include <type_traits>
#include <vector>

#include "vekmsg/vekmsg.h"

// Programs that were built against one version call through the slots of the virtual tables, so that their
// order must never change. On x86 a pointer to a virtual member holds 1 + the slot's distance from the
// table's start.

namespace {

using Slots_ = std::vector<std::size_t>;

template <class Member>
std::size_t slot(Member p_member) {
    std::ptrdiff_t place = 0;
    static_assert(sizeof(p_member) == 2 * sizeof(place), "a pointer to a member is two words");
    std::memcpy(&place, &p_member, sizeof(place));
    EXPECT_EQ(place & 1, 1) << "not virtual";
    return static_cast<std::size_t>(place - 1) / sizeof(void*);
}

/// Slots `first` to `last`.
Slots_ range(std::size_t first, std::size_t last) {
    Slots_ slots;
    for (std::size_t i = first; i <= last; ++i) slots.push_back(i);
    return slots;
}

// Two for the counting of owners, two for the destructor's entries.
constexpr std::size_t g_afterBase = 4;

}  // namespace

TEST(PublicSlots, ofBasicObject) {
    EXPECT_EQ((Slots_{slot(&BasicObject_::addRef), slot(&BasicObject_::removeRef)}), range(0, 1));
    EXPECT_TRUE(std::has_virtual_destructor<BasicObject_>::value);
}

TEST(PublicSlots, ofBasicObjectInTheClassesDerivedFromIt) {
    EXPECT_EQ((Slots_{slot(&VekmsgElement_::addRef), slot(&VekmsgElement_::removeRef)}), range(0, 1));
    EXPECT_EQ((Slots_{slot(&VekMessage_::addRef), slot(&VekMessage_::removeRef)}), range(0, 1));
}

TEST(PublicSlots, ofVekmsgAttribute) {
    using A = VekmsgAttribute_;

    const Slots_ slots = {slot(&A::getTag),
                          slot<bool (A::*)(const unsigned char*&) const>(&A::getValue),
                          slot<bool (A::*)(unsigned int&) const>(&A::getValue),
                          slot<bool (A::*)(const unsigned char*)>(&A::setValue),
                          slot<bool (A::*)(unsigned int)>(&A::setValue),
                          slot(&A::print)};

    EXPECT_EQ(slots, range(g_afterBase, g_afterBase + 5));
}

TEST(PublicSlots, ofVekmsgElement) {
    using E = VekmsgElement_;
    using Text_ = const Utf8Char_*;
    using Bytes_ = const unsigned char*;
    using SP_Attribute_ = SmartPointer_<VekmsgAttribute_>;

    const Slots_ slots = {slot(&E::getTag),
                          slot<bool (E::*)(unsigned int&) const>(&E::getValue),
                          slot<bool (E::*)(bool&) const>(&E::getValue),
                          slot<bool (E::*)(Text_&) const>(&E::getValue),
                          slot<bool (E::*)(Bytes_&, unsigned int&) const>(&E::getValue),
                          slot<bool (E::*)(unsigned int)>(&E::setValue),
                          slot<bool (E::*)(bool)>(&E::setValue),
                          slot<bool (E::*)(Text_)>(&E::setValue),
                          slot<bool (E::*)(Bytes_, unsigned int)>(&E::setValue),
                          slot(&E::findFirstMatchingSubelement),
                          slot(&E::querySubelements),
                          slot(&E::getNextSubelement),
                          slot(&E::endQuerySubelements),
                          slot(&E::addSubelements),
                          slot(&E::createAttribute),
                          slot<SP_Attribute_ (E::*)(VekmsgTag_) const>(&E::getAttribute),
                          slot<bool (E::*)(SP_Attribute_)>(&E::setAttribute),
                          slot(&E::print),
                          slot<bool (E::*)(VekmsgTag_, unsigned int&) const>(&E::getSubElementValue),
                          slot<bool (E::*)(VekmsgTag_, bool&) const>(&E::getSubElementValue),
                          slot<bool (E::*)(VekmsgTag_, Text_&) const>(&E::getSubElementValue),
                          slot<bool (E::*)(VekmsgTag_, Bytes_&, unsigned int&) const>(&E::getSubElementValue),
                          slot<bool (E::*)(VekmsgTag_, unsigned int)>(&E::setSubElementValue),
                          slot<bool (E::*)(VekmsgTag_, bool)>(&E::setSubElementValue),
                          slot<bool (E::*)(VekmsgTag_, Text_)>(&E::setSubElementValue),
                          slot<bool (E::*)(VekmsgTag_, Bytes_, unsigned int)>(&E::setSubElementValue),
                          slot<bool (E::*)(VekmsgTag_, unsigned char*&) const>(&E::getAttribute),
                          slot<bool (E::*)(VekmsgTag_, unsigned int&) const>(&E::getAttribute),
                          slot<bool (E::*)(VekmsgTag_, Bytes_)>(&E::setAttribute),
                          slot<bool (E::*)(VekmsgTag_, unsigned int)>(&E::setAttribute),
                          slot(&E::setTag)};

    EXPECT_EQ(slots, range(g_afterBase, g_afterBase + 30));
}

TEST(PublicSlots, ofVekMessage) {
    using M = VekMessage_;

    const Slots_ slots = {slot(&M::setDestination),
                          slot(&M::getDestination),
                          slot(&M::setSource),
                          slot(&M::getSource),
                          slot(&M::swapSourceDestination),
                          slot(&M::setTimeToLive),
                          slot(&M::getTimeToLive),
                          slot(&M::setPayloadSchema),
                          slot(&M::getPayloadSchema),
                          slot(&M::getPayloadSchemaType),
                          slot(&M::hasGoodPayload),
                          slot(&M::getPayload),
                          slot(&M::getRawPayload),
                          slot(&M::setPayload),
                          slot(&M::setRawPayload),
                          slot(&M::createElement),
                          slot(&M::print)};

    EXPECT_EQ(slots, range(g_afterBase, g_afterBase + 16));
}

TEST(PublicSlots, ofVekmsgFilter) {
    EXPECT_EQ(slot(&VekmsgFilter_::process), g_afterBase);
}

TEST(PublicSlots, ofVekmsgTerminal) {
    using T = VekmsgTerminal_;

    const Slots_ beforeDestructor = {slot(&T::open),
                                     slot(&T::close),
                                     slot(&T::createMessage),
                                     slot(&T::sendMessage),
                                     slot(&T::receiveMessage),
                                     slot(&T::isConnected),
                                     slot(&T::waitForMessage),
                                     slot(&T::fillPollFdArray),
                                     slot(&T::setSendFilter),
                                     slot(&T::setReceiveFilter),
                                     slot(&T::CreateMessagePrinter)};
    const Slots_ afterDestructor = {slot(&T::sendRawPayload), slot(&T::receiveRawPayload)};

    EXPECT_EQ(beforeDestructor, range(0, 10));
    EXPECT_TRUE(std::has_virtual_destructor<T>::value);
    EXPECT_EQ(afterDestructor, range(13, 14));
}

TEST(PublicLayout, aTerminalIsATableAndOnePointer) {
    EXPECT_EQ(sizeof(VekmsgTerminal_), 2 * sizeof(void*));
}

TEST(PublicLayout, abstractClassesHaveNoFieldsBesideTheCount) {
    EXPECT_EQ(sizeof(VekMessage_), sizeof(BasicObject_));
    EXPECT_EQ(sizeof(VekmsgElement_), sizeof(BasicObject_));
    EXPECT_EQ(sizeof(VekmsgAttribute_), sizeof(BasicObject_));
    EXPECT_EQ(sizeof(VekmsgFilter_), sizeof(BasicObject_));
    EXPECT_EQ(sizeof(BasicObject_), 2 * sizeof(void*));
}

TEST(PublicLayout, enumerationsHaveFourBytesAndTheirNumbers) {
    EXPECT_EQ(sizeof(VekmsgTag_), 4U);
    EXPECT_EQ(sizeof(VekmsgDataType_), 4U);
    EXPECT_EQ(sizeof(VekMessage_::SchemaType_), 4U);
    EXPECT_EQ(sizeof(VekmsgTerminal_::WaitResult_), 4U);
    EXPECT_EQ(sizeof(VekmsgTerminal_::PollResult_), 4U);
    EXPECT_EQ((Slots_{VEKMSG_UNDEFINED, VEKMSG_COMPLEX, VEKMSG_UINT, VEKMSG_STRING, VEKMSG_BINARY}),
              range(0, 4));
    EXPECT_EQ((Slots_{VekMessage_::SCHEMA_LITERAL, VekMessage_::SCHEMA_URI}), range(0, 1));
    EXPECT_EQ(
        (Slots_{VekmsgTerminal_::WAIT_ERROR, VekmsgTerminal_::WAIT_TIMEOUT, VekmsgTerminal_::WAIT_MESSAGE}),
        range(0, 2));
    EXPECT_EQ(VekmsgTerminal_::POLL_ERROR, -2);
    EXPECT_EQ(VekmsgTerminal_::POLL_TIMEOUT, -1);
    EXPECT_EQ(VekmsgTerminal_::POLL_MESSAGE, 0);
    EXPECT_EQ(VEKMSGTAG_ANY, 0xFFFFFFFFU);
}
