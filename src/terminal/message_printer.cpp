#include "terminal/message_printer.h"

#include <cstring>
#include <ostream>
#include <utility>

#include "foundation/exception_barrier.h"
#include "foundation/log_record.h"
#include "foundation/text_output.h"

VekmsgPrinter_::VekmsgPrinter_(std::ostream* p_ostrm, SP_Utf8String_ sp_componentName, const char* p_note)
    : m_p_ostrm(p_ostrm), m_sp_componentName(std::move(sp_componentName)) {
    const char* p_text = p_note != nullptr ? p_note : "";
    const std::size_t length = strnlen(p_text, sizeof(m_note) - 1);
    std::memcpy(m_note, p_text, length);
    m_note[length] = '\0';
}

bool VekmsgPrinter_::process(SP_VekMessage_& sp_message) try {
    if (!sp_message) {
        VEKMSG_LOG_ERROR("VekmsgPrinter_::process() null sp_message at %s with note %s",
                         printable(m_sp_componentName), m_note);
        return false;
    }
    *m_p_ostrm << std::endl;
    writeUnformatted(*m_p_ostrm, "<!-- ");
    writeUnformatted(*m_p_ostrm, printable(m_sp_componentName));
    writeUnformatted(*m_p_ostrm, "  ");
    writeUnformatted(*m_p_ostrm, m_note);
    writeUnformatted(*m_p_ostrm, " -->");
    *m_p_ostrm << std::endl;

    const bool isForThisComponent =
        std::strcmp(printable(sp_message->getDestination()), printable(m_sp_componentName)) == 0;
    if (isForThisComponent && sp_message->hasGoodPayload()) sp_message->getPayload();
    return sp_message->print(m_p_ostrm, 0);
}
VEKMSG_RETURN_ON_EXCEPTION(false)
