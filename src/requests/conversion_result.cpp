#include "requests/conversion_result.h"

#include <simdjson.h>

#include <algorithm>

#include "shared/json_reader.h"
#include "shared/json_writer.h"

namespace palvin {

using json::lastMember;
using json::readString;
using json::wrongType;

namespace {

using FileStatus = FinderFileResult::Status;

constexpr std::pair<FileStatus, std::string_view> kStatusNames[] = {{FileStatus::pending, "pending"},
                                                                    {FileStatus::converted, "converted"},
                                                                    {FileStatus::failed, "failed"},
                                                                    {FileStatus::cancelled, "cancelled"}};

bool appendMember(std::string& out, std::string_view key, std::string_view value) {
  out += ",\"";
  out += key;
  out += "\":";
  return json::appendString(out, value, /*escapeSlash=*/true);
}

}  // namespace

std::string_view statusName(FileStatus status) {
  for (const auto& [value, name] : kStatusNames) {
    if (value == status) return name;
  }
  return "pending";
}

std::size_t FinderConversionResult::count(FileStatus status) const {
  return static_cast<std::size_t>(std::count_if(
      files.begin(), files.end(), [status](const auto& file) { return file.status == status; }));
}

Result<std::string> FinderConversionResult::encode() const {
  std::string out = "{\"targetFormatId\":";
  if (!json::appendString(out, targetFormatId, true)) return Error{"targetFormatId is not valid UTF-8"};
  out += ",\"files\":[";
  for (std::size_t i = 0; i < files.size(); ++i) {
    const FinderFileResult& file = files[i];
    const std::string at = "files[" + std::to_string(i) + "]";
    if (i > 0) out.push_back(',');
    out += "{\"path\":";
    if (!json::appendString(out, file.path, true)) return Error{at + ".path is not valid UTF-8"};
    out += ",\"status\":\"";
    out += statusName(file.status);
    out += '"';
    if (file.status == FileStatus::converted && !appendMember(out, "outputPath", file.outputPath)) {
      return Error{at + ".outputPath is not valid UTF-8"};
    }
    if (file.status == FileStatus::failed && !appendMember(out, "error", file.error)) {
      return Error{at + ".error is not valid UTF-8"};
    }
    out.push_back('}');
  }
  out += ']';
  if (!rejected.empty()) {
    out += ",\"status\":\"rejected\"";
    if (!appendMember(out, "error", rejected)) return Error{"error is not valid UTF-8"};
  }
  out += '}';
  return out;
}

Result<FinderConversionResult> FinderConversionResult::decode(std::string_view bytes) {
  auto parsed = json::parseDocument(bytes);
  if (!parsed.ok()) return Error{parsed.error()};
  simdjson::dom::element root = *parsed;
  simdjson::dom::object top;
  if (root.get(top) != simdjson::SUCCESS) return wrongType("(root)", "object", root);

  FinderConversionResult result;
  if (auto read = readString(top, "targetFormatId", "targetFormatId", result.targetFormatId); !read) {
    return Error{read.error()};
  }
  simdjson::dom::element filesValue;
  if (!lastMember(top, "files", filesValue)) return Error{"files: missing"};
  simdjson::dom::array list;
  if (filesValue.get(list) != simdjson::SUCCESS) return wrongType("files", "array", filesValue);

  simdjson::dom::element status;
  if (lastMember(top, "status", status)) {
    std::string_view text;
    if (status.get(text) != simdjson::SUCCESS || text != "rejected") {
      return Error{"status: expected \"rejected\""};
    }
    if (auto read = readString(top, "error", "error", result.rejected); !read) return Error{read.error()};
    if (result.rejected.empty()) return Error{"error: empty"};
  }
  std::size_t index = 0;
  for (auto item : list) {
    const std::string at = "files[" + std::to_string(index++) + "]";
    simdjson::dom::object object;
    if (item.get(object) != simdjson::SUCCESS) return wrongType(at, "object", item);
    FinderFileResult file;
    std::string status;
    if (auto read = readString(object, "path", at + ".path", file.path); !read) return Error{read.error()};
    if (auto read = readString(object, "status", at + ".status", status); !read) return Error{read.error()};
    auto known = std::find_if(std::begin(kStatusNames), std::end(kStatusNames),
                              [&](const auto& entry) { return entry.second == status; });
    if (known == std::end(kStatusNames)) {
      return Error{at + ".status: expected \"pending\", \"converted\", \"failed\" or \"cancelled\""};
    }
    file.status = known->first;
    if (file.status == FileStatus::converted) {
      if (auto read = readString(object, "outputPath", at + ".outputPath", file.outputPath); !read) {
        return Error{read.error()};
      }
      if (file.outputPath.empty()) return Error{at + ".outputPath: empty"};
    } else if (file.status == FileStatus::failed) {
      if (auto read = readString(object, "error", at + ".error", file.error); !read)
        return Error{read.error()};
      if (file.error.empty()) return Error{at + ".error: empty"};
    }
    result.files.push_back(std::move(file));
  }
  return result;
}

}  // namespace palvin
