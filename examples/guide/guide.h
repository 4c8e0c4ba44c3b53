#ifndef VEKMSG_GUIDE_H
#define VEKMSG_GUIDE_H

// What the guide's C++ programs share.

#include <vekmsg/vekmsg.h>

#include <memory>
#include <string>

enum Tag_ : VekmsgTag_ {
    TAG_ORDER = 100,
    TAG_DISH,       // text
    TAG_COUNT,      // number
    TAG_IS_URGENT,  // boolean
    TAG_SEAL,       // bytes
    TAG_EXTRA,      // text, any number of them
    TAG_ANSWER = 200
};

// [open]
inline const Utf8Char_* utf8(const char* p_text) {
    return reinterpret_cast<const Utf8Char_*>(p_text);
}

inline std::unique_ptr<VekmsgTerminal_> openTerminal(const char* p_name, const std::string& directory) {
    std::unique_ptr<VekmsgTerminal_> terminal(createVekmsgTerminal());
    if (terminal != nullptr && !terminal->open(utf8(p_name), directory.c_str())) terminal.reset();
    return terminal;
}
// [/open]

// [schema]
inline bool hasSchema(const VekMessage_& message, const char* p_schema) {
    return std::string(p_schema) == reinterpret_cast<const char*>(message.getPayloadSchema());
}
// [/schema]

#endif
