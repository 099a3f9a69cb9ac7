// The result document: what the host app did with one request, written as
// "results/<request file name>" in the shared container once the request is
// handled (and after each file while it is handled), so that the user, the
// tool and a host app resuming the request can read what became of every file.
//
//   {"targetFormatId":"webp","files":[
//     {"path":"\/a\/photo.png","status":"converted","outputPath":"\/a\/photo.webp"},
//     {"path":"\/a\/broken.png","status":"failed","error":"..."},
//     {"path":"\/a\/later.png","status":"pending"}]}
//
// "cancelled" marks a file the user's Cancel stopped or never let start. A
// request that could not be read at all gets a document of its own with no
// files, "status":"rejected" and the reason in "error".
//
// One entry per file of the request, in the request's order. Compact, slashes
// escaped and non-ASCII raw, like the request document.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "shared/result.h"

namespace palvin {

struct FinderFileResult {
  // pending: not finished yet (the request was returned to the queue, or is
  // still being worked on). cancelled: the user stopped the request first.
  enum class Status { pending, converted, failed, cancelled };

  std::string path;
  Status status = Status::pending;
  std::string outputPath;  // converted: where the output went; empty otherwise
  std::string error;       // failed: why; empty otherwise
  bool operator==(const FinderFileResult&) const = default;
};

struct FinderConversionResult {
  std::string targetFormatId;
  std::vector<FinderFileResult> files;
  std::string rejected{};  // why the whole request was refused; empty when it was read
  bool operator==(const FinderConversionResult&) const = default;

  // Writes "outputPath" only for converted files and "error" only for failed
  // ones. Fails when a string is not valid UTF-8.
  Result<std::string> encode() const;

  // As strict as the request's decoder: keys in any order, unknown keys
  // ignored, "targetFormatId", "files" and every entry's "path" and "status"
  // required with their types; "status" is "pending", "converted",
  // "failed" or "cancelled"; a converted entry needs a non-empty "outputPath", a failed one a
  // non-empty "error". Fields that do not belong to the status are ignored.
  static Result<FinderConversionResult> decode(std::string_view bytes);

  std::size_t count(FinderFileResult::Status status) const;
};

// "pending", "converted", "failed" or "cancelled".
std::string_view statusName(FinderFileResult::Status status);

}  // namespace palvin
