// The host app's own log, "host-app.log" beside the extension's log in the
// shared container and in the same line format, so the two read side by side.
#pragma once

#include <string>

#include "platform/platform.h"
#include "services/log.h"

namespace palvin::host {

inline constexpr std::string_view kHostLogName = "host-app.log";

class HostLog {
 public:
  HostLog(Platform& platform, std::string path) : platform_(platform), path_(std::move(path)) {}

  // Any thread. A line that can't be written goes to standard error and the
  // journal.
  void log(FinderLog::Level level, const std::string& message) const;
  const std::string& path() const { return path_; }

 private:
  Platform& platform_;
  std::string path_;
};

// Appends `line` to the file at `path` in one write, creating the file. Several
// processes append at once (O_APPEND); under an flock() a writer first looks at
// the last byte, and when an earlier writer was killed mid-line it ends that
// fragment with a line feed, so the new line is never glued to it. Past 256
// KiB the file keeps its last 128 KiB, as the extension's log does.
Status appendWholeLine(const std::string& path, std::string_view line);

}  // namespace palvin::host
