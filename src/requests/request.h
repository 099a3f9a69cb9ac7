// The conversion request: the one message the extension leaves for the host
// app, one compact JSON document per file in the shared "requests" directory.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "shared/result.h"

namespace palvin {

struct FinderFileRef {
  std::string path;
  std::string sourceFormatId;
  bool operator==(const FinderFileRef&) const = default;
};

struct FinderConversionRequest {
  std::string targetFormatId;
  std::vector<FinderFileRef> files;
  bool operator==(const FinderConversionRequest&) const = default;

  // The compact form: field order, no white space, every '/' written as "\/",
  // non-ASCII UTF-8 raw. Fails (with a description naming the field) when a
  // string is not valid UTF-8, so a corrupt file is never written.
  Result<std::string> encode() const;

  // Accepts keys in any order and ignores unknown ones; all four keys are
  // required with their JSON types.
  static Result<FinderConversionRequest> decode(std::string_view bytes);
};

// The request folder: "<container>/requests" holds one "<UUID>.json" file per
// request; the host app moves a claimed one into "processing" and one that
// does not decode into "failed" beside it, and writes its outcome to
// "<container>/results/<request file name>".
inline constexpr std::string_view kRequestDirectoryName = "requests";
inline constexpr std::string_view kProcessingDirectoryName = "processing";
inline constexpr std::string_view kFailedDirectoryName = "failed";
inline constexpr std::string_view kResultsDirectoryName = "results";
inline constexpr std::string_view kRequestFileExtension = ".json";

// A request file is named "*.json" without a leading dot; dot names are the
// temporary files of atomic writes still under way and must be left alone.
bool isRequestFileName(std::string_view name);

// The request file names in `directory`, sorted; an error when it can't be read.
Result<std::vector<std::string>> listRequestFileNames(const std::string& directory);

// A new random version-4 UUID in canonical upper-case text form.
std::string makeUuidV4();

// A new request file name: makeUuidV4() followed by ".json".
std::string newRequestFileName();

// The request directory for a container root: root + "/requests".
std::string requestDirectory(std::string_view containerRoot);

}  // namespace palvin
