#ifndef VEKMSG_TERMINAL_MESSAGE_PRINTER_H
#define VEKMSG_TERMINAL_MESSAGE_PRINTER_H

#include <iosfwd>

#include "libcpp/utf8_string.h"
#include "vekmsg/filter.h"

/// Writes each message as XML under a comment with the component's name and a note, and passes it on.
///
/// A payload that is addressed to the component itself is decoded, so that it shows as elements; messages in
/// transit are printed as they stand.
class VekmsgPrinter_ : public VekmsgFilter_ {
public:
    /// The stream must outlive the printer. The note is copied, at most 9399 characters of it; null is no
    /// note.
    VekmsgPrinter_(std::ostream* p_ostrm, SP_Utf8String_ sp_componentName, const char* p_note);

    /// False for null, or when the message cannot be printed.
    bool process(SP_VekMessage_& sp_message) override;

private:
    std::ostream* m_p_ostrm;
    SP_Utf8String_ m_sp_componentName;
    char m_note[9400];
};

#endif
