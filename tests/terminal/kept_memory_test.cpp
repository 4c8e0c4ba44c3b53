// How much used memory a thread keeps of each kind of object: what is beyond goes back to the heap.

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <list>
#include <memory>
#include <ostream>
#include <vector>

#include "foundation/utf8_name.h"
#include "message/message_binary.h"
#include "support/allocation_failure.h"
#include "support/utf8_text.h"
#include "terminal/connection.h"

namespace {

constexpr bool g_isOn = VEKMSG_FREE_LISTS != 0;

using Object_ = std::shared_ptr<void>;

struct Kind_ {
    const char* m_p_name;
    unsigned int m_bound;
    std::function<Object_()> m_make;
    unsigned int m_blocks = 1;  // of one object
};

std::ostream& operator<<(std::ostream& stream, const Kind_& kind) {
    return stream << kind.m_p_name;
}

template <class T>
Object_ owned(T* p_object) {
    return std::make_shared<SmartPointer_<T>>(p_object);
}

class KeptMemory : public testing::TestWithParam<Kind_> {};

}  // namespace

TEST_P(KeptMemory, isBoundedForEachThread) {
    const Kind_& kind = GetParam();
    for (const unsigned int count : {kind.m_bound - 1, kind.m_bound, kind.m_bound + 1}) {
        inFreshThread([&] {
            std::vector<Object_> objects;
            std::vector<Object_> others;  // what only the test's own pointers need comes and goes with both
            for (unsigned int i = 0; i < count; ++i) {
                objects.push_back(kind.m_make());
                others.push_back(std::make_shared<SmartPointer_<BasicObject_>>());
            }
            const unsigned long start = releaseCount();
            others.clear();
            const unsigned long byTest = releaseCount() - start;

            objects.clear();

            const unsigned int kept = g_isOn ? std::min(count, kind.m_bound) : 0;
            EXPECT_EQ(releaseCount() - start - 2 * byTest, kind.m_blocks * (count - kept)) << count;
        });
    }
}

INSTANTIATE_TEST_SUITE_P(
    OfEachKind, KeptMemory,
    testing::Values(
        Kind_{"Buffer", 256, [] { return owned(new BasicBuffer_(9400)); }, 2},
        Kind_{"Element", 128, [] { return owned(new VekmsgElementBinary_(1, nullptr)); }},
        Kind_{"Family", 32,
              [] {
                  const auto sp_family = std::make_shared<SubElements_>();
                  sp_family->makeRoom();
                  return Object_(sp_family);
              },
              2},
        Kind_{"Message", 256, [] { return owned(new VekMessageBinary_); }},
        Kind_{"Connection", 16, [] { return owned(new VekmsgConnection_); }},
        Kind_{"Name", 64,
              [] { return Object_(std::make_shared<SP_Utf8String_>(createUtf8String(utf8("bert")))); }},
        Kind_{"ListNode", 256, [] { return Object_(std::make_shared<BufferQueue_>(1)); }}),
    [](const testing::TestParamInfo<Kind_>& info) { return info.param.m_p_name; });
