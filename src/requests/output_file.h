// Where a host app puts a converted file: beside its source, under the
// source's name with the target's extension, never replacing anything. Plain
// POSIX, shared by the Linux and the macOS host apps.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "shared/result.h"

namespace palvin {

// Why `path` can't be a source, or nothing: it must be an absolute path
// without NUL bytes naming a regular file (symbolic links are followed).
std::optional<std::string> refuseSource(const std::string& path);

// A file's name without its last extension ("photo.png" -> "photo"); a name
// that is only an extension keeps it (".png").
std::string stemOf(std::string_view name);

// Moves `temporary` (a file in `directory`) to "<stem>.<extension>" there,
// or "<stem> 2.<extension>", "<stem> 3.<extension>"... whichever does not
// exist yet; nothing is ever overwritten. Yields the path taken.
Result<std::string> publishOutput(const std::string& temporary, const std::string& directory,
                                  std::string_view stem, std::string_view extension);

}  // namespace palvin
