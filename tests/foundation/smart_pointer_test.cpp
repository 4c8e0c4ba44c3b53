#include "libcpp/smart_pointer.h"

#include <gtest/gtest.h>

#include <set>
#include <type_traits>
#include <utility>

#include "foundation/shared_probe.h"
#include "libcpp/utf8_string.h"
#include "support/allocation_failure.h"

namespace {

class OtherProbe_ : public SharedProbe_ {
public:
    using SharedProbe_::SharedProbe_;
};

/// An object without a count of its own that tells when it goes.
struct PlainProbe_ {
    explicit PlainProbe_(int& destructions) : m_destructions(destructions) {}
    ~PlainProbe_() { ++m_destructions; }
    int& m_destructions;
};

/// Writes down the order of the calls that a smart pointer makes.
class CallProbe_ : public BasicObject_ {
public:
    CallProbe_(std::string& calls, char name) : m_calls(calls), m_name(name) {}
    void addRef() override {
        m_calls += {'+', m_name, ' '};
        BasicObject_::addRef();
    }
    void removeRef() override {
        m_calls += {'-', m_name, ' '};
        BasicObject_::removeRef();
    }

private:
    std::string& m_calls;
    char m_name;
};

/// Ordered by its own isLess, the greater key first.
class Keyed_ : public BasicObject_ {
public:
    explicit Keyed_(int key) : m_key(key) {}
    bool isLess(const Keyed_* p_other) const { return m_key > p_other->m_key; }
    int m_key;
};

using SP_SharedProbe_ = SmartPointer_<SharedProbe_>;
using SP_OtherProbe_ = SmartPointer_<OtherProbe_>;
using SP_PlainProbe_ = SmartPointer_<PlainProbe_>;
using SP_Keyed_ = SmartPointer_<Keyed_>;

SP_Utf8String_ utf8(const char* p_text) {
    return SP_Utf8String_(new Utf8String_(reinterpret_cast<const Utf8Char_*>(p_text)));
}

}  // namespace

TEST(SmartPointer, aNewOneIsNull) {
    const SP_SharedProbe_ sp_probe;

    EXPECT_TRUE(sp_probe.isNull());
    EXPECT_FALSE(sp_probe);
    EXPECT_EQ(sp_probe.get(), nullptr);
}

TEST(SmartPointer, oneMadeOfNullIsNull) {
    const SP_SharedProbe_ sp_probe = nullptr;

    EXPECT_TRUE(sp_probe.isNull());
}

TEST(SmartPointer, itIsAVirtualTablePointerAndOneField) {
    EXPECT_EQ(sizeof(SP_SharedProbe_), 2 * sizeof(void*));
    EXPECT_EQ(sizeof(SP_StdString_), 2 * sizeof(void*));
    EXPECT_TRUE(std::has_virtual_destructor<SP_SharedProbe_>::value);
}

TEST(SmartPointer, theLastOwnerTakesTheObjectAlong) {
    int destructions = 0;
    {
        const SP_SharedProbe_ sp_first(new SharedProbe_(destructions));
        {
            const SP_SharedProbe_ sp_second(sp_first);
            EXPECT_EQ(sp_first, sp_second);
        }
        EXPECT_EQ(destructions, 0);
    }
    EXPECT_EQ(destructions, 1);
}

TEST(SmartPointer, resetLetsGo) {
    int destructions = 0;
    SP_SharedProbe_ sp_probe(new SharedProbe_(destructions));

    sp_probe.reset();

    EXPECT_EQ(destructions, 1);
    EXPECT_TRUE(sp_probe.isNull());
}

TEST(SmartPointer, assigningNullLetsGo) {
    int destructions = 0;
    SP_SharedProbe_ sp_probe(new SharedProbe_(destructions));

    sp_probe = nullptr;

    EXPECT_EQ(destructions, 1);
    EXPECT_TRUE(sp_probe.isNull());
}

TEST(SmartPointer, assigningTakesTheNewBeforeItReleasesTheOld) {
    std::string calls;
    SmartPointer_<CallProbe_> sp_target(new CallProbe_(calls, 'a'));
    const SmartPointer_<CallProbe_> sp_source(new CallProbe_(calls, 'b'));
    calls.clear();

    sp_target = sp_source;

    EXPECT_EQ(calls, "+b -a ");
}

TEST(SmartPointer, assigningARawPointerTakesTheNewBeforeItReleasesTheOld) {
    std::string calls;
    SmartPointer_<CallProbe_> sp_target(new CallProbe_(calls, 'a'));
    calls.clear();

    sp_target = new CallProbe_(calls, 'b');

    EXPECT_EQ(calls, "+b -a ");
}

TEST(SmartPointer, assigningItselfKeepsTheObject) {
    int destructions = 0;
    SP_SharedProbe_ sp_probe(new SharedProbe_(destructions));
    const SP_SharedProbe_& sp_itself = sp_probe;

    sp_probe = sp_itself;

    EXPECT_EQ(destructions, 0);
    EXPECT_FALSE(sp_probe.isNull());
}

TEST(SmartPointer, assigningItsOwnRawPointerKeepsTheObject) {
    int destructions = 0;
    SP_SharedProbe_ sp_probe(new SharedProbe_(destructions));

    sp_probe = sp_probe.get();

    EXPECT_EQ(destructions, 0);
    sp_probe.reset();
    EXPECT_EQ(destructions, 1);
}

TEST(SmartPointer, movingLeavesNullBehindAndTheCountAlone) {
    std::string calls;
    SmartPointer_<CallProbe_> sp_source(new CallProbe_(calls, 'a'));
    calls.clear();

    SmartPointer_<CallProbe_> sp_made(std::move(sp_source));
    SmartPointer_<CallProbe_> sp_assigned;
    sp_assigned = std::move(sp_made);

    EXPECT_EQ(calls, "");
    EXPECT_FALSE(sp_assigned.isNull());
}

TEST(SmartPointer, aRawObjectIsCountedWhereverItIsTakenAgain) {
    int destructions = 0;
    SP_SharedProbe_ sp_first(new SharedProbe_(destructions));
    SP_SharedProbe_ sp_second(sp_first.get());

    sp_first.reset();
    EXPECT_EQ(destructions, 0);
    sp_second.reset();

    EXPECT_EQ(destructions, 1);
}

TEST(SmartPointer, aBaseConvertsToTheDerivedClassThatTheObjectHas) {
    int destructions = 0;
    SP_SharedProbe_ sp_base(new OtherProbe_(destructions));

    SP_OtherProbe_ sp_derived(sp_base);

    EXPECT_EQ(sp_derived.get(), sp_base.get());
    sp_base.reset();
    EXPECT_EQ(destructions, 0);
}

TEST(SmartPointer, aBaseConvertsToNullWhereTheObjectIsOfAnotherClass) {
    int destructions = 0;
    SP_SharedProbe_ sp_base(new SharedProbe_(destructions));

    const SP_OtherProbe_ sp_derived(sp_base);

    EXPECT_TRUE(sp_derived.isNull());
    sp_base.reset();
    EXPECT_EQ(destructions, 1);
}

TEST(SmartPointer, nullConvertsToNull) {
    EXPECT_TRUE(SP_OtherProbe_(SP_SharedProbe_()).isNull());
}

TEST(SmartPointer, aDerivedClassConvertsToItsBase) {
    int destructions = 0;
    const SP_OtherProbe_ sp_derived(new OtherProbe_(destructions));

    const SP_SharedProbe_ sp_base = sp_derived;

    EXPECT_EQ(sp_base.get(), sp_derived.get());
}

TEST(SmartPointer, aStandardStringIsSharedThroughAHolder) {
    SP_StdString_ sp_first(new std::string("text"));
    SP_StdString_ sp_second(sp_first);

    sp_second->append("s");
    sp_first.reset();

    EXPECT_EQ(*sp_second, "texts");
}

TEST(SmartPointer, aUtf8StringIsSharedThroughAHolder) {
    SP_Utf8String_ sp_first = utf8("name");
    const SP_Utf8String_ sp_second = sp_first;

    sp_first = nullptr;

    EXPECT_EQ(sp_second->size(), 4U);
}

TEST(SmartPointer, aHoldersLastOwnerDestroysTheObject) {
    int destructions = 0;
    SP_PlainProbe_ sp_first(new PlainProbe_(destructions));
    SP_PlainProbe_ sp_second;
    sp_second = sp_first;

    sp_first.reset();
    EXPECT_EQ(destructions, 0);
    sp_second.reset();

    EXPECT_EQ(destructions, 1);
}

TEST(SmartPointer, aRawPointerThatItOwnsAlreadyStaysWithItsHolder) {
    int destructions = 0;
    SP_PlainProbe_ sp_probe(new PlainProbe_(destructions));
    const SP_PlainProbe_ sp_other = sp_probe;

    sp_probe = sp_probe.get();

    EXPECT_EQ(sp_probe, sp_other);
    sp_probe.reset();
    EXPECT_EQ(destructions, 0);
    EXPECT_EQ(&sp_other->m_destructions, &destructions);
}

TEST(SmartPointer, anotherRawPointerGetsAHolderOfItsOwn) {
    int firstDestructions = 0;
    int secondDestructions = 0;
    SP_PlainProbe_ sp_probe(new PlainProbe_(firstDestructions));
    const SP_PlainProbe_ sp_other = sp_probe;

    sp_probe = new PlainProbe_(secondDestructions);

    EXPECT_EQ(firstDestructions, 0);
    sp_probe.reset();
    EXPECT_EQ(firstDestructions, 0);
    EXPECT_EQ(secondDestructions, 1);
}

TEST(SmartPointer, withoutMemoryForAHolderTheObjectGoesAndThePointerIsNull) {
    int destructions = 0;
    auto* p_probe = new PlainProbe_(destructions);
    const AllocationFailure_ failure(1);

    const SP_PlainProbe_ sp_probe(p_probe);

    EXPECT_TRUE(failure.hasStruck());
    EXPECT_TRUE(sp_probe.isNull());
    EXPECT_EQ(destructions, 1);
}

TEST(SmartPointer, withoutMemoryForAHolderAnAssignmentLeavesNull) {
    int oldDestructions = 0;
    int newDestructions = 0;
    SP_PlainProbe_ sp_probe(new PlainProbe_(oldDestructions));
    auto* p_new = new PlainProbe_(newDestructions);
    const AllocationFailure_ failure(1);

    sp_probe = p_new;

    EXPECT_TRUE(sp_probe.isNull());
    EXPECT_EQ(oldDestructions, 1);
    EXPECT_EQ(newDestructions, 1);
}

TEST(SmartPointer, aHolderCountsAndDestroysThroughItsFreer) {
    int destructions = 0;
    auto* p_holder = new libcpp::smartPointerToDumbTypePointer_<PlainProbe_>(new PlainProbe_(destructions));
    p_holder->addRef();

    p_holder->removeRef();
    EXPECT_EQ(destructions, 0);
    p_holder->removeRef();

    EXPECT_EQ(destructions, 1);
}

TEST(IsLess, asksThePointeesOwnOrder) {
    std::multiset<SP_Keyed_, libcpp::IsLess_<SP_Keyed_>> set;
    for (const int key : {2, 3, 1}) set.insert(SP_Keyed_(new Keyed_(key)));

    std::vector<int> keys;
    for (const SP_Keyed_& sp_keyed : set) keys.push_back(sp_keyed->m_key);

    EXPECT_EQ(keys, (std::vector<int>{3, 2, 1}));
}

TEST(IsLess, comparesStringsByTheirBytes) {
    const libcpp::IsLess_<SP_Utf8String_> isLess;

    EXPECT_TRUE(isLess(utf8("a"), utf8("b")));
    EXPECT_FALSE(isLess(utf8("b"), utf8("a")));
    EXPECT_FALSE(isLess(utf8("a"), utf8("a")));
    EXPECT_TRUE(isLess(utf8("z"), utf8("\xC3\xA4")));
}

TEST(IsLess, putsNullFirst) {
    const libcpp::IsLess_<SP_Utf8String_> isLess;

    EXPECT_TRUE(isLess(SP_Utf8String_(), utf8("")));
    EXPECT_FALSE(isLess(utf8(""), SP_Utf8String_()));
    EXPECT_FALSE(isLess(SP_Utf8String_(), SP_Utf8String_()));
}
