// The cost of the request path: 200 PNGs converted to WebP by the sample host
// app through one request (write the request, start AppRun, wait for it to
// exit) against the same conversions done by libvips directly in this
// process, with the same settings, on one thread and on as many threads as
// the host app uses. Several rounds, alternating; medians and their ratios (on
// a shared machine the ratio within each round is the steadier figure).
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vips/vips8>

#include "host_bench_support.h"
#include "requests/request.h"

namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;
constexpr int kFiles = 200;
constexpr int kRounds = 3;

double seconds(Clock::time_point since) {
  return std::chrono::duration<double>(Clock::now() - since).count();
}

void removeOutputs(const std::string& directory) {
  for (const auto& entry : fs::directory_iterator(directory)) {
    if (entry.path().extension() == ".webp") fs::remove(entry.path());
  }
}

// What the host app does for a PNG to WebP, without the request around it.
void convertDirectly(const std::string& source) {
  std::string output = source.substr(0, source.size() - 4) + ".webp";
  auto options =
      vips::VImage::option()->set("access", VIPS_ACCESS_SEQUENTIAL)->set("fail_on", VIPS_FAIL_ON_ERROR);
  vips::VImage::new_from_file(source.c_str(), options)
      .webpsave(output.c_str(), vips::VImage::option()->set("Q", 80));
}

double direct(const std::vector<std::string>& sources, unsigned threads) {
  auto start = Clock::now();
  std::atomic<std::size_t> next{0};
  auto work = [&] {
    for (std::size_t i; (i = next.fetch_add(1)) < sources.size();) convertDirectly(sources[i]);
  };
  std::vector<std::thread> helpers;
  for (unsigned i = 1; i < threads; ++i) helpers.emplace_back(work);
  work();
  for (auto& helper : helpers) helper.join();
  return seconds(start);
}

double throughRequest(const std::string& container, const std::string& request, int round) {
  auto start = Clock::now();
  std::string name = "R";
  name.append(std::to_string(round)).append(".json");
  palvin::bench::writeFile(container + "/.request", request);
  fs::rename(container + "/.request", container + "/requests/" + name);
  pid_t pid = palvin::bench::startHostApp(container, {});
  int status = palvin::bench::waitFor(pid);
  double took = seconds(start);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) std::fprintf(stderr, "host app failed\n");
  return took;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

}  // namespace

int main(int, char** argv) {
  if (VIPS_INIT(argv[0]) != 0) return 1;
  vips_cache_set_max(0);  // as the host app: every file is converted once
  palvin::bench::TempDirectory root;
  const std::string files = root.path + "/Files", container = root.path + "/container";
  fs::create_directories(files);
  fs::create_directories(container + "/requests");

  // Photo-like 1024 x 768 images: a gradient with mild noise.
  palvin::FinderConversionRequest request{"webp", {}};
  std::vector<std::string> sources;
  vips::VImage photo =
      (vips::VImage::xyz(1024, 768)[0] / 4 +
       vips::VImage::gaussnoise(1024, 768, vips::VImage::option()->set("sigma", 8)))
          .bandjoin({vips::VImage::xyz(1024, 768)[1] / 3, vips::VImage::xyz(1024, 768)[0] / 5})
          .cast(VIPS_FORMAT_UCHAR)
          .copy_memory();
  for (int i = 0; i < kFiles; ++i) {
    sources.push_back(files + "/photo" + std::to_string(i) + ".png");
    photo.pngsave(sources.back().c_str());
    request.files.push_back({sources.back(), "png"});
  }
  const std::string bytes = *request.encode();
  const unsigned threads = std::max(1u, std::thread::hardware_concurrency());
  // The first run installs the catalogue and warms the page cache.
  throughRequest(container, bytes, -1);

  std::vector<double> viaRequest, oneThread, sameThreads, ratios;
  for (int round = 0; round < kRounds; ++round) {
    removeOutputs(files);
    viaRequest.push_back(throughRequest(container, bytes, round));
    removeOutputs(files);
    sameThreads.push_back(direct(sources, threads));
    removeOutputs(files);
    oneThread.push_back(direct(sources, 1));
    ratios.push_back(viaRequest.back() / sameThreads.back());
    std::printf(
        "round %d: request %.3f s, libvips on %u threads %.3f s (ratio %.3f), libvips on 1 thread %.3f s\n",
        round, viaRequest.back(), threads, sameThreads.back(), ratios.back(), oneThread.back());
    std::fflush(stdout);
  }
  double request_ = median(viaRequest), same = median(sameThreads), one = median(oneThread);
  std::printf("\n%d PNGs (1024 x 768) to WebP, medians of %d rounds:\n", kFiles, kRounds);
  std::printf("  through a request (AppRun started, %u files at a time)  %.3f s\n", threads, request_);
  std::printf("  libvips directly, %u threads                            %.3f s\n", threads, same);
  std::printf("  libvips directly, 1 thread                              %.3f s\n", one);
  std::printf(
      "ratio request / direct (same threads): %.3f of the medians, %.3f the median of the rounds' ratios"
      "  (goal <= 1.10)\n",
      request_ / same, median(ratios));
  std::printf("ratio request / direct (1 thread):     %.3f\n", request_ / one);
  vips_shutdown();
  return 0;
}
