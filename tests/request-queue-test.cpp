// FinderRequestQueue on a real container: files converted in parallel, a
// claim held by a live instance left alone and taken over once released, a
// stop that returns a request which a second queue then finishes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <mutex>

#include "platform/linux_platform.h"
#include "requests/request_queue.h"
#include "support/temp_dir.h"

namespace palvin {
namespace {

using testing::readText;
using Status = FinderFileResult::Status;

struct QueueRun {
  std::mutex mutex;
  std::vector<std::string> converted;  // paths, in the order the converter saw them
  std::vector<std::string> logged;
  std::function<void(FinderRequestQueue&, std::size_t)> onFile = [](FinderRequestQueue&, std::size_t) {};

  std::size_t process(const std::string& container, unsigned parallelism) {
    FinderRequestQueue* self = nullptr;
    FinderRequestQueue queue(
        container, {.convert =
                        [&](const FinderFileTask& task, const std::atomic<bool>&) {
                          std::size_t count;
                          {
                            std::lock_guard lock(mutex);
                            converted.push_back(task.file.path);
                            count = converted.size();
                          }
                          onFile(*self, count);
                          // Odd paths fail, even ones "convert" to their upper-case twin.
                          if (task.file.path.back() % 2 == 1)
                            return FinderFileResult{{}, Status::failed, {}, "odd"};
                          return FinderFileResult{{}, Status::converted, task.file.path + ".OUT", {}};
                        },
                    .log =
                        [&](FinderLog::Level, const std::string& message) {
                          std::lock_guard lock(mutex);
                          logged.push_back(message);
                        },
                    .parallelism = parallelism});
    self = &queue;
    EXPECT_TRUE(queue.prepare().ok());
    return queue.processPending();
  }
};

FinderConversionRequest request(char name, int files) {
  FinderConversionRequest out{"webp", {}};
  for (int i = 0; i < files; ++i) out.files.push_back({std::string("/") + name + std::to_string(i), "png"});
  return out;
}

FinderConversionResult expected(const FinderConversionRequest& request) {
  FinderConversionResult out{request.targetFormatId, {}};
  for (const auto& file : request.files) {
    bool odd = file.path.back() % 2 == 1;
    out.files.push_back({file.path, odd ? Status::failed : Status::converted, odd ? "" : file.path + ".OUT",
                         odd ? "odd" : ""});
  }
  return out;
}

TEST(RequestQueue, ConvertsInParallelRecoversReleasedClaimsAndResumesStoppedRequests) {
  testing::TempDir dir;
  LinuxPlatform platform({.container = dir.path()});
  ScopedPlatform installed(platform);
  const auto a = request('a', 40), b = request('b', 40), c = request('c', 10);
  dir.write("requests/a.json", *a.encode());
  dir.write("requests/.b.json", *b.encode());  // being written: not a request yet
  // A claim whose owner is alive (it holds the lock) is not touched.
  const std::string held = dir.write("requests/processing/c.json", *c.encode());
  int holder = ::open(held.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(::flock(holder, LOCK_EX), 0);

  QueueRun first;
  EXPECT_EQ(first.process(dir.path(), 4), 1u);
  EXPECT_EQ(first.converted.size(), 40u);
  auto result = [&](const std::string& name) {
    return FinderConversionResult::decode(readText(dir.file("results/" + name)));
  };
  EXPECT_EQ(*result("a.json"), expected(a));
  EXPECT_FALSE(std::filesystem::exists(dir.file("requests/processing/a.json")));
  EXPECT_TRUE(std::filesystem::exists(held));

  // Its owner dies (the lock goes); a stop after the 5th file returns b.
  ::close(holder);
  std::filesystem::rename(dir.file("requests/.b.json"), dir.file("requests/b.json"));
  QueueRun second;
  second.onFile = [](FinderRequestQueue& queue, std::size_t count) {
    if (count == 15) queue.requestStop();
  };
  second.process(dir.path(), 3);
  EXPECT_EQ(*result("c.json"), expected(c));
  EXPECT_EQ(second.logged.front(),
            "Recovered request c.json left in processing/ by an instance that stopped");
  EXPECT_TRUE(std::filesystem::exists(dir.file("requests/b.json")));
  const std::size_t done = 40 - result("b.json")->count(Status::pending);
  EXPECT_EQ(done, second.converted.size() - 10);  // every started file finished and was recorded

  QueueRun third;
  EXPECT_EQ(third.process(dir.path(), 2), 1u);
  EXPECT_EQ(third.converted.size(), 40 - done);  // only the files left
  EXPECT_EQ(*result("b.json"), expected(b));
  EXPECT_TRUE(std::filesystem::is_empty(dir.file("requests/processing")));
}

// The result document's decoder: as strict as the request's, with the status rules.
TEST(ConversionResult, DecodesOnlyWhatItsEncoderCouldHaveWritten) {
  const FinderConversionResult mixed{"webp",
                                     {{"/a/x.png", Status::converted, "/a/x.webp", ""},
                                      {"/a/\xC3\xA9.png", Status::failed, "", "no \"luck\""},
                                      {"/a/z.png", Status::pending, "", ""}}};
  EXPECT_EQ(*FinderConversionResult::decode(*mixed.encode()), mixed);
  // clang-format off
  for (const auto& [document, error] : std::vector<std::pair<std::string, std::string>>{
           {R"({"files":[],"x":1,"targetFormatId":"mp3"})", ""},
           {R"({"targetFormatId":"a","files":[{"path":"\/p","status":"pending","error":7}]})", ""},
           {R"({"targetFormatId":"a","files":[{"status":"pending"}]})", "files[0].path: missing"},
           {R"({"targetFormatId":"a","files":[{"path":"\/p","status":"done"}]})", "files[0].status: expected \"pending\", \"converted\" or \"failed\""},
           {R"({"targetFormatId":"a","files":[{"path":"\/p","status":"converted"}]})", "files[0].outputPath: missing"},
           {R"({"targetFormatId":"a","files":[{"path":"\/p","status":"converted","outputPath":""}]})", "files[0].outputPath: empty"},
           {R"({"targetFormatId":"a","files":[{"path":"\/p","status":"failed","error":null}]})", "files[0].error: expected string, found null"},
       }) {
    // clang-format on
    auto decoded = FinderConversionResult::decode(document);
    EXPECT_EQ(decoded.ok() ? "" : decoded.error(), error) << document;
  }
}

}  // namespace
}  // namespace palvin
