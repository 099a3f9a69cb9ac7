// One file of a request, from the untrusted request to a finished output:
// the checks, the engine, and the output beside the source.
#pragma once

#include <atomic>
#include <functional>
#include <optional>
#include <string>

#include "converters.h"
#include "requests/request_queue.h"
#include "services/log.h"

namespace palvin::host {

class FileConverter {
 public:
  using Logger = std::function<void(FinderLog::Level, const std::string&)>;
  // How far a file under way is, 0 to 1, where its engine can tell (ffmpeg).
  using FileProgress = std::function<void(const FinderFileTask& task, double fraction)>;

  FileConverter(const ConverterTable& table, std::string ffmpeg, Logger log, FileProgress progress = {})
      : table_(table), ffmpeg_(std::move(ffmpeg)), log_(std::move(log)), progress_(std::move(progress)) {}

  // Never throws. `converted` with the output path, `failed` with the reason,
  // `pending` when `stopping` interrupted it.
  FinderFileResult operator()(const FinderFileTask& task, const std::atomic<bool>& stopping) const;

 private:
  Status convert(const Conversion& conversion, const FinderFileTask& task, const std::string& temporary,
                 const std::atomic<bool>& stopping) const;

  const ConverterTable& table_;
  std::string ffmpeg_;
  Logger log_;
  FileProgress progress_;
};

}  // namespace palvin::host
