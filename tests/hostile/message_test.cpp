#include <gtest/gtest.h>

#include <sstream>

#include "hostile/hostile_input.h"
#include "message/message_binary.h"
#include "support/buffer_bytes.h"
#include "support/wire_bytes.h"

namespace {

/// What a message is, without its payload.
std::string headerOf(const VekMessage_& message) {
    std::ostringstream text;
    text << message.getDestination() << '\n'
         << message.getSource() << '\n'
         << message.getTimeToLive() << '\n'
         << message.getPayloadSchema();
    return text.str();
}

std::string encoded(VekMessageBinary_& message) {
    const unsigned int size = message.getMaxSerializationSize();
    SP_BasicBuffer_ sp_buffer;
    EXPECT_EQ(message.serialize(sp_buffer), size);
    return sp_buffer.isNull() ? std::string() : bytesOf(*sp_buffer);
}

/// A payload that makes a tree is written, read and written to the same bytes.
void checkTree(const std::string& bytes) {
    const SP_VekMessageBinary_ sp_message(new VekMessageBinary_);
    sp_message->deserialize(tightBufferOf(bytes));
    if (sp_message->getPayload().isNull()) return;
    const std::string written = encoded(*sp_message);
    const SP_VekMessageBinary_ sp_again(new VekMessageBinary_);
    EXPECT_EQ(sp_again->deserialize(tightBufferOf(written)), written.size());
    EXPECT_FALSE(sp_again->getPayload().isNull());
    EXPECT_EQ(encoded(*sp_again), written);
}

/// Reads one message, looks into it or not, and writes it: what was accepted keeps its header, and does not
/// change any more when it is read and written again.
bool checkMessage(Random_& random) {
    std::string bytes =
        randomMessage(random, random.text(random.below(9), "dest"), random.text(random.below(9), "src"));
    mutate(random, bytes);
    const SP_VekMessageBinary_ sp_message(new VekMessageBinary_);
    const unsigned int used = sp_message->deserialize(tightBufferOf(bytes, random.below(80)));
    std::ostringstream text;
    EXPECT_TRUE(sp_message->print(&text, 0));
    if (used == 0) return false;
    EXPECT_EQ(used, bytes.size());

    if (random.oneIn(2)) {
        const bool isWhole = sp_message->hasGoodPayload();
        const bool isDecoded = !sp_message->getPayload().isNull();
        EXPECT_TRUE(isWhole || !isDecoded);
        EXPECT_EQ(sp_message->getRawPayload().isNull(), isDecoded);
        EXPECT_TRUE(sp_message->print(&text, 0));
    }
    const std::string header = headerOf(*sp_message);
    const std::string written = encoded(*sp_message);
    const SP_VekMessageBinary_ sp_again(new VekMessageBinary_);
    EXPECT_EQ(sp_again->deserialize(tightBufferOf(written)), written.size());
    EXPECT_EQ(headerOf(*sp_again), header);
    EXPECT_EQ(encoded(*sp_again), written);
    checkTree(written);
    return true;
}

}  // namespace

TEST(HostileInput, messagesAreReadWithinTheirBoundsAndStayTheSame) {
    forEachInput("messages", [] { return checkMessage; });
}
