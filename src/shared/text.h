// Unicode text helpers.
#pragma once

#include <string>
#include <string_view>

namespace palvin::text {

// Lower-cases UTF-8 by the locale-independent Unicode default case mapping
// (full mapping: "İ" becomes "i̇"). ASCII takes a fast path without ICU; text
// that is not valid UTF-8 has only its ASCII letters lowered.
std::string lowercase(std::string_view utf8);

}  // namespace palvin::text
