// Audio and video with the ffmpeg program, started with posix_spawn and an
// argument vector (no shell reads the paths), its progress read from
// "-progress pipe:1". Container formats are named on both sides, so ffmpeg
// never guesses a demuxer from a file's content (an HLS playlist posing as a
// .wav would otherwise make it open URLs) nor a protocol from a path.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <system_error>

#include "converters.h"

extern char** environ;

namespace palvin::host {
namespace {

std::vector<std::string> codecArguments(std::string_view target) {
  if (target == "mp3") return {"-vn", "-c:a", "libmp3lame", "-q:a", "2"};
  if (target == "ogg") return {"-vn", "-c:a", "libvorbis", "-q:a", "5"};
  if (target == "flac") return {"-vn", "-c:a", "flac"};
  if (target == "m4a") return {"-vn", "-c:a", "aac", "-b:a", "192k"};
  if (target == "wav") return {"-vn", "-c:a", "pcm_s16le"};
  if (target == "gif") return {"-an", "-vf", "fps=10,scale='min(480,iw)':-2:flags=lanczos", "-loop", "0"};
  // mp4, mov, mkv: H.264 and AAC, which every player takes.
  return {"-c:v",     "libx264", "-preset", "veryfast", "-crf", "23",
          "-pix_fmt", "yuv420p", "-c:a",    "aac",      "-b:a", "160k"};
}

// The demuxer that reads what the muxer of that name writes.
std::string_view demuxer(std::string_view muxer) {
  if (muxer == "mp4" || muxer == "ipod") return "mov";
  return muxer;
}

// "HH:MM:SS.ss" in seconds, or a negative number.
double parseClock(std::string_view text) {
  double parts[3] = {};
  for (double& part : parts) {
    auto end = text.find_first_of(":,\n");
    auto [ptr, ec] = std::from_chars(text.data(), text.data() + std::min(end, text.size()), part);
    if (ec != std::errc()) return -1;
    text.remove_prefix(std::min(text.size(), end == std::string_view::npos ? text.size() : end + 1));
  }
  return parts[0] * 3600 + parts[1] * 60 + parts[2];
}

class Child {
 public:
  ~Child() {
    for (int fd : {out_, err_}) {
      if (fd >= 0) ::close(fd);
    }
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      wait();
    }
  }
  // `output` becomes the child's descriptor 3.
  Status start(const std::string& program, std::vector<std::string> arguments, int output) {
    int outPipe[2], errPipe[2];
    if (::pipe2(outPipe, O_CLOEXEC) != 0) return Error{std::generic_category().message(errno)};
    if (::pipe2(errPipe, O_CLOEXEC) != 0) {
      ::close(outPipe[0]);
      ::close(outPipe[1]);
      return Error{std::generic_category().message(errno)};
    }
    out_ = outPipe[0];
    err_ = errPipe[0];
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
    posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
    // From a number above 3, so that dup2 really happens and clears close-on-exec.
    int high = ::fcntl(output, F_DUPFD_CLOEXEC, 10);
    posix_spawn_file_actions_adddup2(&actions, high, 3);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    std::vector<char*> argv;
    arguments.insert(arguments.begin(), program);
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    int failure = posix_spawn(&pid_, program.c_str(), &actions, &attributes, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    ::close(outPipe[1]);
    ::close(errPipe[1]);
    if (high >= 0) ::close(high);
    if (high < 0) failure = EMFILE;
    if (failure != 0) {
      pid_ = 0;
      return Error{program + ": " + std::generic_category().message(failure)};
    }
    return success();
  }
  int wait() {
    int status = 0;
    while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = 0;
    return status;
  }
  pid_t pid_ = 0;
  int out_ = -1;
  int err_ = -1;
};

// Reads ffmpeg's two streams until both close: "key=value" progress lines on
// standard output, its messages (the duration, then errors) on standard error.
struct FfmpegOutput {
  std::string progressLine;
  std::string messages;  // the last few kilobytes
  double duration = -1;

  void progressBytes(std::string_view bytes, const Progress& progress) {
    for (char c : bytes) {
      if (c != '\n') {
        progressLine.push_back(c);
        continue;
      }
      std::string_view line = progressLine;
      if (line.starts_with("out_time_us=") && duration > 0 && progress) {
        double us = 0;
        line.remove_prefix(12);
        if (std::from_chars(line.data(), line.data() + line.size(), us).ec == std::errc()) {
          progress(std::clamp(us / 1e6 / duration, 0.0, 1.0));
        }
      }
      progressLine.clear();
    }
  }
  void messageBytes(std::string_view bytes) {
    messages += bytes;
    if (duration < 0) {
      if (auto at = messages.find("Duration: "); at != std::string::npos)
        duration = parseClock(messages.substr(at + 10));
    }
    if (messages.size() > 8192) messages.erase(0, messages.size() - 4096);
  }
  // The last line ffmpeg said, which is the reason when it fails.
  std::string lastMessage() const {
    std::string_view text = messages;
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' '))
      text.remove_suffix(1);
    auto start = text.find_last_of('\n');
    return std::string(start == std::string_view::npos ? text : text.substr(start + 1));
  }
};

}  // namespace

Status convertMedia(const std::string& ffmpeg, const std::string& source, const Format& sourceFormat,
                    const Format& target, int output, const std::atomic<bool>& stopping,
                    const Progress& progress) {
  std::vector<std::string> arguments = {
      "-nostdin", "-hide_banner",  "-nostats", "-loglevel", "info",
      "-y",       "-progress",     "pipe:1",   "-f",        std::string(demuxer(sourceFormat.ffmpegFormat)),
      "-i",       "file:" + source};
  for (auto& argument : codecArguments(target.id)) arguments.push_back(std::move(argument));
  // The output is the descriptor this host app opened, reached through the
  // child's own /proc entry: no name in the source's folder is ever opened.
  arguments.insert(arguments.end(), {"-f", std::string(target.ffmpegFormat), "file:/proc/self/fd/3"});
  Child child;
  if (auto started = child.start(ffmpeg, std::move(arguments), output); !started.ok()) return started;

  FfmpegOutput read;
  bool cancelled = false;
  char buffer[4096];
  while (child.out_ >= 0 || child.err_ >= 0) {
    if (stopping.load() && !cancelled) {
      // The caller drops the output, so there is nothing for ffmpeg to finish.
      ::kill(child.pid_, SIGKILL);
      cancelled = true;
    }
    pollfd fds[2] = {{child.out_, POLLIN, 0}, {child.err_, POLLIN, 0}};
    if (::poll(fds, 2, 200) < 0 && errno != EINTR) break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        ::close(fds[i].fd);
        (i == 0 ? child.out_ : child.err_) = -1;
        continue;
      }
      std::string_view bytes(buffer, static_cast<std::size_t>(n));
      if (i == 0) {
        read.progressBytes(bytes, progress);
      } else {
        read.messageBytes(bytes);
      }
    }
  }
  int status = child.wait();
  if (cancelled) return Error{"stopped"};
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return success();
  std::string reason = read.lastMessage();
  if (reason.empty()) {
    reason = WIFEXITED(status) ? "ffmpeg exited with status " + std::to_string(WEXITSTATUS(status))
                               : "ffmpeg ended by signal " + std::to_string(WTERMSIG(status));
  }
  return Error{reason};
}

}  // namespace palvin::host
