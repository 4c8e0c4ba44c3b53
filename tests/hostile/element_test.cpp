#include <gtest/gtest.h>

#include <sstream>

#include "hostile/hostile_input.h"
#include "message/element_binary.h"
#include "message/message_binary.h"
#include "support/wire_bytes.h"

namespace {

/// Reads one element. What was accepted is written, read and written again: it must not change any more.
class ElementCheck_ {
public:
    bool operator()(Random_& random) {
        std::string bytes = randomElement(random, random.oneIn(20) ? 30000 : 400);
        mutate(random, bytes);
        const SP_VekmsgElementBinary_ sp_element = newElement();
        const unsigned int used = read(*sp_element, bytes);
        EXPECT_LE(used, bytes.size());
        look(*sp_element);
        if (used == 0) return false;
        const std::string written = write(*sp_element);
        const SP_VekmsgElementBinary_ sp_again = newElement();
        EXPECT_EQ(read(*sp_again, written), written.size());
        EXPECT_EQ(write(*sp_again), written);
        return true;
    }

private:
    SP_VekmsgElementBinary_ newElement() const { return m_sp_message->createElement(VEKMSGTAG_ANY); }

    unsigned int read(VekmsgElementBinary_& element, const std::string& bytes) {
        return element.deserialize(m_input.place(bytes), static_cast<unsigned int>(bytes.size()));
    }

    std::string write(const VekmsgElementBinary_& element) {
        const unsigned int size = element.getMaxSerializationSize();
        unsigned char* p_room = m_output.room(size);
        EXPECT_EQ(element.serialize(p_room + size, size), size);
        return std::string(p_room, p_room + size);
    }

    /// What an application does with an element, refused ones included.
    void look(VekmsgElementBinary_& element) {
        m_text.str(std::string());
        EXPECT_TRUE(element.print(&m_text, 0));
        unsigned int number = 0;
        const Utf8Char_* p_text = nullptr;
        const unsigned char* p_bytes = nullptr;
        unsigned int length = 0;
        element.getValue(number);
        if (element.getValue(p_text)) {
            EXPECT_LT(Utf8CharTraits_::length(p_text), VEKMSG_MAX_VALUE_SIZE);
        }
        if (element.getValue(p_bytes, length)) {
            EXPECT_LE(length, VEKMSG_MAX_VALUE_SIZE);
        }
        if (element.querySubelements(VEKMSGTAG_ANY)) {
            while (!element.getNextSubelement().isNull()) ++number;
        }
        const unsigned int size = element.getMaxSerializationSize();
        element.serialize(m_output.room(size) + size, size);
    }

    GuardedBytes_ m_input;
    GuardedBytes_ m_output;
    std::ostringstream m_text;
    SP_VekMessageBinary_ m_sp_message{new VekMessageBinary_};
};

}  // namespace

TEST(HostileInput, elementsAreReadWithinTheirBoundsAndStayTheSame) {
    forEachInput("elements", checkBy<ElementCheck_>);
}
