// Display-name order: locale-aware, case-insensitive and accent-sensitive, as
// the macOS comparison used for menu titles orders them.
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace palvin {

// The ICU locale that counts as current: the first non-empty of LC_ALL,
// LC_COLLATE and LANG with encoding and modifier removed; the root locale for
// "C", "POSIX" or nothing.
std::string currentCollationLocale();

// Compares two UTF-8 display names in the current locale. Negative when a
// orders strictly before b, zero when they compare the same, positive after.
// The collator is made once per thread and locale.
int compareDisplayNames(std::string_view a, std::string_view b);

// One locale's display-name comparison. Sorting a list through one of these
// avoids looking up the current locale for every pair.
class DisplayNameCollator {
 public:
  // Falls back to the root locale when ICU has no collator for `localeId`.
  explicit DisplayNameCollator(const std::string& localeId);
  ~DisplayNameCollator();
  DisplayNameCollator(const DisplayNameCollator&) = delete;
  DisplayNameCollator& operator=(const DisplayNameCollator&) = delete;

  // The collator of the current locale, cached for the calling thread until
  // the locale changes; valid until the next call on the same thread.
  static const DisplayNameCollator& current();

  // The locale it was asked for (before any fallback).
  const std::string& localeId() const { return localeId_; }

  // As compareDisplayNames, in this collator's locale.
  int compare(std::string_view a, std::string_view b) const;

 private:
  struct Impl;
  std::string localeId_;
  std::unique_ptr<Impl> impl_;
};

}  // namespace palvin
