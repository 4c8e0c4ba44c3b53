// A program that has nothing but the installed library: it uses what has to cross the library's border.
#include <vekmsg/vekmsg.h>

#include <cstdio>
#include <memory>
#include <new>

namespace {

class Refusing_ : public VekmsgFilter_ {
public:
    bool process(SP_VekMessage_&) override { return false; }
};

bool check(bool isGood, const char* p_what) {
    if (!isGood) std::fprintf(stderr, "consumer: %s\n", p_what);
    return isGood;
}

}  // namespace

int main() {
    vekmsg_log_set_threshold(-1);
    const SP_BasicBuffer_ sp_buffer(new (std::nothrow) BasicBuffer_(100));
    const SmartPointer_<BasicObject_> sp_object(sp_buffer);
    const SmartPointer_<BasicBuffer_> sp_same(sp_object);
    const SP_VekmsgFilter_ sp_filter(new (std::nothrow) Refusing_);
    const std::unique_ptr<VekmsgTerminal_> sp_terminal(createVekmsgTerminal());
    SP_VekMessage_ sp_message;

    bool isGood = check(sp_buffer && sp_buffer->setDataArea(100, 0), "no buffer");
    isGood = check(sp_same == sp_buffer, "a checked cast fails across the library's border") && isGood;
    isGood = check(sp_terminal != nullptr, "no terminal") && isGood;
    isGood =
        check(sp_terminal && !sp_terminal->setSendFilter(sp_filter), "a closed terminal takes a filter") &&
        isGood;
    isGood =
        check(sp_terminal && !sp_terminal->createMessage(sp_message), "a closed terminal makes messages") &&
        isGood;
    isGood = check(vekMsgTagCompare(1, 2) < 0, "tags out of order") && isGood;
    return isGood ? 0 : 1;
}
