// The unified log: a handle per subsystem and category, a type check, and
// entries whose format is checked at compile time.
#pragma once

#import <objc/NSObject.h>
#include <os/availability.h>
#include <stdint.h>

typedef enum : uint8_t {
  OS_LOG_TYPE_DEFAULT = 0x00,
  OS_LOG_TYPE_INFO = 0x01,
  OS_LOG_TYPE_DEBUG = 0x02,
  OS_LOG_TYPE_ERROR = 0x10,
  OS_LOG_TYPE_FAULT = 0x11,
} os_log_type_t;

// An OS object: under ARC an Objective-C object that ARC retains and releases.
@protocol OS_os_log <NSObject>
@end
typedef NSObject<OS_os_log>* os_log_t;

#ifdef __cplusplus
extern "C" {
#endif

__attribute__((ns_returns_retained)) os_log_t os_log_create(const char* subsystem, const char* category)
    API_AVAILABLE(macos(10.12));
bool os_log_type_enabled(os_log_t oslog, os_log_type_t type) API_AVAILABLE(macos(10.12));
void palvin_os_log_with_type(os_log_t oslog, os_log_type_t type, const char* format, ...)
    __attribute__((format(os_log, 3, 4)));

#ifdef __cplusplus
}
#endif

// Like the SDK's macro: the format must be a string literal (it goes into a
// section of its own there), and its conversions must match the arguments.
#define os_log_with_type(log, type, format, ...)                          \
  do {                                                                    \
    static const char palvin_os_log_format[] = format;                    \
    (void)palvin_os_log_format;                                           \
    palvin_os_log_with_type((log), (type), format, ##__VA_ARGS__);        \
  } while (0)
