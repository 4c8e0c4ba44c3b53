#ifndef VEKMSG_TOOLS_CODEC_H
#define VEKMSG_TOOLS_CODEC_H

#include <string>

#include "vekmsg/vekmsg.h"

// The library's own codec, from and to plain bytes. Where decoding fails, the records of the library say why.

SP_VekMessage_ createMessage();

/// Null when the bytes are no element. Bytes behind it do not count, as in a message.
SP_VekmsgElement_ decodeElement(const std::string& bytes);

/// A message whose payload is not decoded yet; null when its header items are damaged.
SP_VekMessage_ decodeMessage(const std::string& bytes);

/// The payload of a message as bytes; nothing when it has none.
std::string rawPayloadOf(const VekMessage_& message);

/// A buffer that holds the bytes, for VekMessage_::setRawPayload.
SP_BasicBuffer_ bufferOf(const std::string& bytes);

/// Each throws a Failure_ for what is too large or has no value.
std::string encodeElement(const VekmsgElement_& element);

/// The four header items alone.
std::string encodeHeader(const VekMessage_& message);

#endif
