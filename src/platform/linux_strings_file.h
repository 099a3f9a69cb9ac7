// The ".strings" tables of localised text: lines of "key" = "value"; with
// C-style escapes and comments, in UTF-8 or in UTF-16 with a byte order mark.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "shared/result.h"

namespace palvin::linux_strings_file {

using Table = std::map<std::string, std::string, std::less<>>;

// The table, keys and values in UTF-8; a later entry for a key replaces an
// earlier one. Errors name the line ("line 3: expected ';' after the value").
Result<Table> parse(std::string_view bytes);

}  // namespace palvin::linux_strings_file
