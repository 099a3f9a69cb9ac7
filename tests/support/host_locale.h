// A locale set with setlocale for a scope, as a host process such as GNOME
// Files sets the user's at start. Where the system lacks it, it is generated
// with localedef into a private directory that LOCPATH names meanwhile:
// nothing of the system changes. Messages stay in the "C" locale: the
// system's error descriptions follow the user's language, as Foundation's do
// on macOS, and whether their translations are installed varies.
#pragma once

#include <locale.h>
#include <stdlib.h>

#include <string>

#include "support/temp_dir.h"

namespace palvin::testing {

class HostLocale {
 public:
  // `name` as "de_DE.UTF-8": language_TERRITORY.charmap.
  explicit HostLocale(const std::string& name) : previous_(::setlocale(LC_ALL, nullptr)) {
    const std::string make = "localedef -i " + name.substr(0, name.find('.')) + " -f " +
                             name.substr(name.find('.') + 1) + " " + (generated_ / name) + " 2>/dev/null";
    if (set(name) || std::system(make.c_str()) != 0) return;
    ::setenv("LOCPATH", generated_.str().c_str(), 1);
    set(name);
    ::unsetenv("LOCPATH");  // read by setlocale alone
  }
  ~HostLocale() { ::setlocale(LC_ALL, previous_.c_str()); }
  bool active() const { return active_; }

 private:
  bool set(const std::string& name) {
    active_ = ::setlocale(LC_ALL, name.c_str()) != nullptr && ::setlocale(LC_MESSAGES, "C") != nullptr;
    return active_;
  }

  std::string previous_;
  TempDir generated_;
  bool active_ = false;
};

}  // namespace palvin::testing
