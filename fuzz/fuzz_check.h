// A failed property in a fuzz target: says which and aborts, so that libFuzzer
// keeps the input as a crash.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string_view>

#define FUZZ_CHECK(condition)                                                               \
  do {                                                                                      \
    if (!(condition)) {                                                                     \
      std::fprintf(stderr, "%s:%d: property failed: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                         \
    }                                                                                       \
  } while (0)

namespace palvin::fuzz {

inline std::string_view bytes(const unsigned char* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

}  // namespace palvin::fuzz
