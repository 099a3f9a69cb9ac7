// The extension's one logging operation: every message goes to the unified
// log at once and, through a serial background queue, to
// "finder-extension.log" in the shared container.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

namespace palvin::FinderLog {

enum class Level { debug, info, warn, error };

inline constexpr std::string_view kFileName = "finder-extension.log";
inline constexpr std::uint64_t kTrimThreshold = 262144;  // an append past this trims
inline constexpr std::uint64_t kTrimKeep = 131072;       // bytes kept by a trim

// "DEBUG", "INFO", "WARN" or "ERROR".
std::string_view tag(Level level);

// Never fails and never waits for the disk. With no platform installed, or
// no thread to be had for the file work, the line is dropped.
void log(Level level, std::string_view message);

// Neither waits for ever: a wait ends when the file work has been stuck on one
// line for seconds (a hung file system), as it would never end otherwise.

// Waits until every line logged so far has been handled. For the tool and
// tests; the extension itself never waits.
void flush();

// Waits for the lines logged so far, then ends the queue's worker thread, for
// a host process that unloads the extension or ends. A later log starts it
// again. A worker that is stuck is left to end by itself, and the lines
// behind it are dropped.
void shutdown();

// The line as the file holds it: timestamp, " [", tag, "] ", message, "\n".
std::string formatLine(std::chrono::system_clock::time_point when, Level level, std::string_view message);

// 2026-11-23T09:00:00.123Z
std::string formatTimestamp(std::chrono::system_clock::time_point when);

}  // namespace palvin::FinderLog
