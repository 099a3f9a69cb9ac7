#include "platform/linux_text.h"

#include <unicode/bytestream.h>
#include <unicode/casemap.h>
#include <unicode/ucol.h>
#include <unicode/uloc.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <limits>

namespace palvin::linux_text {

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

bool isWellFormedUtf8(std::string_view text) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
  const auto length = static_cast<int32_t>(text.size());
  int32_t offset = 0;
  while (offset < length) {
    UChar32 c;
    U8_NEXT(bytes, offset, length, c);
    if (c < 0) return false;
  }
  return true;
}

class IcuTextRules final : public TextRules {
 public:
  explicit IcuTextRules(std::string localeId) : localeId_(std::move(localeId)) {
    collator_ = openCollator(localeId_.c_str());
    if (collator_ == nullptr) collator_ = openCollator(kRootLocale);
    if (collator_ == nullptr) return;
    // Secondary strength: case is a tertiary difference and so ignored, while
    // accents still count. Normalisation makes composed and decomposed accents
    // compare the same.
    UErrorCode status = U_ZERO_ERROR;
    ucol_setStrength(collator_, UCOL_SECONDARY);
    ucol_setAttribute(collator_, UCOL_NORMALIZATION_MODE, UCOL_ON, &status);
  }
  ~IcuTextRules() override {
    if (collator_ != nullptr) ucol_close(collator_);
  }
  IcuTextRules(const IcuTextRules&) = delete;
  IcuTextRules& operator=(const IcuTextRules&) = delete;

  const std::string& localeId() const { return localeId_; }

  int compareDisplayNames(std::string_view a, std::string_view b) const override {
    if (collator_ == nullptr) return compareBytesIgnoringAsciiCase(a, b);
    UErrorCode status = U_ZERO_ERROR;
    const UCollationResult result = ucol_strcollUTF8(collator_, a.data(), static_cast<int32_t>(a.size()),
                                                     b.data(), static_cast<int32_t>(b.size()), &status);
    if (U_FAILURE(status)) return compareBytesIgnoringAsciiCase(a, b);
    return result == UCOL_LESS ? -1 : (result == UCOL_GREATER ? 1 : 0);
  }

  // "" is ICU's root locale, so that a Turkish user's "PNG" still becomes
  // "png". ASCII takes a fast path without ICU.
  std::string lowercase(std::string_view utf8) const override {
    if (text::isAscii(utf8) || utf8.size() > static_cast<std::size_t>(std::numeric_limits<int32_t>::max()) ||
        !isWellFormedUtf8(utf8)) {
      // Bytes that are not text keep their value; only what is surely ASCII folds.
      return text::lowercaseAscii(utf8);
    }
    std::string result;
    result.reserve(utf8.size());
    icu::StringByteSink<std::string> sink(&result);
    UErrorCode status = U_ZERO_ERROR;
    icu::CaseMap::utf8ToLower("", 0, icu::StringPiece(utf8.data(), static_cast<int32_t>(utf8.size())), sink,
                              nullptr, status);
    if (U_FAILURE(status)) return text::lowercaseAscii(utf8);
    return result;
  }

 private:
  std::string localeId_;
  UCollator* collator_ = nullptr;
};

}  // namespace

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

std::shared_ptr<const TextRules> rulesFor(const std::string& localeId) {
  return std::make_shared<IcuTextRules>(localeId);
}

std::shared_ptr<const TextRules> currentRules() {
  // One collator per thread needs no lock; a plan uses its rules on the
  // thread that asked for them.
  thread_local std::shared_ptr<const IcuTextRules> cached;
  std::string localeId = currentCollationLocale();
  if (cached == nullptr || cached->localeId() != localeId) cached = std::make_shared<IcuTextRules>(localeId);
  return cached;
}

}  // namespace palvin::linux_text
