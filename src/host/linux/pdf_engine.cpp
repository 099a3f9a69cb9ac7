// PDF to text with poppler's C++ API: every page in reading order, as
// pdftotext writes it by default. Poppler's text of a page already ends in
// the form feed that separates it from the next.
#include <fcntl.h>
#include <poppler-document.h>
#include <poppler-global.h>
#include <poppler-page.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <mutex>
#include <system_error>

#include "converters.h"

namespace palvin::host {
namespace {

// Read whole into memory: larger PDFs are refused rather than allowed to
// exhaust it.
constexpr off_t kMaxPdfSize = 512 << 20;

Status writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return Error{std::generic_category().message(errno)};
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
  return success();
}

}  // namespace

Status extractPdfText(const std::string& source, int out, const std::atomic<bool>& stopping) {
  static std::once_flag quiet;
  // Poppler reports damage on standard error; the result says it instead.
  std::call_once(quiet, [] { poppler::set_debug_error_function([](const std::string&, void*) {}, nullptr); });

  int fd = ::open(source.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) return Error{std::generic_category().message(errno)};
  struct stat info {};
  if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    ::close(fd);
    return Error{"not a regular file"};
  }
  if (info.st_size > kMaxPdfSize) {
    ::close(fd);
    return Error{"larger than 512 MiB"};
  }
  std::vector<char> bytes(static_cast<std::size_t>(info.st_size));
  std::size_t got = 0;
  while (got < bytes.size()) {
    ssize_t n = ::read(fd, bytes.data() + got, bytes.size() - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got += static_cast<std::size_t>(n);
  }
  ::close(fd);
  bytes.resize(got);

  std::unique_ptr<poppler::document> document(poppler::document::load_from_data(&bytes));
  if (!document) return Error{"not a PDF document, or a damaged one"};
  if (document->is_locked()) return Error{"the PDF is encrypted"};
  Status written = success();
  for (int i = 0; i < document->pages() && written.ok(); ++i) {
    if (stopping.load()) {
      written = Error{"stopped"};
      break;
    }
    std::unique_ptr<poppler::page> page(document->create_page(i));
    // A page poppler can't read still gets its form feed, so page numbers hold.
    poppler::byte_array text;
    if (page) text = page->text(poppler::rectf(), poppler::page::non_raw_non_physical_layout).to_utf8();
    std::string chunk(text.begin(), text.end());
    if (chunk.empty() || chunk.back() != '\f') chunk.push_back('\f');
    written = writeAll(out, chunk);
  }
  return written;
}

}  // namespace palvin::host
