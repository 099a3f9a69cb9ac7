// How text is ordered and folded. The rules come from the platform (ICU on
// Linux, Foundation on Apple), so that menus sort as the user's system does.
#pragma once

#include <string>
#include <string_view>

namespace palvin {

class TextRules {
 public:
  virtual ~TextRules() = default;
  // Locale-aware and case-insensitive, in the locale that was current when
  // the rules were made: negative when a orders strictly before b, zero when
  // they compare the same, positive after.
  virtual int compareDisplayNames(std::string_view a, std::string_view b) const = 0;
  // The locale-independent Unicode default lower-casing of UTF-8 text; text
  // that is not valid UTF-8 has only its ASCII letters lowered.
  virtual std::string lowercase(std::string_view utf8) const = 0;
};

namespace text {

// Lower-cases the ASCII letters only; every other byte keeps its value.
std::string lowercaseAscii(std::string_view bytes);

bool isAscii(std::string_view bytes);

}  // namespace text
}  // namespace palvin
