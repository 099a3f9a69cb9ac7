// Minimal JSON text output shared by the encoders and the tool. General JSON
// writers do not produce the request form (every '/' escaped, non-ASCII raw),
// so we keep one small writer of our own.
#pragma once

#include <string>
#include <string_view>

namespace palvin::json {

// True when `s` is well-formed UTF-8 (no overlong forms, surrogates or code
// points past U+10FFFF).
bool isValidUtf8(std::string_view s);

// `s` with every byte that is not part of well-formed UTF-8 replaced by
// U+FFFD, for output that must stay readable (the tool, diagnostics).
std::string toValidUtf8(std::string_view s);

// Appends `s` as a JSON string literal: '"', '\\' and control characters are
// escaped (short forms where JSON has them, \u00XX otherwise), non-ASCII is
// copied raw, and '/' becomes "\/" when `escapeSlash` is set. Returns false
// and appends nothing when `s` is not valid UTF-8.
bool appendString(std::string& out, std::string_view s, bool escapeSlash = false);

// The shortest text that reads back as `value`, in the form std::to_chars
// gives without a format: plain or scientific, whichever is shorter, and a
// whole number's exact digits. Apple's libc++ has no floating-point to_chars
// before macOS 13.3. Always in the C locale, whatever the process has set.
std::string formatNumber(double value);

}  // namespace palvin::json
