// The mount table of /proc/self/mountinfo: its mount points, and a watcher
// thread that wakes on every mount or unmount.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace palvin::linux_mount_table {

// The mount point (fifth field) of every line, octal escapes such as "\040"
// decoded, in file order with duplicates kept. Lines too short are skipped.
std::vector<std::string> mountPoints(std::string_view mountinfo);

// Calls a handler on its own thread whenever the kernel reports a change of
// this process's mount table. The handler can be replaced while it runs.
class Watcher {
 public:
  // Nothing when the mount table or the wake-up descriptor can't be opened.
  static std::unique_ptr<Watcher> start(std::function<void()> handler);
  ~Watcher();  // stops
  Watcher(const Watcher&) = delete;
  Watcher& operator=(const Watcher&) = delete;

  void setHandler(std::function<void()> handler);
  // After it returns the handler is not called again. Allowed from inside
  // the handler, which then finishes its current call.
  void stop();

  struct State;

 private:
  explicit Watcher(std::shared_ptr<State> state);
  std::shared_ptr<State> state_;
};

}  // namespace palvin::linux_mount_table
