// The C interface: checks handles, calls one operation of the objects, converts its result. It decides
// nothing else.

#include "vekmsg/c_binding.h"

#include <cstdarg>

#include "api/terminal_handles.h"
#include "foundation/log_record.h"
#include "terminal/terminal_impl.h"
#include "vekmsg/element.h"
#include "vekmsg/message.h"

// Handles are untyped. So the counted base has to lie at the very address of a message or element: only then
// can vekmsg_free_handle release either of them.

namespace {

VekmsgTerminalImpl_* asTerminal(void* p_handle) {
    return static_cast<VekmsgTerminalImpl_*>(p_handle);
}

// A handle passed in is borrowed: the call holds a reference of its own, because what it calls may let go of
// others.
SP_VekMessage_ asMessage(void* p_handle) {
    return SP_VekMessage_(static_cast<VekMessage_*>(p_handle));
}
SP_VekmsgElement_ asElement(void* p_handle) {
    return SP_VekmsgElement_(static_cast<VekmsgElement_*>(p_handle));
}

/// A new handle with a reference for the caller; null for null.
template <class T>
void* asHandle(const SmartPointer_<T>& sp_object) {
    if (sp_object) sp_object->addRef();
    return sp_object.get();
}

vekmsg_status_ asStatus(bool isDone) {
    return isDone ? VEKMSG_STATUS_SUCCESS : VEKMSG_STATUS_FAILURE;
}

}  // namespace

void vekmsg_free_handle(void* handle) {
    if (handle != nullptr) static_cast<BasicObject_*>(handle)->removeRef();
}

// Terminals

void* vekmsg_terminal_open(const utf8_char_* componentName, const char* directoryPath) {
    auto* p_terminal = new (std::nothrow) VekmsgTerminalImpl_;
    if (p_terminal == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_terminal_open() can't create vekmsgTerminalImpl_");
        return nullptr;
    }
    if (p_terminal->open(componentName, directoryPath)) return p_terminal;
    p_terminal->close();
    delete p_terminal;
    return nullptr;
}

void vekmsg_terminal_close(void* terminal) {
    if (terminal == nullptr) return;
    asTerminal(terminal)->close();
    delete asTerminal(terminal);
}

void* vekmsg_terminal_create_message(void* terminal) {
    if (terminal == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_terminal_create_message() null terminal handle");
        return nullptr;
    }
    SP_VekMessage_ sp_message;
    asTerminal(terminal)->createMessage(sp_message);
    return asHandle(sp_message);
}

vekmsg_status_ vekmsg_terminal_send_message(void* terminal, void* message) {
    if (terminal == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_terminal_send_message() null terminal handle");
        return VEKMSG_STATUS_FAILURE;
    }
    return asStatus(asTerminal(terminal)->sendMessage(asMessage(message)));
}

vekmsg_status_ vekmsg_terminal_receive_message(void* terminal, void** message) {
    if (terminal == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_terminal_receive_message() null terminal handle");
        return VEKMSG_STATUS_FAILURE;
    }
    if (message == nullptr) {
        // Log analysis knows this text, wrong function name and all.
        VEKMSG_LOG_ERROR("vekmsg_terminal_send_message() null pointer to message handle");
        return VEKMSG_STATUS_FAILURE;
    }
    SP_VekMessage_ sp_message;
    if (!asTerminal(terminal)->receiveMessage(sp_message)) return VEKMSG_STATUS_FAILURE;
    *message = asHandle(sp_message);
    return VEKMSG_STATUS_SUCCESS;
}

vekmsg_terminal_wait_result_ vekmsg_terminal_wait_for_message(void* terminal, unsigned int timeout) {
    if (terminal == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_terminal_wait_for_message() null terminal handle");
        return VEKMSG_WAIT_ERROR;
    }
    switch (asTerminal(terminal)->waitForMessage(timeout)) {
        case VekmsgTerminal_::WAIT_TIMEOUT:
            return VEKMSG_WAIT_TIMEOUT;
        case VekmsgTerminal_::WAIT_MESSAGE:
            return VEKMSG_WAIT_MESSAGE;
        default:
            return VEKMSG_WAIT_ERROR;
    }
}

int vekmsg_terminal_pollfd(struct pollfd* fds, unsigned int count, unsigned int timeout, ...) {
    va_list terminals;
    va_start(terminals, timeout);
    const int result = pollTerminals(fds, count, timeout, asTerminal, terminals);
    va_end(terminals);
    return result < VekmsgTerminal_::POLL_TIMEOUT ? VekmsgTerminal_::POLL_ERROR : result;
}

// Messages

vekmsg_status_ vekmsg_message_set_destination(void* message, const utf8_char_* destinationName) {
    if (message == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_message_set_destination() null message handle");
        return VEKMSG_STATUS_FAILURE;
    }
    return asStatus(asMessage(message)->setDestination(destinationName));
}

const utf8_char_* vekmsg_message_get_destination(void* message) {
    if (message == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_message_get_destination() null message handle");
        return nullptr;
    }
    return asMessage(message)->getDestination();
}

vekmsg_status_ vekmsg_message_set_source(void* message, const utf8_char_* sourceName) {
    if (message == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_message_set_source() null message handle");
        return VEKMSG_STATUS_FAILURE;
    }
    return asStatus(asMessage(message)->setSource(sourceName));
}

const utf8_char_* vekmsg_message_get_source(void* message) {
    if (message == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_message_get_source() null message handle");
        return nullptr;
    }
    return asMessage(message)->getSource();
}

vekmsg_status_ vekmsg_message_swap_source_destination(void* message) {
    if (message == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_message_swap_source_destination() null message handle");
        return VEKMSG_STATUS_FAILURE;
    }
    return asStatus(asMessage(message)->swapSourceDestination());
}

vekmsg_status_ vekmsg_message_set_payload_schema(void* message, const utf8_char_* schema,
                                                 vekmsg_schema_type_ schemaType) {
    if (message == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_message_set_payload_schema() null message handle");
        return VEKMSG_STATUS_FAILURE;
    }
    return asStatus(
        asMessage(message)->setPayloadSchema(schema, static_cast<VekMessage_::SchemaType_>(schemaType)));
}

const utf8_char_* vekmsg_message_get_payload_schema(void* message) {
    if (message == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_message_get_payload_schema() null message handle");
        return nullptr;
    }
    return asMessage(message)->getPayloadSchema();
}

vekmsg_schema_type_ vekmsg_message_get_payload_schema_type(void* message) {
    if (message == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_message_get_payload_schema_type() null message handle");
        return VEKMSG_SCHEMA_LITERAL;
    }
    return static_cast<vekmsg_schema_type_>(asMessage(message)->getPayloadSchemaType());
}

vekmsg_status_ vekmsg_message_set_payload(void* message, void* element) {
    if (message == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_message_set_payload() null message handle");
        return VEKMSG_STATUS_FAILURE;
    }
    return asStatus(asMessage(message)->setPayload(asElement(element)));
}

void* vekmsg_message_get_payload(void* message) {
    if (message == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_message_get_payload() null message handle");
        return nullptr;
    }
    return asHandle(asMessage(message)->getPayload());
}

void* vekmsg_message_create_element(void* message, vekmsg_tag_ tag) {
    if (message == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_message_create_element() null message handle");
        return nullptr;
    }
    return asHandle(asMessage(message)->createElement(tag));
}

// Elements

vekmsg_tag_ vekmsg_element_getTag(void* element) {
    if (element == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_element_getTag() null element handle");
        return VEKMSG_TAG_ANY;
    }
    return asElement(element)->getTag();
}

vekmsg_status_ vekmsg_element_set_value_as_uint(void* element, unsigned int value) {
    if (element == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_element_set_value_as_uint() null element handle");
        return VEKMSG_STATUS_FAILURE;
    }
    return asStatus(asElement(element)->setValue(value));
}

vekmsg_status_ vekmsg_element_set_value_as_string(void* element, const utf8_char_* value) {
    if (element == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_element_set_value_as_string() null element handle");
        return VEKMSG_STATUS_FAILURE;
    }
    return asStatus(asElement(element)->setValue(value));
}

vekmsg_status_ vekmsg_element_set_value_as_bytestream(void* element, const unsigned char* value,
                                                      unsigned int length) {
    if (element == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_element_set_value_as_bytestream() null element handle");
        return VEKMSG_STATUS_FAILURE;
    }
    return asStatus(asElement(element)->setValue(value, length));
}

vekmsg_status_ vekmsg_element_get_value_as_uint(void* element, unsigned int* p_value) {
    if (element == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_element_get_value_as_uint() null element handle");
        return VEKMSG_STATUS_FAILURE;
    }
    if (p_value == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_element_get_value_as_uint() null p_value");
        return VEKMSG_STATUS_FAILURE;
    }
    return asStatus(asElement(element)->getValue(*p_value));
}

vekmsg_status_ vekmsg_element_get_value_as_string(void* element, const utf8_char_** p_string) {
    if (element == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_element_get_value_as_string() null element handle");
        return VEKMSG_STATUS_FAILURE;
    }
    if (p_string == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_element_get_value_as_string() null p_string");
        return VEKMSG_STATUS_FAILURE;
    }
    return asStatus(asElement(element)->getValue(*p_string));
}

vekmsg_status_ vekmsg_element_get_value_as_bytestream(void* element, const unsigned char** p_stream,
                                                      unsigned int* p_length) {
    if (element == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_element_get_value_as_bytestream() null element handle");
        return VEKMSG_STATUS_FAILURE;
    }
    if (p_stream == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_element_get_value_as_bytestream() null p_stream");
        return VEKMSG_STATUS_FAILURE;
    }
    if (p_length == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_element_get_value_as_bytestream() null p_length");
        return VEKMSG_STATUS_FAILURE;
    }
    return asStatus(asElement(element)->getValue(*p_stream, *p_length));
}

vekmsg_status_ vekmsg_element_set_subelement_value_as_uint(void* element, vekmsg_tag_ tag,
                                                           unsigned int value) {
    if (element == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_element_set_subelement_value_as_uint() null element handle");
        return VEKMSG_STATUS_FAILURE;
    }
    return asStatus(asElement(element)->setSubElementValue(tag, value));
}

vekmsg_status_ vekmsg_element_set_subelement_value_as_string(void* element, vekmsg_tag_ tag,
                                                             const utf8_char_* value) {
    if (element == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_element_set_subelement_value_as_string() null element handle");
        return VEKMSG_STATUS_FAILURE;
    }
    return asStatus(asElement(element)->setSubElementValue(tag, value));
}

vekmsg_status_ vekmsg_element_set_subelement_value_as_bytestream(void* element, vekmsg_tag_ tag,
                                                                 const unsigned char* value,
                                                                 unsigned int length) {
    if (element == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_element_set_subelement_value_as_bytestream() null element handle");
        return VEKMSG_STATUS_FAILURE;
    }
    return asStatus(asElement(element)->setSubElementValue(tag, value, length));
}

vekmsg_status_ vekmsg_element_get_subelement_value_as_uint(void* element, vekmsg_tag_ tag,
                                                           unsigned int* p_value) {
    if (element == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_element_get_subelement_value_as_uint() null element handle");
        return VEKMSG_STATUS_FAILURE;
    }
    if (p_value == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_element_get_subelement_value_as_uint() null p_value");
        return VEKMSG_STATUS_FAILURE;
    }
    return asStatus(asElement(element)->getSubElementValue(tag, *p_value));
}

vekmsg_status_ vekmsg_element_get_subelement_value_as_string(void* element, vekmsg_tag_ tag,
                                                             const utf8_char_** p_string) {
    if (element == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_element_get_subelement_value_as_string() null element handle");
        return VEKMSG_STATUS_FAILURE;
    }
    if (p_string == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_element_get_subelement_value_as_string() null p_string");
        return VEKMSG_STATUS_FAILURE;
    }
    return asStatus(asElement(element)->getSubElementValue(tag, *p_string));
}

vekmsg_status_ vekmsg_element_get_subelement_value_as_bytestream(void* element, vekmsg_tag_ tag,
                                                                 const unsigned char** p_stream,
                                                                 unsigned int* p_length) {
    if (element == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_element_get_subelement_value_as_bytestream() null element handle");
        return VEKMSG_STATUS_FAILURE;
    }
    if (p_stream == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_element_get_subelement_value_as_bytestream() null p_stream");
        return VEKMSG_STATUS_FAILURE;
    }
    if (p_length == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_element_get_subelement_value_as_bytestream() null p_length");
        return VEKMSG_STATUS_FAILURE;
    }
    return asStatus(asElement(element)->getSubElementValue(tag, *p_stream, *p_length));
}

vekmsg_status_ vekmsg_element_query_subelements(void* element, vekmsg_tag_ tag) {
    if (element == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_element_query_subelements() null element handle");
        return VEKMSG_STATUS_FAILURE;
    }
    return asStatus(asElement(element)->querySubelements(tag));
}

void* vekmsg_element_get_next_subelement(void* element) {
    if (element == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_element_get_next_subelement() null element handle");
        return nullptr;
    }
    return asHandle(asElement(element)->getNextSubelement());
}

void vekmsg_element_end_query_subelements(void* element) {
    if (element == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_element_end_query_subelements() null element handle");
        return;
    }
    asElement(element)->endQuerySubelements();
}

void* vekmsg_element_find_first_matching_subelement(void* element, vekmsg_tag_ tag) {
    if (element == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_element_find_first_matching_subelement() null element handle");
        return nullptr;
    }
    return asHandle(asElement(element)->findFirstMatchingSubelement(tag));
}

vekmsg_status_ vekmsg_element_add_subelements(void* element, void* subElement) {
    if (element == nullptr) {
        VEKMSG_LOG_ERROR("vekmsg_element_add_subelements() null element handle");
        return VEKMSG_STATUS_FAILURE;
    }
    return asStatus(asElement(element)->addSubelements(asElement(subElement)));
}
