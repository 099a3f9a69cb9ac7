// The unified log on Linux: entries sent to the systemd journal in its native
// protocol, through a socket of our own, so that nothing of the host
// process's own logging (openlog's identity and facility) changes.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace palvin::linux_journal {

inline constexpr const char* kSocketPath = "/run/systemd/journal/socket";

using Field = std::pair<std::string_view, std::string_view>;  // name (A-Z, 0-9, _), value

// One entry as the journal reads it: "NAME=value\n" per field; a value holding
// a line feed as the name, "\n", its length as 64 bits little-endian, the
// bytes and "\n".
std::string encode(const std::vector<Field>& fields);

// A datagram socket of our own to the journal. Sending never blocks: an entry
// the journal has no room for, or one larger than a datagram (some 200 KB),
// is dropped.
class Socket {
 public:
  // Whether a journal listens is asked of the file system once, here: without
  // one, entries cost nothing.
  Socket();
  ~Socket();
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  bool listening() const { return fd_ >= 0; }
  // From any thread.
  void send(std::string_view entry) const;

 private:
  int fd_ = -1;
};

}  // namespace palvin::linux_journal
