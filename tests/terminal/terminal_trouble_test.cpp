// A terminal whose connections end, meet or run out of memory at bad moments.

#include <gtest/gtest.h>

#include <stdexcept>

#include "support/allocation_failure.h"
#include "support/child_process.h"
#include "support/system_calls.h"
#include "terminal/installation.h"

namespace {

using Numbers_ = std::vector<unsigned int>;

class TerminalTrouble : public Installation_ {
protected:
    /// Whether the peer's message goes out; false when the stream is closed already.
    static bool couldWrite(RawPeer_& peer, const Bytes_& bytes) {
        try {
            peer.write(bytes);
            return true;
        } catch (const std::runtime_error&) {
            return false;
        }
    }
};

}  // namespace

TEST_F(TerminalTrouble, blocksReceivedBeforeAReconnectionAreGivenWhileItIsUnderWay) {
    const std::string tcp = freeTcpAddress();
    const Terminal_ anna = open("anna", {tcp + " bert"});
    RawListener_ listener(tcp);
    ASSERT_TRUE(anna->sendMessage(messageTo("bert", 1)));
    RawPeer_ bert = listener.accept();
    ASSERT_TRUE(eventually([&] { return anna->pass() && anna->isConnected(utf8("bert")); }));
    bert.write(messageBlock("anna", "bert", 7) + messageBlock("anna", "bert", 8));
    bert.readBlock();
    bert.readBlock();  // with nothing left unread, the end is an end and no reset
    bert.close();
    SystemCalls_ calls;
    calls.fail(SystemCalls_::Send, EAGAIN, 0, 1000);
    ASSERT_TRUE(anna->sendMessage(messageTo("bert", 2)));
    ASSERT_TRUE(anna->sendMessage(messageTo("bert", 3)));  // queued behind the one that is pending
    calls.fail(SystemCalls_::Connect, EINPROGRESS);
    ASSERT_TRUE(eventually([&] {
        return anna->pass() && anna->active("bert")->state() == VekmsgConnection_::STATE_SENDING_NAME;
    }));
    calls.fail(SystemCalls_::Getpeername, ENOTCONN, 0, 1000);

    EXPECT_EQ(numbersAt(*anna), (Numbers_{7, 8}));

    EXPECT_EQ(anna->active("bert")->state(), VekmsgConnection_::STATE_SENDING_NAME);
    bool gotData = true;
    EXPECT_TRUE(anna->processPollEvents(gotData));
    EXPECT_FALSE(gotData);
}

// The old stream is read when the second one shows up. A turn that finds no memory leaves it without a
// receive: it must not be the one that stays.
TEST_F(TerminalTrouble, aStreamThatFoundNoMemoryIsNotTheOneThatStays) {
    const std::vector<std::string> lines = locals({"anna", "bert"});
    RawListener_ listener(local("bert"), 100);
    bool hasStruck = true;
    for (unsigned int number = 1; hasStruck; ++number) {
        ASSERT_LT(number, 200U);
        inFreshThread([&] {
            const Terminal_ anna = open("anna", lines);
            ASSERT_TRUE(anna->sendMessage(messageTo("bert", 1)));
            RawPeer_ own = listener.accept();
            ASSERT_TRUE(anna->pass());
            RawPeer_ accepted(local("anna"));
            accepted.write(nameBlock("bert"));
            own.write(messageBlock("anna", "bert", 2));
            {
                const AllocationFailure_ failure(number);
                anna->pass();
                hasStruck = failure.hasStruck();
            }
            numbersAt(*anna);
            const SP_VekmsgConnection_ sp_present = anna->active("bert");
            if (!sp_present) return;

            const bool wroteOld = couldWrite(own, messageBlock("anna", "bert", 3));
            const bool wroteNew = couldWrite(accepted, messageBlock("anna", "bert", 3));

            EXPECT_TRUE(wroteOld || wroteNew) << number;
            EXPECT_EQ(numbersAt(*anna), Numbers_{3}) << number;
            anna->close();
        });
    }
}
