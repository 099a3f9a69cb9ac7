#include "shared/text.h"

#include <unicode/bytestream.h>
#include <unicode/casemap.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <cstdint>
#include <limits>

namespace palvin::text {
namespace {

void lowerAsciiInPlace(std::string& text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
}

bool isAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

bool isWellFormedUtf8(std::string_view text) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
  const auto length = static_cast<int32_t>(text.size());
  int32_t offset = 0;
  while (offset < length) {
    UChar32 c;
    U8_NEXT(bytes, offset, length, c);
    if (c < 0) return false;
  }
  return true;
}

}  // namespace

// "" is ICU's root locale, so that a Turkish user's "PNG" still becomes "png".
std::string lowercase(std::string_view utf8) {
  std::string lowered(utf8);
  if (isAscii(utf8) || utf8.size() > static_cast<std::size_t>(std::numeric_limits<int32_t>::max()) ||
      !isWellFormedUtf8(utf8)) {
    // Bytes that are not text keep their value; only what is surely ASCII folds.
    lowerAsciiInPlace(lowered);
    return lowered;
  }
  std::string result;
  result.reserve(utf8.size());
  icu::StringByteSink<std::string> sink(&result);
  UErrorCode status = U_ZERO_ERROR;
  icu::CaseMap::utf8ToLower("", 0, icu::StringPiece(utf8.data(), static_cast<int32_t>(utf8.size())), sink, nullptr,
                            status);
  if (U_FAILURE(status)) {
    lowerAsciiInPlace(lowered);
    return lowered;
  }
  return result;
}

}  // namespace palvin::text
