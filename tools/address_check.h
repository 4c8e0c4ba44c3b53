#ifndef VEKMSG_TOOLS_ADDRESS_CHECK_H
#define VEKMSG_TOOLS_ADDRESS_CHECK_H

#include <cstddef>
#include <string>
#include <vector>

/// What is wrong with an address text.
struct AddressFault_ {
    const char* m_p_rule;
    std::size_t m_offset;  // of the part that is meant, in the text
    std::string m_text;
    std::string m_hint;
};

/// What is wrong with an address text and, for a local one, with the place on this machine that it names.
std::vector<AddressFault_> checkAddressText(const std::string& text);

/// Whether both texts are addresses, and the same one.
bool isSameAddress(const std::string& a, const std::string& b);

#endif
