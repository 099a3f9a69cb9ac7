// What planning a menu costs next to what the Finder already pays for the
// selection: one stat() per selected file. Prints plan/stat ratios at the end.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <initializer_list>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "planner/menu_planner.h"
#include "platform/linux_text.h"
#include "ratio_reporter.h"

namespace {

using palvin::FinderCapabilities;
using palvin::FinderMenuPlanner::FileInput;

constexpr int kCategories = 10;
constexpr int kFormatsPerCategory = 100;
constexpr int kPopularPerCategory = 15;
constexpr int kSelectedFiles = 10000;

// Appends instead of chaining operator+, which g++ 12 misreads as an
// overlapping copy (-Wrestrict) at -O2.
std::string concat(std::initializer_list<std::string_view> parts) {
  std::string text;
  for (std::string_view part : parts) text.append(part);
  return text;
}

std::string formatId(int category, int index) {
  return concat({"fmt-", std::to_string(category), "-", std::to_string(index)});
}

// Names with mixed case, accents and digits, so the collator does real work.
std::string displayName(std::mt19937& random) {
  static const char* const kSyllables[] = {"Pho", "to",  "Doc", "u",  "ment", "Ar",  "chive",
                                           "Au",  "dio", "Vi",  "de", "o",    "Ras", "ter",
                                           "Vec", "tor", "É",   "lé", "Ö",    "ma"};
  std::string name;
  const int syllables = 2 + static_cast<int>(random() % 3);
  for (int i = 0; i < syllables; ++i) name += kSyllables[random() % 20];
  if (random() % 3 == 0) name.append(" ").append(std::to_string(random() % 100));
  return name;
}

// 1,000 formats in 10 categories. Each source converts to the popular formats
// of its own category, a few popular ones of every other category, and some
// random others: 20 to 50 targets, as a real converter's catalogue has.
FinderCapabilities makeCatalogue() {
  std::mt19937 random(42);
  FinderCapabilities c;
  c.schemaVersion = 1;
  for (int k = 0; k < kCategories; ++k) {
    const std::string n = std::to_string(k);
    c.categories.push_back({concat({"cat-", n}), concat({"Category ", n}), concat({"symbol.", n})});
  }
  for (int k = 0; k < kCategories; ++k) {
    for (int i = 0; i < kFormatsPerCategory; ++i) {
      const std::string id = formatId(k, i);
      const std::string extension = concat({"e", std::to_string(k), "x", std::to_string(i)});
      c.formats.push_back({id, displayName(random), concat({"cat-", std::to_string(k)}), extension});
      c.extensionToFormatId[extension] = id;
      std::vector<std::string>& targets = c.conversions[id];
      for (int p = 0; p < kPopularPerCategory; ++p) {
        if (p != i) targets.push_back(formatId(k, p));
      }
      for (int other = 0; other < kCategories; ++other) {
        if (other == k) continue;
        const int popular = 1 + (k + other) % 3;
        for (int p = 0; p < popular; ++p) targets.push_back(formatId(other, p));
      }
      const int extra = static_cast<int>(random() % 16);
      for (int e = 0; e < extra; ++e) {
        targets.push_back(formatId(static_cast<int>(random() % kCategories),
                                   static_cast<int>(random() % kFormatsPerCategory)));
      }
    }
  }
  return c;
}

// Real files to stat, in a directory of their own that is removed at exit.
class SelectedFiles {
 public:
  SelectedFiles() {
    char pattern[] = "/tmp/palvin-planner-bench-XXXXXX";
    if (mkdtemp(pattern) == nullptr) return;
    directory_ = pattern;
    // A handful of extensions of one category, shuffled, some in upper case
    // as cameras write them.
    const char* const kExtensions[] = {"e0x1", "e0x2", "E0X3", "e0x20", "e0x2", "e0x1"};
    std::mt19937 random(7);
    for (int i = 0; i < kSelectedFiles; ++i) {
      std::string path =
          concat({directory_, "/IMG_", std::to_string(10000 + i), ".", kExtensions[random() % 6]});
      const int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
      if (fd < 0) return;
      close(fd);
      paths_.push_back(std::move(path));
    }
  }
  ~SelectedFiles() {
    for (const std::string& path : paths_) unlink(path.c_str());
    if (!directory_.empty()) rmdir(directory_.c_str());
  }
  SelectedFiles(const SelectedFiles&) = delete;
  SelectedFiles& operator=(const SelectedFiles&) = delete;

  bool ready() const { return paths_.size() == kSelectedFiles; }
  const std::vector<std::string>& paths() const { return paths_; }

 private:
  std::string directory_;
  std::vector<std::string> paths_;
};

const FinderCapabilities* gCatalogue = nullptr;
const SelectedFiles* gFiles = nullptr;
const palvin::TextRules* gText = nullptr;

std::vector<FileInput> inputsFor(const std::vector<std::string>& paths) {
  std::vector<FileInput> inputs;
  inputs.reserve(paths.size());
  for (const std::string& path : paths)
    inputs.push_back(palvin::FinderMenuPlanner::fileInputForPath(path, *gText));
  return inputs;
}

void BM_Stat(benchmark::State& state) {
  for (auto _ : state) {
    int found = 0;
    for (const std::string& path : gFiles->paths()) {
      struct stat info;
      found += stat(path.c_str(), &info) == 0 ? 1 : 0;
    }
    benchmark::DoNotOptimize(found);
  }
  state.SetItemsProcessed(state.iterations() * kSelectedFiles);
}

void BM_Plan(benchmark::State& state) {
  const std::vector<FileInput> inputs = inputsFor(gFiles->paths());
  if (!palvin::FinderMenuPlanner::plan(*gCatalogue, inputs, *gText))
    state.SkipWithError("no plan for the selection");
  for (auto _ : state) {
    auto plan = palvin::FinderMenuPlanner::plan(*gCatalogue, inputs, *gText);
    benchmark::DoNotOptimize(plan);
  }
  state.SetItemsProcessed(state.iterations() * kSelectedFiles);
}

// What the menu does: take each path's extension, then plan.
void BM_ExtensionAndPlan(benchmark::State& state) {
  for (auto _ : state) {
    auto plan = palvin::FinderMenuPlanner::plan(*gCatalogue, inputsFor(gFiles->paths()), *gText);
    benchmark::DoNotOptimize(plan);
  }
  state.SetItemsProcessed(state.iterations() * kSelectedFiles);
}

// The fixed cost of one menu: indexes over the whole catalogue and the sort.
void BM_PlanOneFile(benchmark::State& state) {
  const std::vector<FileInput> inputs = inputsFor({gFiles->paths().front()});
  for (auto _ : state) {
    auto plan = palvin::FinderMenuPlanner::plan(*gCatalogue, inputs, *gText);
    benchmark::DoNotOptimize(plan);
  }
}

BENCHMARK(BM_Stat)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Plan)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ExtensionAndPlan)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PlanOneFile)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  const FinderCapabilities catalogue = makeCatalogue();
  const SelectedFiles files;
  if (!files.ready()) {
    std::fprintf(stderr, "could not create the selected files under /tmp\n");
    return 1;
  }
  gCatalogue = &catalogue;
  gFiles = &files;
  const auto text = palvin::linux_text::currentRules();
  gText = text.get();

  palvin::bench::RecordingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();

  std::printf("\nPlanning %d files against %zu formats, next to stat() of the same files:\n", kSelectedFiles,
              catalogue.formats.size());
  palvin::bench::printRatio(reporter, "BM_Plan", "BM_Stat");
  palvin::bench::printRatio(reporter, "BM_ExtensionAndPlan", "BM_Stat");
  return 0;
}
