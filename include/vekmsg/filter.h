#ifndef VEKMSG_FILTER_H
#define VEKMSG_FILTER_H

#include "libcpp/basic_object.h"
#include "libcpp/smart_pointer.h"
#include "vekmsg/message.h"

/// An application's hook into the messages that a terminal sends (before they are encoded) or receives (as
/// they come in, pings and messages in transit included).
///
/// A filter runs inside sendMessage or receiveMessage, on their thread. It may send, receive and replace
/// filters on the same terminal; it must not open, close or delete the terminal.
class VEKMSG_API VekmsgFilter_ : public BasicObject_ {
public:
    /// Sees one message. It may change it, put another in its place, or swallow it by setting `sp_message` to
    /// null. Returning false refuses it: the terminal's operation then fails without a record of its own.
    virtual bool process(SP_VekMessage_& sp_message) = 0;
};

using SP_VekmsgFilter_ = SmartPointer_<VekmsgFilter_>;

#endif
