// Shared reading of JSON documents with simdjson: parsing with errors that say
// what is wrong and where, and the type names used in decoding errors.
// Internal to the core (simdjson is a private dependency).
#pragma once

#include <simdjson.h>

#include <string>
#include <string_view>

#include "shared/result.h"

namespace palvin::json {

// Parses one JSON text with this thread's parser. A leading UTF-8 byte order
// mark is skipped, as Foundation does. The element stays valid until the next
// parse on the same thread. A syntax error reads "invalid JSON: <what> at line
// L, column C" (1-based, columns in bytes) when its place can be told.
Result<simdjson::dom::element> parseDocument(std::string_view bytes);

// "object", "array", "string", "number", "boolean" or "null".
std::string_view typeName(simdjson::dom::element_type type);

// "<path>: expected <expected>, found <type of value>".
Error wrongType(const std::string& path, const char* expected, simdjson::dom::element value);

// The value of the last member named `key`; false when there is none. A
// repeated member overrides the earlier one, as the platform decoder on macOS
// does.
bool lastMember(simdjson::dom::object object, std::string_view key, simdjson::dom::element& value);

// The required string member `key` of `object` into `out`; errors name `path`.
Status readString(simdjson::dom::object object, std::string_view key, const std::string& path,
                  std::string& out);

}  // namespace palvin::json
