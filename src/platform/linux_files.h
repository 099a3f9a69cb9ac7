// File operations of the Linux platform, on plain POSIX calls. Every error
// reads "<path>: <reason>", the reason being the system's own text where
// there is one ("/x/capabilities.json: No such file or directory").
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "platform/platform.h"

namespace palvin::linux_files {

// "<path>: <the system's text for errnum>".
std::string describe(std::string_view path, int errnum);

// The item's own time; for a symbolic link also its target's, if it has one.
Result<ModificationDate> modificationDate(const std::string& path);

// The bytes from offset `from` to the end (none when the file is shorter).
// Refuses what is not a regular file and more than `limit` bytes, also when
// the file grows past it while being read.
Result<std::string> readFile(const std::string& path, std::uint64_t limit, std::uint64_t from = 0);

Status writeFileAtomically(const std::string& path, std::string_view bytes);

Status createDirectories(const std::string& path);

Result<std::unique_ptr<WritableFile>> openForWriting(const std::string& path);

// The process's file mode creation mask, read once.
unsigned processUmask();

}  // namespace palvin::linux_files
