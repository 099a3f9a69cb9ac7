#include "requests/request_queue.h"

#include <dirent.h>
#include <fcntl.h>
#include <simdjson.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <exception>
#include <functional>
#include <mutex>
#include <set>
#include <system_error>
#include <thread>

#include "platform/platform.h"
#include "requests/output_file.h"
#include "shared/json_reader.h"
#include "shared/json_writer.h"
#include "shared/paths.h"

namespace palvin {
namespace {

using Level = FinderLog::Level;

// Result documents kept however old: the history `palvin-finder requests` shows.
constexpr std::size_t kKeptResults = 1000;

// Request documents are a few kilobytes; anything far larger is not one.
constexpr std::size_t kMaxRequestSize = 16u << 20;

std::string describe(std::string_view path, int errnum) {
  return std::string(path) + ": " + std::generic_category().message(errnum);
}

bool sameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

Result<std::string> readAll(int fd, const std::string& path) {
  std::string bytes;
  char buffer[16384];
  for (;;) {
    ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return Error{describe(path, errno)};
    if (n == 0) return bytes;
    bytes.append(buffer, static_cast<std::size_t>(n));
    if (bytes.size() > kMaxRequestSize) return Error{path + ": larger than a request can be"};
  }
}

// `text` with every byte that is not part of valid UTF-8 replaced, cut after
// `limit` bytes.
std::string withValidUtf8(std::string_view text, std::string_view replacement, std::size_t limit) {
  std::string out;
  for (std::size_t i = 0; i < text.size() && out.size() < limit;) {
    auto c = static_cast<unsigned char>(text[i]);
    std::size_t length = c < 0x80 ? 1 : c < 0xE0 ? 2 : c < 0xF0 ? 3 : 4;
    const bool valid = length <= text.size() - i && json::isValidUtf8(text.substr(i, length));
    out.append(valid ? text.substr(i, length) : replacement);
    i += valid ? length : 1;
  }
  return out;
}

// A reason is the converter's text: kept to about a kilobyte, and made valid
// UTF-8 so that the document can always be written.
std::string reasonText(std::string_view text) {
  constexpr std::size_t kMaxReason = 1024;
  std::string out = withValidUtf8(text, "?", kMaxReason);
  if (out.size() >= kMaxReason && out.size() < text.size()) out += "\xE2\x80\xA6";
  return out;
}

// Stands in a decoded request for bytes that were not UTF-8: U+FFFF, a
// noncharacter that no file name has.
constexpr std::string_view kNotUtf8 = "\xEF\xBF\xBF";

// A request whose only fault is a string that is not UTF-8 (a path of some
// other encoding) still decodes, with those bytes marked, so that the file
// fails alone instead of the whole request.
Result<FinderConversionRequest> decodeRequest(std::string_view bytes) {
  auto request = FinderConversionRequest::decode(bytes);
  if (request.ok() || json::isValidUtf8(bytes)) return request;
  const std::string marked = withValidUtf8(bytes, kNotUtf8, bytes.size() * 3);
  auto tolerant = FinderConversionRequest::decode(marked);
  return tolerant.ok() && tolerant->targetFormatId.find(kNotUtf8) == std::string::npos ? tolerant : request;
}

// One journal line: {"index":3,"status":"converted","text":"\/a\/b.webp"};
// "text" is the output or the reason, and "publishing" lines add "identity".
std::string journalLine(std::size_t index, std::string_view status, std::string_view text,
                        std::string_view identity = {}) {
  std::string line = "{\"index\":" + std::to_string(index) + ",\"status\":\"" + std::string(status) + "\"";
  line += ",\"text\":";
  if (!json::appendString(line, text, true)) json::appendString(line, reasonText(text), true);
  if (!identity.empty()) {
    line += ",\"identity\":";
    json::appendString(line, identity);
  }
  return line + "}\n";
}

std::string identityOf(const std::string& path) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return {};
  return std::to_string(info.st_dev) + ":" + std::to_string(info.st_ino);
}

// Applies a journal's lines to `result`. An output announced but not
// recorded is the file's when it is there under that name with that
// identity (the run was killed after publishing it); else the file is
// still to do. A torn last line (killed while writing it) is ignored.
void applyJournal(std::string_view bytes, FinderConversionResult& result) {
  using FileStatus = FinderFileResult::Status;
  std::vector<std::pair<std::size_t, std::string>> announced;
  simdjson::dom::parser parser;
  for (std::size_t end; (end = bytes.find('\n')) != std::string_view::npos; bytes.remove_prefix(end + 1)) {
    simdjson::dom::object line;
    std::uint64_t index = 0;
    std::string_view status, text, identity;
    if (parser.parse(bytes.substr(0, end).data(), end).get(line) != simdjson::SUCCESS ||
        line["index"].get(index) != simdjson::SUCCESS || line["status"].get(status) != simdjson::SUCCESS ||
        line["text"].get(text) != simdjson::SUCCESS || index >= result.files.size()) {
      continue;
    }
    FinderFileResult& file = result.files[index];
    if (status == "publishing" && line["identity"].get(identity) == simdjson::SUCCESS) {
      if (identityOf(std::string(text)) == identity) announced.emplace_back(index, text);
    } else if (status == "converted") {
      file = {file.path, FileStatus::converted, std::string(text), {}};
    } else if (status == "failed") {
      file = {file.path, FileStatus::failed, {}, std::string(text)};
    } else if (status == "cancelled") {
      file = {file.path, FileStatus::cancelled, {}, {}};
    }
  }
  for (auto& [index, output] : announced) {
    FinderFileResult& file = result.files[index];
    if (file.status == FileStatus::pending) file = {file.path, FileStatus::converted, std::move(output), {}};
  }
}

}  // namespace

// A request this instance holds: the open, locked file and where it is now.
struct FinderRequestQueue::Claim {
  std::string name;
  int fd = -1;
  bool recovered = false;
  ~Claim() {
    if (fd >= 0) ::close(fd);  // drops the lock
  }
};

FinderRequestQueue::FinderRequestQueue(std::string containerRoot, Options options)
    : requests_(requestDirectory(containerRoot)),
      processing_(paths::join(requests_, kProcessingDirectoryName)),
      failed_(paths::join(requests_, kFailedDirectoryName)),
      results_(paths::join(containerRoot, kResultsDirectoryName)),
      options_(std::move(options)) {
  if (options_.parallelism == 0) options_.parallelism = 1;
}

void FinderRequestQueue::log(Level level, const std::string& message) const {
  if (options_.log) options_.log(level, message);
}

FinderRequestQueue::~FinderRequestQueue() {
  if (instances_ >= 0) ::close(instances_);
}

Status FinderRequestQueue::prepare() {
  for (const std::string* directory : {&processing_, &failed_, &results_}) {
    if (auto created = currentPlatform().createDirectories(*directory); !created.ok()) return created;
  }
  // Every instance holds this lock shared while it lives; the one that finds
  // itself alone clears what killed instances left, which no live one is
  // still writing.
  if (instances_ < 0) {
    const std::string lock = paths::join(requests_, ".instances");
    instances_ = ::open(lock.c_str(), O_RDONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY, 0600);
    if (instances_ < 0) return Error{describe(lock, errno)};
    if (::flock(instances_, LOCK_EX | LOCK_NB) == 0) removeLeftovers();
    while (::flock(instances_, LOCK_SH) != 0 && errno == EINTR) {
    }
  }
  return success();
}

std::string FinderRequestQueue::journalPath(const std::string& name) const {
  // Within NAME_MAX whatever the request's name: a part of it, and a hash.
  std::uint64_t hash = 14695981039346656037ull;
  for (unsigned char c : name) hash = (hash ^ c) * 1099511628211ull;
  char hex[17];
  std::snprintf(hex, sizeof hex, "%016llx", static_cast<unsigned long long>(hash));
  return paths::join(processing_, stemOf(name).substr(0, 200) + "." + hex + ".journal");
}

// This queue's own leftovers, by their name and owner: the temporary files of
// result documents whose writer was killed, journals of requests that are
// gone, and result documents past what is kept.
void FinderRequestQueue::removeLeftovers() {
  auto each = [](const std::string& directory, auto&& visit) {
    if (DIR* dir = ::opendir(directory.c_str())) {
      while (const dirent* entry = ::readdir(dir)) visit(std::string(entry->d_name));
      ::closedir(dir);
    }
  };
  auto removeOwn = [this](const std::string& path, bool quietly = false) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode) || info.st_uid != ::geteuid()) return 0;
    if (::unlink(path.c_str()) != 0) return 0;
    if (!quietly) log(Level::info, "Removed " + path + ", left by an instance that stopped");
    return 1;
  };
  each(results_, [&](const std::string& name) {
    if (name.starts_with(".") && name.ends_with(".tmp")) removeOwn(paths::join(results_, name));
  });
  // Result documents: the last 30 days, or the last 1,000, whichever is more.
  std::vector<std::pair<std::time_t, std::string>> documents;
  each(results_, [&](const std::string& name) {
    struct stat info {};
    if (isRequestFileName(name) && ::lstat(paths::join(results_, name).c_str(), &info) == 0) {
      documents.emplace_back(info.st_mtime, name);
    }
  });
  std::sort(documents.begin(), documents.end(), std::greater<>());
  const std::time_t monthAgo = std::time(nullptr) - 30 * 24 * 3600;
  int pruned = 0;
  for (std::size_t i = kKeptResults; i < documents.size(); ++i) {
    if (documents[i].first < monthAgo) pruned += removeOwn(paths::join(results_, documents[i].second), true);
  }
  if (pruned > 0) log(Level::info, "Removed " + std::to_string(pruned) + " result document(s) past 30 days");
  std::set<std::string> kept;
  for (const std::string* directory : {&requests_, &processing_}) {
    auto names = listRequestFileNames(*directory);
    if (!names.ok()) return;  // nothing is removed on a partial view
    for (const auto& name : *names) kept.insert(journalPath(name));
  }
  each(processing_, [&](const std::string& name) {
    const std::string path = paths::join(processing_, name);
    if (name.ends_with(".journal") && !kept.contains(path)) removeOwn(path);
  });
}

bool FinderRequestQueue::journal(const std::string& line) {
  std::lock_guard lock(journalMutex_);
  std::string_view rest = line;
  while (!rest.empty() && journal_ >= 0) {
    ssize_t n = ::write(journal_, rest.data(), rest.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    rest.remove_prefix(static_cast<std::size_t>(n));
  }
  return rest.empty();
}

std::size_t FinderRequestQueue::processPending() {
  std::size_t handled = 0;
  // Each name once per call: a request that can't be moved out of
  // processing/ (into failed/, say) would otherwise be recovered forever.
  std::set<std::string> seen;
  for (bool found = true; found && !stopRequested();) {
    found = recoverAbandoned(handled, seen);
    auto names = listRequestFileNames(requests_);
    if (!names.ok()) {
      log(Level::error, "Cannot read requests: " + names.error());
      break;
    }
    for (const auto& name : *names) {
      if (stopRequested()) break;
      Claim claimed;
      if (seen.contains(name) || !claim(name, claimed)) continue;
      seen.insert(name);
      found = true;
      if (handle(claimed)) {
        ++handled;
      } else {
        seen.erase(name);  // made way: taken again after the others
      }
    }
  }
  return handled;
}

// The lock is taken before the rename, on the file still in requests/, so a
// file in processing/ is always locked while its claimer lives. A second
// instance that opened the same file meanwhile waits for nothing: its lock
// attempt fails, or it gets the lock only after the first one is done with
// the file, and then finds the name gone.
bool FinderRequestQueue::claim(const std::string& name, Claim& out) {
  const std::string waiting = paths::join(requests_, name);
  int fd = ::open(waiting.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY);
  if (fd < 0 && errno == ELOOP) {
    // A request is a file of its own: a link could lead anywhere.
    setAside(name, requests_, "a symbolic link, not a request file");
    return false;
  }
  if (fd < 0) {
    if (errno != ENOENT) log(Level::error, "Cannot claim " + describe(waiting, errno));
    return false;
  }
  out.fd = fd;
  out.name = name;
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0) return false;
  struct stat opened {
  }, current{};
  if (::fstat(fd, &opened) != 0 || ::lstat(waiting.c_str(), &current) != 0 || !sameFile(opened, current)) {
    return false;  // taken and finished by another instance meanwhile
  }
  if (::rename(waiting.c_str(), paths::join(processing_, name).c_str()) != 0) {
    if (errno != ENOENT) log(Level::error, "Cannot claim " + describe(waiting, errno));
    return false;
  }
  return true;
}

// A claim whose lock nobody holds any more: its instance died. Returns true
// when it took over anything.
bool FinderRequestQueue::recoverAbandoned(std::size_t& handled, std::set<std::string>& seen) {
  auto names = listRequestFileNames(processing_);
  if (!names.ok()) return false;
  bool any = false;
  for (const auto& name : *names) {
    if (stopRequested()) break;
    if (!seen.insert(name).second) continue;
    const std::string path = paths::join(processing_, name);
    Claim claimed;
    claimed.name = name;
    claimed.recovered = true;
    claimed.fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY);
    if (claimed.fd < 0 || ::flock(claimed.fd, LOCK_EX | LOCK_NB) != 0) continue;
    struct stat opened {
    }, current{};
    if (::fstat(claimed.fd, &opened) != 0 || ::lstat(path.c_str(), &current) != 0 ||
        !sameFile(opened, current)) {
      continue;  // finished and removed by its owner meanwhile
    }
    log(Level::warn, "Recovered request " + name + " left in processing/ by an instance that stopped");
    any = true;
    if (handle(claimed)) {
      ++handled;
    } else {
      seen.erase(name);
    }
  }
  return any;
}

// Moved to failed/ (never deleted), with a result document that says why, so
// that the tool and the desktop show it like any other outcome.
void FinderRequestQueue::setAside(const std::string& name, const std::string& from,
                                  const std::string& reason) {
  log(Level::error, "Rejected request " + name + ": " + reason);
  const std::string claimed = paths::join(from, name);
  if (::rename(claimed.c_str(), paths::join(failed_, name).c_str()) != 0) {
    if (errno == ENOENT) return;  // another instance set it aside first
    log(Level::error, "Cannot move aside " + describe(claimed, errno));
  }
  FinderConversionResult result{"", {}, reasonText(reason)};
  record(name, result);
  if (options_.finished) options_.finished(name, result);
}

bool FinderRequestQueue::handle(Claim& claim) {
  const std::string claimed = paths::join(processing_, claim.name);
  struct stat info {};
  if (::fstat(claim.fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    setAside(claim.name, processing_, "not a regular file");
    return true;
  }
  auto bytes = readAll(claim.fd, claimed);
  auto request = bytes.ok() ? decodeRequest(*bytes) : Error{bytes.error()};
  if (!request.ok()) {
    setAside(claim.name, processing_, request.error());
    return true;
  }
  FinderConversionResult result = priorResult(claim.name, *request);
  for (auto& file : result.files) {
    if (file.status == FinderFileResult::Status::pending && file.path.find(kNotUtf8) != std::string::npos) {
      file = {file.path, FinderFileResult::Status::failed, {}, "the path is not valid UTF-8"};
    }
  }
  const std::string journalFile = journalPath(claim.name);
  // What the journal held is in the document now: it starts afresh. A
  // document that can't be written leaves the request for a later pass.
  if (!record(claim.name, result)) {
    (void)::rename(claimed.c_str(), paths::join(requests_, claim.name).c_str());
    return true;
  }
  journal_ =
      ::open(journalFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (journal_ < 0) {
    log(Level::error, "Cannot keep a journal: " + describe(journalFile, errno));
    (void)::rename(claimed.c_str(), paths::join(requests_, claim.name).c_str());
    return true;
  }
  {
    std::lock_guard lock(underWayMutex_);
    underWay_ = claim.name;
    cancelled_ = false;
    // Cleared before the stop flag is read, so that a stop coming in between
    // is not lost.
    interrupt_.store(false);
    if (stopRequested()) interrupt_.store(true);
  }
  convertFiles(claim.name, *request, result);
  bool cancelled;
  {
    std::lock_guard lock(underWayMutex_);
    underWay_.clear();
    cancelled = cancelled_;
  }
  using FileStatus = FinderFileResult::Status;
  if (cancelled) {
    for (auto& file : result.files) {
      if (file.status == FileStatus::pending) file.status = FileStatus::cancelled;
    }
  }
  const bool recorded = record(claim.name, result);
  ::close(journal_);
  journal_ = -1;
  // The journal goes only once the document holds what it said.
  if (recorded) ::unlink(journalFile.c_str());

  std::size_t left = result.count(FileStatus::pending);
  if (left > 0 || !recorded) {
    // Stopped: back to the queue, in a state the next instance resumes from.
    if (::rename(claimed.c_str(), paths::join(requests_, claim.name).c_str()) != 0) {
      log(Level::error, "Cannot return " + describe(claimed, errno));
    } else {
      log(Level::info, "Returned request " + claim.name + " to requests/: " + std::to_string(left) + " of " +
                           std::to_string(result.files.size()) + " file(s) left");
    }
    return !recorded || stopRequested();
  }
  if (::unlink(claimed.c_str()) != 0) log(Level::error, "Cannot remove " + describe(claimed, errno));
  std::string counts = std::to_string(result.count(FileStatus::converted)) + " converted, " +
                       std::to_string(result.count(FileStatus::failed)) + " failed";
  // A cancel that came as the last file ended cancelled nothing.
  if (std::size_t stopped = result.count(FileStatus::cancelled))
    counts += ", " + std::to_string(stopped) + " cancelled";
  log(Level::info, "Handled request " + claim.name + ": " + std::to_string(result.files.size()) +
                       " file(s) \xE2\x86\x92 " + result.targetFormatId + ", " + counts);
  if (options_.finished) options_.finished(claim.name, result);
  return true;
}

bool FinderRequestQueue::othersWaiting() const {
  auto names = listRequestFileNames(requests_);
  return names.ok() && !names->empty();
}

bool FinderRequestQueue::cancel(const std::string& requestName) {
  std::lock_guard lock(underWayMutex_);
  if (underWay_.empty() || underWay_ != requestName) return false;
  cancelled_ = true;
  interrupt_.store(true);
  log(Level::info, "Cancelling request " + requestName);
  return true;
}

// What an earlier instance already did for this request, when it was returned
// or its instance died: finished files keep their outcome and are not redone.
FinderConversionResult FinderRequestQueue::priorResult(const std::string& name,
                                                       const FinderConversionRequest& request) {
  FinderConversionResult result{request.targetFormatId, {}};
  for (const auto& file : request.files)
    result.files.push_back({file.path, FinderFileResult::Status::pending, {}, {}});
  auto bytes = currentPlatform().readFile(paths::join(results_, name));
  auto prior = bytes.ok() ? FinderConversionResult::decode(*bytes) : Error{bytes.error()};
  if (prior.ok() && prior->targetFormatId == result.targetFormatId &&
      prior->files.size() == result.files.size()) {
    for (std::size_t i = 0; i < result.files.size(); ++i) {
      if (prior->files[i].path == result.files[i].path) result.files[i] = prior->files[i];
    }
  }
  if (auto journal = currentPlatform().readFile(journalPath(name)); journal.ok())
    applyJournal(*journal, result);
  return result;
}

// The one place the result document is written.
bool FinderRequestQueue::record(const std::string& name, const FinderConversionResult& result) {
  auto bytes = result.encode();
  Status written = bytes.ok() ? currentPlatform().writeFileAtomically(paths::join(results_, name), *bytes)
                              : Status(Error{bytes.error()});
  if (!written.ok()) log(Level::error, "Cannot write result: " + written.error());
  return written.ok();
}

void FinderRequestQueue::convertFiles(const std::string& name, const FinderConversionRequest& request,
                                      FinderConversionResult& result) {
  std::vector<std::size_t> todo;
  for (std::size_t i = 0; i < result.files.size(); ++i) {
    if (result.files[i].status == FinderFileResult::Status::pending) todo.push_back(i);
  }
  std::mutex mutex;
  // The document is rewritten after every 1/32 of the files, so that the
  // request's progress shows; the journal has every outcome meanwhile.
  const std::size_t batch = std::max<std::size_t>(1, result.files.size() / 32);
  std::size_t sinceRecorded = 0;
  if (options_.progress) options_.progress(name, result);
  auto recordFile = [&](std::size_t index, FinderFileResult outcome) {
    outcome.path = request.files[index].path;
    // Every outcome must read back: a converter's empty answer is a failure.
    if (outcome.status == FinderFileResult::Status::converted && outcome.outputPath.empty()) {
      outcome = {{}, FinderFileResult::Status::failed, {}, "the converter named no output"};
      outcome.path = request.files[index].path;
    }
    if (outcome.status == FinderFileResult::Status::failed && outcome.error.empty()) outcome.error = "failed";
    outcome.error = reasonText(outcome.error);
    if (outcome.status == FinderFileResult::Status::failed) {
      log(Level::error,
          "Cannot convert " + outcome.path + " to " + request.targetFormatId + ": " + outcome.error);
    }
    const bool failed = outcome.status == FinderFileResult::Status::failed;
    if (!journal(
            journalLine(index, statusName(outcome.status), failed ? outcome.error : outcome.outputPath))) {
      log(Level::error,
          "Cannot write to the journal of " + name + ": " + std::generic_category().message(errno));
    }
    std::lock_guard lock(mutex);
    result.files[index] = std::move(outcome);
    if (++sinceRecorded >= batch) {
      sinceRecorded = 0;
      record(name, result);
    }
    if (options_.progress) options_.progress(name, result);
  };
  std::atomic<std::size_t> next{0};
  // Past its slice, the request makes way when others wait; it looks again
  // a slice later when none does.
  auto sliceEnd = std::chrono::steady_clock::now() + options_.slice;
  std::atomic<bool> makeWay{false};
  auto keepGoing = [&] {
    if (makeWay.load()) return false;
    std::lock_guard lock(mutex);
    if (std::chrono::steady_clock::now() < sliceEnd) return true;
    if (othersWaiting()) {
      makeWay = true;
      return false;
    }
    sliceEnd = std::chrono::steady_clock::now() + options_.slice;
    return true;
  };
  auto work = [&] {
    while (!interrupt_.load() && keepGoing()) {
      std::size_t k = next.fetch_add(1);
      if (k >= todo.size()) return;
      std::size_t index = todo[k];
      FinderFileTask task{name, index, request.files[index], request.targetFormatId};
      task.announce = [this, index](const std::string& output, const std::string& identity) {
        return journal(journalLine(index, "publishing", output, identity));
      };
      FinderFileResult outcome;
      try {
        outcome = options_.convert(task, interrupt_);
      } catch (const std::exception& e) {
        outcome = {{}, FinderFileResult::Status::failed, {}, e.what()};
      }
      if (outcome.status != FinderFileResult::Status::pending) recordFile(index, std::move(outcome));
    }
  };
  std::vector<std::thread> helpers;
  std::size_t wanted = std::min<std::size_t>(options_.parallelism, todo.size());
  for (std::size_t i = 1; i < wanted; ++i) {
    try {
      helpers.emplace_back(work);
    } catch (const std::system_error&) {
      break;  // fewer threads, same work
    }
  }
  work();
  for (auto& helper : helpers) helper.join();
}

}  // namespace palvin
