#ifndef VEKMSG_TOOLS_JSON_TEXT_H
#define VEKMSG_TOOLS_JSON_TEXT_H

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "arguments.h"

/// Members stay in the order in which they were put in, so that people find them where they expect them.
using Json_ = nlohmann::ordered_json;

/// One document and a line feed; a line each in the short style. Control characters, of which terminals know
/// more than JSON forbids, are escaped. Requires texts of valid UTF-8.
std::string jsonText(const Json_& json, JsonStyle_ style);

/// Whether JSON can hold the text as it is.
bool isUtf8(const std::string& text);

/// The text as JSON, bytes that are no UTF-8 replaced. For what need not be read back.
Json_ readableText(const std::string& text);

#endif
