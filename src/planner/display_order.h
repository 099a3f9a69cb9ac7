// Display-name order: locale-aware, case-insensitive and accent-sensitive, as
// the macOS comparison used for menu titles orders them.
#pragma once

#include <string>
#include <string_view>

namespace palvin {

// The ICU locale that counts as current: the first non-empty of LC_ALL,
// LC_COLLATE and LANG with encoding and modifier removed; the root locale for
// "C", "POSIX" or nothing.
std::string currentCollationLocale();

// Compares two UTF-8 display names in the current locale. Negative when a
// orders strictly before b, zero when they compare the same, positive after.
// The collator is made once per thread and locale.
int compareDisplayNames(std::string_view a, std::string_view b);

}  // namespace palvin
