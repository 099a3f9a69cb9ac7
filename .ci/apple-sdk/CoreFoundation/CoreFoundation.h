// CoreFoundation: the Darwin notify center and the toll-free bridged types it takes.
#pragma once

#include <stdbool.h>

typedef unsigned char Boolean;

#if __OBJC__
@class NSString, NSDictionary;
#define PALVIN_CF_BRIDGED(T) __attribute__((objc_bridge(T)))
#else
#define PALVIN_CF_BRIDGED(T)
#endif

typedef const struct PALVIN_CF_BRIDGED(NSString) __CFString* CFStringRef;
typedef const struct PALVIN_CF_BRIDGED(NSDictionary) __CFDictionary* CFDictionaryRef;
typedef struct __CFNotificationCenter* CFNotificationCenterRef;
typedef CFStringRef CFNotificationName;

#ifdef __cplusplus
extern "C" {
#endif

CFNotificationCenterRef CFNotificationCenterGetDarwinNotifyCenter(void);
void CFNotificationCenterPostNotification(CFNotificationCenterRef center, CFNotificationName name,
                                          const void* object, CFDictionaryRef userInfo,
                                          Boolean deliverImmediately);

#ifdef __cplusplus
}
#endif
