#include "loading.h"

#include <filesystem>
#include <iostream>

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

Result<LogTail::Added> LogTail::take(bool whole) {
  auto content = currentPlatform().readFile(path_);
  if (!content.ok()) return Error{content.error()};
  Added added;
  std::size_t from = offset_;
  if (offset_ > content->size() || content->compare(offset_ - tail_.size(), tail_.size(), tail_) != 0) {
    std::size_t found = content->find(tail_);
    added.restarted = found == std::string::npos;
    from = added.restarted ? 0 : found + tail_.size();
  }
  std::string_view rest = std::string_view(*content).substr(from);
  std::size_t end = from + (whole ? rest.size() : rest.rfind('\n') + 1);  // npos + 1 == 0
  added.text = content->substr(from, end - from);
  std::size_t tailStart = end > kTailLength ? end - kTailLength : 0;
  tail_ = content->substr(tailStart, end - tailStart);
  offset_ = end;
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
