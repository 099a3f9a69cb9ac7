#include "shared/text.h"

#include <algorithm>

namespace palvin::text {

std::string lowercaseAscii(std::string_view bytes) {
  std::string lowered(bytes);
  for (char& c : lowered) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return lowered;
}

bool isAscii(std::string_view bytes) {
  return std::all_of(bytes.begin(), bytes.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

}  // namespace palvin::text
