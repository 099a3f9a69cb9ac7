#include "support/fake_platform.h"

#include "platform/linux_text.h"
#include "shared/paths.h"

namespace palvin::testing {

class FakeWritableFile : public WritableFile {
 public:
  FakeWritableFile(FakePlatform& platform, std::string path) : platform_(platform), path_(std::move(path)) {}

  Result<std::uint64_t> seekToEnd() override {
    std::lock_guard lock(platform_.mutex_);
    auto it = platform_.files_.find(path_);
    position_ = it == platform_.files_.end() ? 0 : it->second.content.size();
    return position_;
  }

  Status write(std::string_view bytes) override {
    std::lock_guard lock(platform_.mutex_);
    if (platform_.failWrites) return Error{*platform_.failWrites};
    auto& file = platform_.files_[path_];
    if (file.content.size() < position_) file.content.resize(position_);
    file.content.replace(position_, bytes.size(), bytes);
    position_ += bytes.size();
    file.modified = platform_.tick();
    return success();
  }

  Result<std::string> readTail(std::uint64_t length) override {
    std::lock_guard lock(platform_.mutex_);
    auto it = platform_.files_.find(path_);
    std::string content = it == platform_.files_.end() ? std::string() : it->second.content;
    position_ = content.size();
    return content.size() > length ? content.substr(content.size() - length) : content;
  }

  Status close() override { return success(); }

 private:
  FakePlatform& platform_;
  std::string path_;
  std::size_t position_ = 0;
};

FileTime FakePlatform::tick() {
  ++ticks_;
  return FileTime{1795424400 + ticks_, 0};
}

void FakePlatform::putFile(const std::string& path, std::string content, FileTime modified,
                           std::optional<FileTime> linkTarget) {
  std::lock_guard lock(mutex_);
  files_[path] = File{std::move(content), modified, linkTarget};
}

std::optional<FakePlatform::File> FakePlatform::file(const std::string& path) const {
  std::lock_guard lock(mutex_);
  auto it = files_.find(path);
  if (it == files_.end()) return std::nullopt;
  return it->second;
}

void FakePlatform::removeFile(const std::string& path) {
  std::lock_guard lock(mutex_);
  files_.erase(path);
}

std::vector<std::string> FakePlatform::filesUnder(const std::string& directory) const {
  std::lock_guard lock(mutex_);
  std::vector<std::string> out;
  for (const auto& [path, file] : files_) {
    if (paths::parent(path) == directory) out.push_back(path);
  }
  return out;
}

// Called without the lock, as the handlers ask the platform again.
void FakePlatform::simulateVolumeChange() {
  for (const auto& [observation, handler] : locked(volumeHandlers_)) handler();
}

void FakePlatform::unifiedLog(UnifiedLogType type, std::string_view message) {
  std::lock_guard lock(mutex_);
  unified_.push_back({type, std::string(message)});
  events_.push_back("log " + std::string(message));
}

std::shared_ptr<const TextRules> FakePlatform::textRules() {
  return linux_text::currentRules();
}

Result<ModificationDate> FakePlatform::modificationDate(const std::string& path) {
  std::lock_guard lock(mutex_);
  auto it = files_.find(path);
  if (it == files_.end())
    return Error{"The file \"" + std::string(paths::lastComponent(path)) + "\" doesn't exist."};
  return ModificationDate{it->second.modified, it->second.linkTarget};
}

Result<std::string> FakePlatform::readFile(const std::string& path) {
  std::lock_guard lock(mutex_);
  ++reads_;
  if (failReads) return Error{*failReads};
  auto it = files_.find(path);
  if (it == files_.end())
    return Error{"The file \"" + std::string(paths::lastComponent(path)) + "\" doesn't exist."};
  return it->second.content;
}

Status FakePlatform::writeFileAtomically(const std::string& path, std::string_view bytes) {
  std::lock_guard lock(mutex_);
  if (failWrites) return Error{*failWrites};
  if (directories.count(paths::parent(path)) == 0) return Error{"No such file or directory"};
  files_[path] = File{std::string(bytes), tick(), std::nullopt};
  events_.push_back("write " + path);
  return success();
}

Status FakePlatform::createDirectories(const std::string& path) {
  std::lock_guard lock(mutex_);
  if (failCreateDirectories) return Error{*failCreateDirectories};
  for (std::string p = path; p != "/" && p != "."; p = paths::parent(p)) directories.insert(p);
  return success();
}

Result<std::unique_ptr<WritableFile>> FakePlatform::openForWriting(const std::string& path) {
  {
    std::lock_guard lock(mutex_);
    if (files_.count(path) == 0) return Error{"No such file or directory"};
  }
  return std::unique_ptr<WritableFile>(std::make_unique<FakeWritableFile>(*this, path));
}

void FakePlatform::postNotification(std::string_view name) {
  std::lock_guard lock(mutex_);
  events_.push_back("notify " + std::string(name));
}

void FakePlatform::openApplication(const std::string& bundlePath, const OpenConfiguration& configuration,
                                   LaunchCompletion completion) {
  std::optional<std::string> error;
  {
    std::lock_guard lock(mutex_);
    launches_.push_back({bundlePath, configuration});
    events_.push_back("open " + bundlePath);
    error = failLaunch;
  }
  completion(error);
}

std::optional<bool> FakePlatform::isDirectory(const std::string& path) {
  std::lock_guard lock(mutex_);
  if (unknownDirectoryness.count(path) != 0) return std::nullopt;
  return directories.count(path) != 0;
}

void FakePlatform::setMonitoredDirectories(const std::vector<std::string>& paths) {
  std::lock_guard lock(mutex_);
  events_.push_back("monitor");
  for (const auto& path : paths) events_.back() += " " + path;
}

VolumeObservation FakePlatform::observeVolumeChanges(std::function<void()> handler) {
  std::lock_guard lock(mutex_);
  volumeHandlers_.emplace(nextObservation_, std::move(handler));
  events_.push_back("observe volumes");
  return nextObservation_++;
}

void FakePlatform::stopObservingVolumeChanges(VolumeObservation observation) {
  std::lock_guard lock(mutex_);
  volumeHandlers_.erase(observation);
}

std::optional<std::string> FakePlatform::userDefaultString(std::string_view key) {
  std::lock_guard lock(mutex_);
  auto it = defaults.find(std::string(key));
  if (it == defaults.end()) return std::nullopt;
  return it->second;
}

std::string FakePlatform::localizedString(std::string_view key) {
  std::lock_guard lock(mutex_);
  auto it = translations.find(std::string(key));
  return it == translations.end() ? std::string(key) : it->second;
}

}  // namespace palvin::testing
