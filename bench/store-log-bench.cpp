// The costs the extension puts on Finder's critical path, each next to what
// the same work costs done the plain way, in one run:
//   - a cache-hit CapabilityStore::load against one bare stat() of the file;
//   - a cold load (read + decode) of a ~1 MB catalogue against parsing the same
//     bytes with nlohmann::json;
//   - the caller's cost of FinderLog::log against formatting the line and
//     appending it synchronously (open, seek to the end, write, close).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>

#include "catalogue/capability_store.h"
#include "platform/linux_platform.h"
#include "ratio_reporter.h"
#include "services/log.h"

namespace {

using palvin::FinderCapabilities;
namespace fs = std::filesystem;

std::string gContainer;
std::string gCataloguePath;
std::string gCatalogueBytes;
const std::string kMessage = "Built Convert menu: 3 file(s), 4 inline target(s), 2 nested categor(ies)";

// Appends rather than "literal" + std::to_string(), which g++ 12 misreads as
// an overlapping copy (-Wrestrict) at -O2.
std::string numbered(std::string_view prefix, int n) {
  std::string out(prefix);
  out += std::to_string(n);
  return out;
}

// About 1 MB: 2,000 formats in 20 categories, each converting to 30 others.
FinderCapabilities makeCatalogue() {
  FinderCapabilities c;
  c.schemaVersion = 1;
  c.generatedAt = "2026-11-23T09:00:00Z";
  for (int k = 0; k < 20; ++k) {
    c.categories.push_back({numbered("category", k), numbered("Category ", k), "doc.text"});
  }
  for (int i = 0; i < 2000; ++i) {
    std::string id = numbered("format", i);
    c.formats.push_back({id, numbered("Format Nr. ", i), numbered("category", i % 20), numbered("f", i)});
    c.extensionToFormatId[numbered("f", i)] = id;
    auto& targets = c.conversions[id];
    for (int t = 1; t <= 30; ++t) targets.push_back(numbered("format", (i + t * 37) % 2000));
  }
  return c;
}

void BM_StatCatalogue(benchmark::State& state) {
  struct stat st {};
  for (auto _ : state) benchmark::DoNotOptimize(stat(gCataloguePath.c_str(), &st));
}

void BM_LoadCached(benchmark::State& state) {
  palvin::CapabilityStore store;
  if (!store.load()) state.SkipWithError("the catalogue did not load");
  for (auto _ : state) benchmark::DoNotOptimize(store.load());
}

void BM_LoadCold(benchmark::State& state) {
  for (auto _ : state) {
    palvin::CapabilityStore store;  // empty, so every load reads and decodes
    benchmark::DoNotOptimize(store.load());
  }
}

void BM_NlohmannParse(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(nlohmann::json::parse(gCatalogueBytes));
}

void BM_Log(benchmark::State& state) {
  for (auto _ : state) palvin::FinderLog::log(palvin::FinderLog::Level::info, kMessage);
  palvin::FinderLog::flush();  // the queue's work is not the caller's cost
}

void BM_SyncAppend(benchmark::State& state) {
  const std::string path = gContainer + "/sync-append.log";
  for (auto _ : state) {
    std::string line = palvin::FinderLog::formatLine(std::chrono::system_clock::now(),
                                                     palvin::FinderLog::Level::info, kMessage);
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    lseek(fd, 0, SEEK_END);
    benchmark::DoNotOptimize(write(fd, line.data(), line.size()));
    close(fd);
  }
}

BENCHMARK(BM_StatCatalogue);
BENCHMARK(BM_LoadCached);
BENCHMARK(BM_LoadCold)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_NlohmannParse)->Unit(benchmark::kMillisecond);
// Bounded, so the log queue's backlog stays small.
BENCHMARK(BM_Log)->Iterations(100000);
BENCHMARK(BM_SyncAppend)->Iterations(100000);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;

  std::string pattern = (fs::temp_directory_path() / "palvin-store-bench-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) return 1;
  gContainer = pattern;
  gCataloguePath = gContainer + "/capabilities.json";
  gCatalogueBytes = makeCatalogue().encode(true);
  std::ofstream(gCataloguePath, std::ios::binary) << gCatalogueBytes;

  palvin::LinuxPlatform::Options options;
  options.container = gContainer;
  palvin::LinuxPlatform platform(options);
  palvin::ScopedPlatform installed(platform);
  bool logger = platform.unifiedLogEnabled(palvin::UnifiedLogType::info);

  palvin::bench::RecordingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();

  std::printf("\nCatalogue of %.2f MB; journal listening: %s\n", gCatalogueBytes.size() / 1e6,
              logger ? "yes" : "no");
  palvin::bench::printRatio(reporter, "BM_LoadCached", "BM_StatCatalogue");
  palvin::bench::printRatio(reporter, "BM_LoadCold", "BM_NlohmannParse");
  palvin::bench::printRatio(reporter, "BM_Log", "BM_SyncAppend");
  std::error_code ignored;
  fs::remove_all(gContainer, ignored);
  return 0;
}
