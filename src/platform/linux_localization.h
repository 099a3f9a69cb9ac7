// Which "<name>.lproj" tables serve a POSIX locale, best first.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace palvin::linux_localization {

// "de_DE.UTF-8" gives de_DE, de-DE, de, en: the locale as written and with
// the hyphen the bundles use, the bare language, and English, the language
// of the keys, last. Chinese regions also map to their script ("zh_TW" to
// zh-Hant). "C", "POSIX" and an empty locale give en alone.
std::vector<std::string> lprojNames(std::string_view locale);

// The locale for messages: the first non-empty of LC_ALL, LC_MESSAGES, LANG.
std::string messagesLocale();

}  // namespace palvin::linux_localization
