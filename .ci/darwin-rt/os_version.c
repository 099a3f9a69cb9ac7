// A stand-in for compiler-rt's __isPlatformVersionAtLeast, which @available
// compiles to. Apple's clang links compiler-rt's own (libclang_rt.osx.a);
// Debian has none for Darwin, so the Linux build of the Apple bundles links
// this instead. It answers from the kern.osproductversion sysctl.
#include <stddef.h>
#include <stdint.h>

int sysctlbyname(const char* name, void* oldp, size_t* oldlenp, void* newp, size_t newlen);

// The platform number of macOS in LC_BUILD_VERSION.
#define PLATFORM_MACOS 1

static uint32_t next_number(const char** text) {
  uint32_t value = 0;
  while (**text >= '0' && **text <= '9') value = value * 10 + (uint32_t)(*(*text)++ - '0');
  if (**text == '.') ++*text;
  return value;
}

int32_t __isPlatformVersionAtLeast(uint32_t platform, uint32_t major, uint32_t minor, uint32_t subminor) {
  if (platform != PLATFORM_MACOS) return 0;
  char version[32] = {0};
  size_t size = sizeof version - 1;
  if (sysctlbyname("kern.osproductversion", version, &size, NULL, 0) != 0) return 0;
  const char* text = version;
  const uint32_t running[3] = {next_number(&text), next_number(&text), next_number(&text)};
  const uint32_t wanted[3] = {major, minor, subminor};
  for (int i = 0; i < 3; ++i) {
    if (running[i] != wanted[i]) return running[i] > wanted[i];
  }
  return 1;
}
