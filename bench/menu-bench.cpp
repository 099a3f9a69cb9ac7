// What one whole Convert menu costs on the real Linux platform for a large
// selection, next to what the file manager already pays for it: one stat()
// per selected file. Prints the menu/stat ratios, wall and CPU, at the end.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <map>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "catalogue/capabilities.h"
#include "finder/finder_sync.h"
#include "platform/linux_platform.h"
#include "services/log.h"

namespace {

using palvin::FinderCapabilities;

constexpr int kSelectedFiles = 10000;
constexpr int kCategories = 10;
constexpr int kFormatsPerCategory = 100;
constexpr int kPopularPerCategory = 15;

// Appends instead of chaining operator+, which g++ 12 misreads as an
// overlapping copy (-Wrestrict) at -O2.
std::string concat(std::initializer_list<std::string_view> parts) {
  std::string text;
  for (std::string_view part : parts) text.append(part);
  return text;
}

std::string formatId(int category, int index) {
  return concat({"f", std::to_string(category), "-", std::to_string(index)});
}

// 1,000 formats in 10 categories; the first two of category 0 stand for the
// selection's "png" and "jpg". Every format converts to the popular formats of
// its own category and a few popular ones of every other category.
std::string largeCatalogue() {
  FinderCapabilities c;
  c.schemaVersion = 1;
  c.generatedAt = "2026-11-23T09:00:00Z";
  for (int k = 0; k < kCategories; ++k) {
    const std::string n = std::to_string(k);
    c.categories.push_back({concat({"c", n}), concat({"Category ", n}), "photo"});
  }
  for (int k = 0; k < kCategories; ++k) {
    for (int i = 0; i < kFormatsPerCategory; ++i) {
      const std::string id = formatId(k, i);
      std::string extension = concat({"e", std::to_string(k), "x", std::to_string(i)});
      if (k == 0 && i < 2) extension = i == 0 ? "png" : "jpg";
      c.formats.push_back({id, concat({"Format ", std::to_string(k * kFormatsPerCategory + i)}),
                           concat({"c", std::to_string(k)}), extension});
      c.extensionToFormatId[extension] = id;
      std::vector<std::string>& targets = c.conversions[id];
      for (int p = 0; p < kPopularPerCategory; ++p) {
        if (p != i) targets.push_back(formatId(k, p));
      }
      for (int other = 0; other < kCategories; ++other) {
        if (other == k) continue;
        for (int p = 0; p < 1 + (k + other) % 3; ++p) targets.push_back(formatId(other, p));
      }
    }
  }
  return c.encode();
}

std::string sampleCatalogue() {
  std::ifstream in(PALVIN_SOURCE_DIR "/examples/capabilities.json");
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// A temporary tree: the selected files, and one shared container per
// catalogue. Removed at exit.
class Sandbox {
 public:
  Sandbox() {
    char pattern[] = "/tmp/palvin-menu-bench-XXXXXX";
    if (mkdtemp(pattern) == nullptr) return;
    root_ = pattern;
    std::filesystem::create_directories(root_ + "/files");
    // Camera names, some extensions in upper case; png and jpg convert to
    // common targets in both catalogues.
    const char* const kExtensions[] = {"png", "jpg", "PNG", "JPG", "png"};
    for (int i = 0; i < kSelectedFiles; ++i) {
      std::string path = concat({root_, "/files/IMG_", std::to_string(10000 + i), ".", kExtensions[i % 5]});
      const int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
      if (fd < 0) return;
      close(fd);
      paths_.push_back(std::move(path));
    }
    writeContainer("sample", sampleCatalogue());
    writeContainer("large", largeCatalogue());
  }
  ~Sandbox() {
    std::error_code ignored;
    if (!root_.empty()) std::filesystem::remove_all(root_, ignored);
  }
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  bool ready() const { return paths_.size() == kSelectedFiles; }
  const std::vector<std::string>& paths() const { return paths_; }
  std::string container(const std::string& name) const { return concat({root_, "/container-", name}); }
  std::string bundle() const { return root_ + "/Palvin.app/Contents/PlugIns/PalvinFinder.appex"; }

 private:
  void writeContainer(const std::string& name, const std::string& catalogue) {
    std::filesystem::create_directories(container(name));
    std::ofstream(container(name) + "/capabilities.json") << catalogue;
  }

  std::string root_;
  std::vector<std::string> paths_;
};

const Sandbox* gSandbox = nullptr;

// Sums over every run of a catalogue, estimation runs included: each is a
// fair measurement, and more of them steady the ratio.
struct Figures {
  double statReal = 0, menuReal = 0, statCpu = 0, menuCpu = 0;  // seconds
  double iterations = 0;
};
std::map<std::string, Figures> gFigures;

int statEach(const std::vector<std::string>& paths) {
  int found = 0;
  for (const std::string& path : paths) {
    struct stat info;
    found += stat(path.c_str(), &info) == 0 ? 1 : 0;
  }
  return found;
}

// Wall time and this thread's CPU time, which a busy machine stretches less.
struct Stamp {
  double real;
  double cpu;
  static Stamp now() {
    timespec cpu{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpu);
    return {std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count(),
            static_cast<double>(cpu.tv_sec) + static_cast<double>(cpu.tv_nsec) * 1e-9};
  }
};

// Each iteration stats the selected files, then builds the whole menu for
// them: selection, directory checks, a warm catalogue (only its date is looked
// at), extensions, plan, menu, state and the log line. Timing both side by
// side in every iteration keeps the ratio steady on a shared machine.
void BM_MenuNextToStat(benchmark::State& state, const std::string& catalogue) {
  palvin::LinuxPlatform::Options options;
  options.container = gSandbox->container(catalogue);
  options.bundlePath = gSandbox->bundle();
  palvin::LinuxPlatform platform(options);
  platform.setSelection(gSandbox->paths());
  Figures run;
  palvin::ScopedPlatform installed(platform);
  {
    palvin::FinderSync finder;
    if (finder.menuForMenuKind(0).items.empty() || !finder.capabilities().cached()) {
      state.SkipWithError("no Convert menu for the selection");
    }
    for (auto _ : state) {
      const Stamp start = Stamp::now();
      benchmark::DoNotOptimize(statEach(gSandbox->paths()));
      const Stamp statted = Stamp::now();
      palvin::Menu menu = finder.menuForMenuKind(0);
      benchmark::DoNotOptimize(menu);
      const Stamp built = Stamp::now();
      run.statReal += statted.real - start.real;
      run.statCpu += statted.cpu - start.cpu;
      run.menuReal += built.real - statted.real;
      run.menuCpu += built.cpu - statted.cpu;
    }
    if (finder.pendingFiles().size() != kSelectedFiles) state.SkipWithError("files missing from the plan");
  }
  // The log queue writes through the platform; let it finish first.
  palvin::FinderLog::flush();

  run.iterations = static_cast<double>(state.iterations());
  if (run.iterations == 0) return;
  Figures& total = gFigures[catalogue];
  total.statReal += run.statReal;
  total.menuReal += run.menuReal;
  total.statCpu += run.statCpu;
  total.menuCpu += run.menuCpu;
  total.iterations += run.iterations;
  state.counters["stat_us"] = run.statReal / run.iterations * 1e6;
  state.counters["menu_us"] = run.menuReal / run.iterations * 1e6;
  state.counters["ratio"] = run.menuReal / run.statReal;
  state.counters["cpu_ratio"] = run.menuCpu / run.statCpu;
}

BENCHMARK_CAPTURE(BM_MenuNextToStat, sample, std::string("sample"))->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_MenuNextToStat, large, std::string("large"))->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  const Sandbox sandbox;
  if (!sandbox.ready()) {
    std::fprintf(stderr, "could not create the selected files under /tmp\n");
    return 1;
  }
  gSandbox = &sandbox;

  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();

  std::printf("\nOne Convert menu for %d files next to stat() of the same files, over all runs:\n",
              kSelectedFiles);
  for (const auto& [catalogue, f] : gFigures) {
    std::printf("%-6s catalogue: real %.3f (menu %.0f us / stat %.0f us), cpu %.3f (%.0f us / %.0f us)\n",
                catalogue.c_str(), f.menuReal / f.statReal, f.menuReal / f.iterations * 1e6,
                f.statReal / f.iterations * 1e6, f.menuCpu / f.statCpu, f.menuCpu / f.iterations * 1e6,
                f.statCpu / f.iterations * 1e6);
  }
  return 0;
}
