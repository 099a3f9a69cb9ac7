// What the tool reads besides its arguments: every file goes through the
// platform's readFile, which refuses FIFOs, devices and oversized files as
// the extension does; a log, through the Linux platform's file layer, from
// the place reached and without the documents' size limit.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "catalogue/capabilities.h"
#include "shared/result.h"

namespace palvin::tool {

// The capabilities document at `path`, read and decoded as the extension
// does; or nothing after printing the line the extension would log.
std::optional<FinderCapabilities> loadCatalogue(const std::string& path);

// A file's content, or "" when it can't be read: for documents the tool
// shows as they are, where a missing one simply shows nothing.
std::string readFileOrEmpty(const std::string& path);

// Where the menu titles' translations are: the Resources directory beside the
// running tool (its bundle, built and installed so), else the source tree's.
std::string stringsDirectory();

// What a log file gained since the last look. The file is appended in place
// but also replaced by rename (its first line, and every trim), so the place
// reached is remembered by content: the last bytes taken.
class LogTail {
 public:
  explicit LogTail(std::string path) : path_(std::move(path)) {}

  struct Added {
    std::string text;
    bool restarted = false;  // the place reached is gone: `text` starts at the top of the file
  };
  // What was added since the last call: complete lines only, or with
  // `whole` a last line without its line feed too.
  Result<Added> take(bool whole);

  // Each line of `text`, without its line feed.
  static void forEachLine(std::string_view text, const std::function<void(std::string_view)>& onLine);

 private:
  std::string path_;
  std::uint64_t offset_ = 0;  // end of what was taken, in the current file
  std::string tail_;          // the bytes just before offset_
};

}  // namespace palvin::tool
