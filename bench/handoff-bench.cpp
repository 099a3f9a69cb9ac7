// Hand-off latency: from the rename that puts a request into requests/ to its
// claim (the rename into requests/processing/) by a host app running with
// --watch, over 1,000 requests sent one after the other. Side by side, the
// floor under it: the same rename watched by this program itself with inotify.
#include <palvin/identifiers.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <thread>

#include "host_bench_support.h"

namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;
constexpr int kRequests = 1000;

// Blocks until an IN_MOVED_TO of `name` arrives on `fd`.
void awaitMove(int fd, const std::string& name) {
  alignas(inotify_event) char buffer[64 * (sizeof(inotify_event) + NAME_MAX + 1)];
  for (;;) {
    pollfd ready{fd, POLLIN, 0};
    if (::poll(&ready, 1, 10000) <= 0) {
      std::fprintf(stderr, "no claim of %s within 10 s\n", name.c_str());
      std::exit(1);
    }
    ssize_t length = ::read(fd, buffer, sizeof buffer);
    for (ssize_t at = 0; at < length;) {
      inotify_event event{};
      std::memcpy(&event, buffer + at, sizeof event);
      if (event.len > 0 && name == buffer + at + sizeof event) return;
      at += static_cast<ssize_t>(sizeof event + event.len);
    }
  }
}

// Latencies in microseconds of `count` renames from `staging` into `into`,
// each awaited in `watched`.
std::vector<double> measure(const std::string& staging, const std::string& into, const std::string& watched) {
  int fd = ::inotify_init1(IN_CLOEXEC);
  ::inotify_add_watch(fd, watched.c_str(), IN_MOVED_TO);
  std::vector<double> latencies;
  const std::string request = R"({"targetFormatId":"webp","files":[]})";
  for (int i = 0; i < kRequests; ++i) {
    std::string name = "R" + std::to_string(i) + ".json", staged = staging + "/." + name;
    palvin::bench::writeFile(staged, request);
    auto start = Clock::now();
    fs::rename(staged, into + "/" + name);
    awaitMove(fd, name);
    latencies.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  ::close(fd);
  std::sort(latencies.begin(), latencies.end());
  return latencies;
}

double percentile(const std::vector<double>& sorted, double p) {
  return sorted[std::min(sorted.size() - 1,
                         static_cast<std::size_t>(p * static_cast<double>(sorted.size())))];
}

}  // namespace

int main() {
  palvin::bench::TempDirectory root;
  const std::string container = root.path + "/container", requests = container + "/requests";
  fs::create_directories(requests);
  pid_t host = palvin::bench::startHostApp(container, {"--watch"});
  // The FIFO is made once the watch is on.
  const std::string fifo = container + "/notify/" + std::string(palvin::ids::kRequestNotificationName);
  for (int i = 0; i < 1000 && !fs::exists(fifo); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));

  auto claim = measure(container, requests, requests + "/processing");
  ::kill(host, SIGTERM);
  palvin::bench::waitFor(host);

  fs::create_directories(root.path + "/bare");
  auto floor = measure(root.path, root.path + "/bare", root.path + "/bare");

  std::printf("%d requests, one at a time, rename into requests/ -> claim (microseconds):\n", kRequests);
  std::printf("  host app --watch   p50 %8.1f  p99 %8.1f  max %8.1f\n", percentile(claim, 0.5),
              percentile(claim, 0.99), claim.back());
  std::printf("  bare inotify floor p50 %8.1f  p99 %8.1f  max %8.1f\n", percentile(floor, 0.5),
              percentile(floor, 0.99), floor.back());
  std::printf("p99 %.2f ms (goal <= 10 ms); ratio to the floor: p50 %.1f, p99 %.1f\n",
              percentile(claim, 0.99) / 1000, percentile(claim, 0.5) / percentile(floor, 0.5),
              percentile(claim, 0.99) / percentile(floor, 0.99));
  return 0;
}
