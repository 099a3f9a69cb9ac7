#include "requests/request.h"

#include <dirent.h>
#include <simdjson.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <exception>
#include <random>
#include <string>
#include <system_error>
#include <utility>

#include "shared/json_reader.h"
#include "shared/json_writer.h"

namespace palvin {

using json::lastMember;
using json::readString;
using json::wrongType;

namespace {

// Shows a string that failed UTF-8 validation so the offending bytes can be
// seen in a log line: valid sequences stay as they are, invalid bytes and
// control characters become \xNN.
std::string showInvalidUtf8(std::string_view s) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(s.size() + 16);
  std::size_t i = 0;
  while (i < s.size()) {
    auto c = static_cast<unsigned char>(s[i]);
    std::size_t len = c < 0x80 ? 1 : c < 0xE0 ? 2 : c < 0xF0 ? 3 : 4;
    bool printable = c >= 0x20 && c != 0x7F;
    if (len <= s.size() - i && printable && json::isValidUtf8(s.substr(i, len))) {
      if (c == '"' || c == '\\') out.push_back('\\');
      out.append(s.substr(i, len));
      i += len;
    } else {
      out += "\\x";
      out.push_back(kHex[c >> 4]);
      out.push_back(kHex[c & 0xF]);
      ++i;
    }
  }
  return out;
}

Error notUtf8(std::string field, std::string_view value) {
  return Error{std::move(field) + " is not valid UTF-8: \"" + showInvalidUtf8(value) + "\""};
}

}  // namespace

Result<std::string> FinderConversionRequest::encode() const {
  static constexpr std::string_view kHead = "{\"targetFormatId\":";
  static constexpr std::string_view kFiles = ",\"files\":[";
  static constexpr std::string_view kPath = "{\"path\":";
  static constexpr std::string_view kSource = ",\"sourceFormatId\":";

  // Paths are mostly slashes and letters; one extra byte per eight covers the
  // escaped slashes of typical paths, so the string rarely grows twice.
  std::size_t size = kHead.size() + targetFormatId.size() + 2 + kFiles.size() + 2;
  for (const auto& file : files) {
    size += kPath.size() + kSource.size() + file.path.size() + file.path.size() / 8 +
            file.sourceFormatId.size() + 6;
  }
  std::string out;
  out.reserve(size);

  out += kHead;
  if (!json::appendString(out, targetFormatId, /*escapeSlash=*/true)) {
    return notUtf8("targetFormatId", targetFormatId);
  }
  out += kFiles;
  for (std::size_t i = 0; i < files.size(); ++i) {
    const FinderFileRef& file = files[i];
    if (i > 0) out.push_back(',');
    out += kPath;
    if (!json::appendString(out, file.path, /*escapeSlash=*/true)) {
      return notUtf8("files[" + std::to_string(i) + "].path", file.path);
    }
    out += kSource;
    if (!json::appendString(out, file.sourceFormatId, /*escapeSlash=*/true)) {
      return notUtf8("files[" + std::to_string(i) + "].sourceFormatId", file.sourceFormatId);
    }
    out.push_back('}');
  }
  out += "]}";
  return out;
}

Result<FinderConversionRequest> FinderConversionRequest::decode(std::string_view bytes) {
  auto parsed = json::parseDocument(bytes);
  if (!parsed.ok()) return Error{parsed.error()};
  simdjson::dom::element root = *parsed;
  simdjson::dom::object top;
  if (root.get(top) != simdjson::SUCCESS) {
    return Error{"(root): expected object, found " + std::string(json::typeName(root.type()))};
  }

  FinderConversionRequest request;
  if (auto status = readString(top, "targetFormatId", "targetFormatId", request.targetFormatId); !status) {
    return Error{status.error()};
  }

  simdjson::dom::element filesValue;
  if (!lastMember(top, "files", filesValue)) return Error{"files: missing"};
  simdjson::dom::array list;
  if (filesValue.get(list) != simdjson::SUCCESS) return wrongType("files", "array", filesValue);

  request.files.reserve(list.size());
  std::size_t index = 0;
  for (auto item : list) {
    std::string path = "files[" + std::to_string(index++) + "]";
    simdjson::dom::object object;
    if (item.get(object) != simdjson::SUCCESS) return wrongType(path, "object", item);
    FinderFileRef file;
    if (auto status = readString(object, "path", path + ".path", file.path); !status) {
      return Error{status.error()};
    }
    if (auto status = readString(object, "sourceFormatId", path + ".sourceFormatId", file.sourceFormatId);
        !status) {
      return Error{status.error()};
    }
    request.files.push_back(std::move(file));
  }
  return request;
}

namespace {

// 128 random bits. The operating system's random source is the one to use;
// should the standard library be unable to reach it, a clock-seeded
// generator still keeps names unique, which is all a file name needs.
std::array<std::uint32_t, 4> randomWords() {
  std::array<std::uint32_t, 4> words{};
  try {
    thread_local std::random_device device;
    for (auto& word : words) word = device();
    return words;
  } catch (const std::exception&) {
    thread_local std::mt19937_64 fallback(
        static_cast<std::uint64_t>(std::chrono::high_resolution_clock::now().time_since_epoch().count()) ^
        reinterpret_cast<std::uintptr_t>(&words));
    for (auto& word : words) word = static_cast<std::uint32_t>(fallback() >> 32);
    return words;
  }
}

}  // namespace

std::string makeUuidV4() {
  std::array<std::uint8_t, 16> bytes{};
  auto words = randomWords();
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    bytes[i] = static_cast<std::uint8_t>(words[i / 4] >> (8 * (i % 4)));
  }
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant

  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string text;
  text.reserve(36);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text.push_back('-');
    text.push_back(kHex[bytes[i] >> 4]);
    text.push_back(kHex[bytes[i] & 0xF]);
  }
  return text;
}

std::string newRequestFileName() {
  return makeUuidV4() + std::string(kRequestFileExtension);
}

bool isRequestFileName(std::string_view name) {
  return name.size() > kRequestFileExtension.size() && name.front() != '.' &&
         name.ends_with(kRequestFileExtension);
}

Result<std::vector<std::string>> listRequestFileNames(const std::string& directory) {
  DIR* dir = ::opendir(directory.c_str());
  if (dir == nullptr) return Error{directory + ": " + std::generic_category().message(errno)};
  std::vector<std::string> names;
  errno = 0;
  while (const dirent* entry = ::readdir(dir)) {
    if (isRequestFileName(entry->d_name)) names.emplace_back(entry->d_name);
  }
  int error = errno;
  ::closedir(dir);
  if (error != 0) return Error{directory + ": " + std::generic_category().message(error)};
  std::sort(names.begin(), names.end());
  return names;
}

std::string requestDirectory(std::string_view containerRoot) {
  std::string directory(containerRoot);
  if (!directory.empty() && directory.back() != '/') directory.push_back('/');
  directory += kRequestDirectoryName;
  return directory;
}

}  // namespace palvin
