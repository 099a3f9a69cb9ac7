#include "loading.h"

#include <filesystem>
#include <iostream>
#include <limits>

#include "platform/linux_files.h"
#include "platform/platform.h"

namespace palvin::tool {
namespace {

// Enough of what was taken last to find the place again in a replaced file.
constexpr std::size_t kTailLength = 1024;

}  // namespace

std::optional<FinderCapabilities> loadCatalogue(const std::string& path) {
  auto bytes = currentPlatform().readFile(path);
  auto decoded = bytes.ok() ? FinderCapabilities::decode(*bytes) : Error{bytes.error()};
  if (decoded.ok()) return std::move(*decoded);
  std::cerr << "Failed to decode capabilities: " << decoded.error() << '\n';
  return std::nullopt;
}

std::string readFileOrEmpty(const std::string& path) {
  auto bytes = currentPlatform().readFile(path);
  return bytes.ok() ? std::move(*bytes) : std::string();
}

std::string stringsDirectory() {
  std::error_code ignored;
  std::filesystem::path beside =
      std::filesystem::read_symlink("/proc/self/exe", ignored).parent_path() / "Resources";
  return std::filesystem::is_directory(beside, ignored) ? beside.string() : std::string(PALVIN_STRINGS_DIR);
}

// Reads only what follows the place reached, with the bytes just before it to
// see that the file is still the one read last. A log is shown whatever its
// size: the 64 MiB limit is for documents, and a log that grew past it (one
// the extension has not yet trimmed) is still the user's to read.
Result<LogTail::Added> LogTail::take(bool whole) {
  constexpr std::uint64_t kNoLimit = std::numeric_limits<std::uint64_t>::max();
  std::uint64_t start = offset_ - tail_.size();
  auto content = linux_files::readFile(path_, kNoLimit, start);
  if (!content.ok()) return Error{content.error()};
  Added added;
  std::size_t from = tail_.size();
  if (content->compare(0, tail_.size(), tail_) != 0) {
    start = 0;
    content = linux_files::readFile(path_, kNoLimit);
    if (!content.ok()) return Error{content.error()};
    std::size_t found = content->find(tail_);
    added.restarted = found == std::string::npos;
    from = added.restarted ? 0 : found + tail_.size();
  }
  std::string_view rest = std::string_view(*content).substr(from);
  std::size_t end = from + (whole ? rest.size() : rest.rfind('\n') + 1);  // npos + 1 == 0
  added.text = content->substr(from, end - from);
  std::size_t tailStart = end > kTailLength ? end - kTailLength : 0;
  tail_ = content->substr(tailStart, end - tailStart);
  offset_ = start + end;
  return added;
}

void LogTail::forEachLine(std::string_view text, const std::function<void(std::string_view)>& onLine) {
  for (std::size_t at = 0; at < text.size();) {
    std::size_t lineEnd = std::min(text.find('\n', at), text.size());
    onLine(text.substr(at, lineEnd - at));
    at = lineEnd + 1;
  }
}

}  // namespace palvin::tool
