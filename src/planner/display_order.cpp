#include "planner/display_order.h"

#include <unicode/ucol.h>
#include <unicode/uloc.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace palvin {

namespace {

constexpr const char* kRootLocale = "root";

// ICU ids follow POSIX names closely; canonicalisation only tidies separators
// and case ("de-de" -> "de_DE").
std::string toIcuLocaleId(std::string_view posixName) {
  std::string name(posixName);
  char canonical[ULOC_FULLNAME_CAPACITY];
  UErrorCode status = U_ZERO_ERROR;
  const int32_t length = uloc_canonicalize(name.c_str(), canonical, sizeof canonical, &status);
  if (U_FAILURE(status) || status == U_STRING_NOT_TERMINATED_WARNING || length <= 0) return name;
  return std::string(canonical, static_cast<size_t>(length));
}

// Without a collator there is still an order: bytes with ASCII case folded,
// which keeps menus usable if ICU's data is missing.
int compareBytesIgnoringAsciiCase(std::string_view a, std::string_view b) {
  const size_t n = std::min(a.size(), b.size());
  for (size_t i = 0; i < n; ++i) {
    unsigned char x = static_cast<unsigned char>(a[i]);
    unsigned char y = static_cast<unsigned char>(b[i]);
    if (x >= 'A' && x <= 'Z') x = static_cast<unsigned char>(x - 'A' + 'a');
    if (y >= 'A' && y <= 'Z') y = static_cast<unsigned char>(y - 'A' + 'a');
    if (x != y) return x < y ? -1 : 1;
  }
  if (a.size() == b.size()) return 0;
  return a.size() < b.size() ? -1 : 1;
}

UCollator* openCollator(const char* localeId) {
  UErrorCode status = U_ZERO_ERROR;
  UCollator* collator = ucol_open(localeId, &status);
  if (U_FAILURE(status)) {
    if (collator != nullptr) ucol_close(collator);
    return nullptr;
  }
  return collator;
}

}  // namespace

struct DisplayNameCollator::Impl {
  UCollator* collator = nullptr;
  ~Impl() {
    if (collator != nullptr) ucol_close(collator);
  }
};

std::string currentCollationLocale() {
  std::string_view value;
  for (const char* variable : {"LC_ALL", "LC_COLLATE", "LANG"}) {
    const char* text = std::getenv(variable);
    if (text != nullptr && *text != '\0') {
      value = text;
      break;
    }
  }
  value = value.substr(0, value.find_first_of(".@"));
  if (value.empty() || value == "C" || value == "POSIX") return kRootLocale;
  return toIcuLocaleId(value);
}

DisplayNameCollator::DisplayNameCollator(const std::string& localeId)
    : localeId_(localeId), impl_(std::make_unique<Impl>()) {
  impl_->collator = openCollator(localeId_.c_str());
  if (impl_->collator == nullptr) impl_->collator = openCollator(kRootLocale);
  if (impl_->collator == nullptr) return;
  // Secondary strength: case is a tertiary difference and so ignored, while
  // accents still count. Normalisation makes composed and decomposed accents
  // compare the same.
  UErrorCode status = U_ZERO_ERROR;
  ucol_setStrength(impl_->collator, UCOL_SECONDARY);
  ucol_setAttribute(impl_->collator, UCOL_NORMALIZATION_MODE, UCOL_ON, &status);
}

DisplayNameCollator::~DisplayNameCollator() = default;

const DisplayNameCollator& DisplayNameCollator::current() {
  // The menu is planned on whatever thread the platform picks; one collator per
  // thread needs no lock, and ICU's collators are costly to open.
  thread_local std::unique_ptr<DisplayNameCollator> cached;
  std::string localeId = currentCollationLocale();
  if (cached == nullptr || cached->localeId() != localeId) {
    cached = std::make_unique<DisplayNameCollator>(localeId);
  }
  return *cached;
}

int DisplayNameCollator::compare(std::string_view a, std::string_view b) const {
  if (impl_->collator == nullptr) return compareBytesIgnoringAsciiCase(a, b);
  UErrorCode status = U_ZERO_ERROR;
  const UCollationResult result = ucol_strcollUTF8(impl_->collator, a.data(), static_cast<int32_t>(a.size()),
                                                   b.data(), static_cast<int32_t>(b.size()), &status);
  if (U_FAILURE(status)) return compareBytesIgnoringAsciiCase(a, b);
  return result == UCOL_LESS ? -1 : (result == UCOL_GREATER ? 1 : 0);
}

int compareDisplayNames(std::string_view a, std::string_view b) {
  return DisplayNameCollator::current().compare(a, b);
}

}  // namespace palvin
