#ifndef VEKMSG_TOOLS_MESSAGE_JSON_H
#define VEKMSG_TOOLS_MESSAGE_JSON_H

#include <string>
#include <vector>

#include "json_text.h"
#include "vekmsg/vekmsg.h"

// Messages and their parts as JSON and back; vekmsg.schema.json describes it. The type of a value is the name
// of its member. Bytes that the library would write otherwise stand beside their meaning ("payloadBytes",
// "headerBytes", "encoded"), so that reading gives the very same bytes; a reader that finds both say
// different things refuses them.

/// `headerBytes` are those that the message was decoded from, or empty when they are those that the library
/// writes. Decodes the payload; whether that is possible shows in a payload that is null.
Json_ jsonOf(VekMessage_& message, const std::string& headerBytes = "");

/// An element by itself, decoded from `bytes`; for null, the bytes alone.
Json_ jsonOf(const SP_VekmsgElement_& sp_element, const std::string& bytes);

Json_ itemJson(unsigned int tag, unsigned int type, const std::string& value);

/// The types of blocks that have a name.
constexpr unsigned int kNameBlock = 1;
constexpr unsigned int kMessageBlock = 2;

/// A block that names who opened the stream; `payload` is all of it.
Json_ nameBlockJson(const std::string& payload);
/// A block with a message, which is already JSON.
Json_ messageBlockJson(const Json_& message);
/// Any other block.
Json_ blockJson(unsigned int type, const std::string& payload);

// What follows throws a Failure_ of bad data that names the place in the document.

/// The documents of a text, one after another, each on a line of its own or not.
std::vector<Json_> parseDocuments(const std::string& text);

/// A message that can be sent. Header bytes are those of its names and cannot be asked for.
SP_VekMessage_ messageOf(const Json_& json);

/// An element for a payload.
SP_VekmsgElement_ elementOf(const Json_& json);

/// The bytes that a document stands for: a message, element, item, block or plain bytes.
std::string bytesOf(const Json_& json);

#endif
