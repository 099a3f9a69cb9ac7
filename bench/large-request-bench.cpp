// How a request's size weighs on the host app: files handled per second for a
// request of 1,000 files whose sources are missing, next to one of 100,000,
// each run by the host app from the build tree. The per-file cost of the big
// one should stay within 1.5 times the small one's.
#include <chrono>
#include <cstdio>
#include <string>

#include "host_bench_support.h"
#include "requests/request.h"

namespace {

double filesPerSecond(const std::string& root, int files) {
  const std::string container = root + "/" + std::to_string(files);
  std::filesystem::create_directories(container + "/requests");
  palvin::FinderConversionRequest request{"webp", {}};
  for (int i = 0; i < files; ++i)
    request.files.push_back({root + "/missing/" + std::to_string(i) + ".png", "png"});
  palvin::bench::writeFile(container + "/requests/big.json", *request.encode());
  const auto start = std::chrono::steady_clock::now();
  const int status = palvin::bench::waitFor(palvin::bench::startHostApp(container, {}));
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (status != 0) std::fprintf(stderr, "the host app ended with status %d\n", status);
  return files / seconds;
}

}  // namespace

int main() {
  palvin::bench::TempDirectory root;
  const double small = filesPerSecond(root.path, 1000), big = filesPerSecond(root.path, 100000);
  std::printf("1,000 missing files:   %10.0f files/s\n", small);
  std::printf("100,000 missing files: %10.0f files/s\n", big);
  std::printf(
      "per-file cost, 100,000 / 1,000: %.2fx (at most 1.5x expected; the small run includes start-up)\n",
      small / big);
  return 0;
}
