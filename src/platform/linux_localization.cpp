#include "platform/linux_localization.h"

#include <algorithm>
#include <cstdlib>

namespace palvin::linux_localization {

std::vector<std::string> lprojNames(std::string_view locale) {
  // language[_territory][.codeset][@modifier]
  locale = locale.substr(0, locale.find_first_of(".@"));
  std::vector<std::string> names;
  auto add = [&](std::string name) {
    if (!name.empty() && std::find(names.begin(), names.end(), name) == names.end())
      names.push_back(std::move(name));
  };
  if (locale != "C" && locale != "POSIX") {
    std::string_view language = locale.substr(0, locale.find('_'));
    std::string_view territory =
        language.size() < locale.size() ? locale.substr(language.size() + 1) : std::string_view{};
    add(std::string(locale));
    if (!territory.empty()) add(std::string(language) + "-" + std::string(territory));
    if (language == "zh") {
      bool traditional = territory == "TW" || territory == "HK" || territory == "MO";
      add(traditional ? "zh-Hant" : "zh-Hans");
    }
    add(std::string(language));
  }
  add("en");
  return names;
}

std::string messagesLocale() {
  for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* value = std::getenv(name);
    if (value != nullptr && *value != '\0') return value;
  }
  return {};
}

}  // namespace palvin::linux_localization
