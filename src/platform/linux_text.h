// Text rules on Linux, from ICU: display names ordered by a collator of the
// locale in LC_ALL, LC_COLLATE or LANG at secondary strength (case ignored,
// accents counted, as the macOS comparison does), and the root locale's full
// Unicode lower-casing.
#pragma once

#include <memory>
#include <string>

#include "shared/text.h"

namespace palvin::linux_text {

// The ICU locale that counts as current: the first non-empty of LC_ALL,
// LC_COLLATE and LANG with encoding and modifier removed; the root locale for
// "C", "POSIX" or nothing.
std::string currentCollationLocale();

// The rules of `localeId`, falling back to the root locale when ICU has no
// collator for it.
std::shared_ptr<const TextRules> rulesFor(const std::string& localeId);

// The rules of the current locale, cached for the calling thread until the
// locale changes: ICU's collators are costly to open.
std::shared_ptr<const TextRules> currentRules();

}  // namespace palvin::linux_text
