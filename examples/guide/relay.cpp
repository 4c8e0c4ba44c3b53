// The guide's relay: forwards what is addressed to others, to where its own directory file lists them. That
// is all that a relay has to do: keep its terminal working.
//
//     relay DIRECTORY

#include <iostream>

#include "guide.h"

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    const std::unique_ptr<VekmsgTerminal_> terminal = openTerminal("relay", argv[1]);
    if (terminal == nullptr) return 1;
    std::cout << "relay is open" << std::endl;

    // [relay]
    while (terminal->waitForMessage(1000) != VekmsgTerminal_::WAIT_ERROR) {
        SP_VekMessage_ sp_message;
        while (terminal->receiveMessage(sp_message) && sp_message)
            std::cout << "a message for the relay itself" << std::endl;
    }
    // [/relay]
    return 1;
}
