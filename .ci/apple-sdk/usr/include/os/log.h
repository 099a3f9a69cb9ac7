// The unified log: a handle per subsystem and category, a type check, and
// entries whose format string goes into __TEXT,__oslogstring while the
// compiler packs the arguments (checking %{public}s and the rest against
// them), for _os_log_impl to record.
#pragma once

#include <os/availability.h>
#include <stdbool.h>
#include <stdint.h>
#include <sys/cdefs.h>

#if __OBJC__
#import <objc/NSObject.h>
// An OS object: under ARC an Objective-C object that ARC retains and releases.
@protocol OS_os_log <NSObject>
@end
typedef NSObject<OS_os_log>* os_log_t;
#define __PALVIN_OS_RETURNS_RETAINED __attribute__((__ns_returns_retained__))
#else
typedef struct os_log_s* os_log_t;
#define __PALVIN_OS_RETURNS_RETAINED
#endif

typedef enum : uint8_t {
  OS_LOG_TYPE_DEFAULT = 0x00,
  OS_LOG_TYPE_INFO = 0x01,
  OS_LOG_TYPE_DEBUG = 0x02,
  OS_LOG_TYPE_ERROR = 0x10,
  OS_LOG_TYPE_FAULT = 0x11,
} os_log_type_t;

struct mach_header;

__BEGIN_DECLS
// The image the entry comes from; the linker defines it.
extern struct mach_header __dso_handle __attribute__((__visibility__("hidden")));

os_log_t os_log_create(const char* subsystem, const char* category) __PALVIN_OS_RETURNS_RETAINED
    API_AVAILABLE(macos(10.12));
bool os_log_type_enabled(os_log_t oslog, os_log_type_t type) API_AVAILABLE(macos(10.12));
void _os_log_impl(void* dso, os_log_t log, os_log_type_t type, const char* format, uint8_t* buf, uint32_t size)
    API_AVAILABLE(macos(10.12));
__END_DECLS

#define os_log_with_type(log, type, format, ...)                                                         \
  __extension__({                                                                                        \
    os_log_t _os_log_handle = (log);                                                                     \
    os_log_type_t _os_log_type = (type);                                                                 \
    if (os_log_type_enabled(_os_log_handle, _os_log_type)) {                                             \
      __attribute__((__section__("__TEXT,__oslogstring,cstring_literals"))) static const char            \
          _os_log_format[] = format;                                                                     \
      uint8_t _os_log_buffer[__builtin_os_log_format_buffer_size(format, ##__VA_ARGS__)]                  \
          __attribute__((__aligned__(16)));                                                              \
      _os_log_impl((void*)&__dso_handle, _os_log_handle, _os_log_type, _os_log_format,                   \
                   (uint8_t*)__builtin_os_log_format(_os_log_buffer, format, ##__VA_ARGS__),             \
                   (uint32_t)sizeof(_os_log_buffer));                                                    \
    }                                                                                                    \
  })
