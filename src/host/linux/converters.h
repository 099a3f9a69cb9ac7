// What the Linux host app can convert, in one table: the catalogue it
// installs for the extension is built from this table, so the menu offers
// exactly the conversions the code below performs.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "catalogue/capabilities.h"
#include "memory_budget.h"
#include "requests/request_queue.h"
#include "shared/result.h"

namespace palvin::host {

// The library or program that does a conversion.
enum class Engine { libvips, ffmpeg, poppler };

struct Category {
  std::string_view id, label, icon;
};

struct Format {
  std::string_view id, displayName, category;
  std::vector<std::string_view> extensions;  // the first is the one outputs get
  std::string_view ffmpegFormat{};           // ffmpeg's demuxer/muxer name, for audio and video
};

struct Conversion {
  std::string_view source, target;
  Engine engine;
};

class ConverterTable {
 public:
  // Every conversion this host app knows, less those of the ffmpeg engine
  // when `withFfmpeg` is false (the program is not installed).
  explicit ConverterTable(bool withFfmpeg);

  const Conversion* find(std::string_view source, std::string_view target) const;
  const Format* format(std::string_view id) const;

  // The capabilities document for exactly these conversions: formats that
  // take part in one, categories that hold such a format, the extensions of
  // source formats.
  FinderCapabilities catalogue(std::string generatedAt) const;

 private:
  std::vector<Conversion> conversions_;
};

// The absolute path of `program` found in $PATH, or empty.
std::string findProgram(std::string_view program);

// Progress of one file, 0 to 1, as far as the engine can tell.
using Progress = std::function<void(double fraction)>;

// Engines: each writes the converted `source` through `output`, a descriptor
// of an empty file open for reading and writing (never reopened by name), or
// says why it can't. `stopping` asks a long conversion to give up. An image
// waits for its share of `memory` once its header is read.
Status convertImage(const std::string& source, const Format& target, int output, MemoryBudget& memory,
                    const std::atomic<bool>& stopping);
Status convertMedia(const std::string& ffmpeg, const std::string& source, const Format& sourceFormat,
                    const Format& target, int output, const std::atomic<bool>& stopping,
                    const Progress& progress);
Status extractPdfText(const std::string& source, int output, const std::atomic<bool>& stopping);

// Sets libvips' limits for untrusted files: only the loaders of the table,
// no operation cache. Call once at start.
void limitImageDecoders();

}  // namespace palvin::host
