#include "shared/text.h"

#include <unicode/ustring.h>
#include <unicode/utypes.h>

#include <vector>

namespace palvin::text {
namespace {

bool isAscii(std::string_view s) {
  for (char c : s) {
    if (static_cast<unsigned char>(c) >= 0x80) return false;
  }
  return true;
}

std::string asciiLowercase(std::string_view s) {
  std::string out(s);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

}  // namespace

std::string lowercase(std::string_view utf8) {
  if (isAscii(utf8)) return asciiLowercase(utf8);
  UErrorCode status = U_ZERO_ERROR;
  int32_t length = 0;
  // The strict conversion rejects ill-formed input instead of substituting,
  // which would change bytes we must keep.
  u_strFromUTF8(nullptr, 0, &length, utf8.data(), static_cast<int32_t>(utf8.size()), &status);
  if (status != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(status)) return asciiLowercase(utf8);
  std::vector<UChar> source(static_cast<std::size_t>(length) + 1);
  status = U_ZERO_ERROR;
  u_strFromUTF8(source.data(), length + 1, nullptr, utf8.data(), static_cast<int32_t>(utf8.size()), &status);
  if (U_FAILURE(status)) return asciiLowercase(utf8);

  std::vector<UChar> lowered(source.size() * 3 + 1);
  status = U_ZERO_ERROR;
  int32_t loweredLength = u_strToLower(lowered.data(), static_cast<int32_t>(lowered.size()), source.data(), length,
                                       "", &status);
  if (U_FAILURE(status)) return asciiLowercase(utf8);

  std::string out(static_cast<std::size_t>(loweredLength) * 3 + 1, '\0');
  int32_t outLength = 0;
  status = U_ZERO_ERROR;
  u_strToUTF8(out.data(), static_cast<int32_t>(out.size()), &outLength, lowered.data(), loweredLength, &status);
  if (U_FAILURE(status)) return asciiLowercase(utf8);
  out.resize(static_cast<std::size_t>(outLength));
  return out;
}

}  // namespace palvin::text
