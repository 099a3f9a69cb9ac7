// CoreFoundation: the toll-free bridged types, releasing, and the Darwin
// notify center.
#pragma once

#include <os/availability.h>
#include <stdbool.h>
#include <stddef.h>

typedef unsigned char Boolean;
typedef long CFIndex;
typedef const void* CFTypeRef;

#if __OBJC__
@class NSArray, NSDictionary, NSString, NSURL;
#define CF_BRIDGED_TYPE(T) __attribute__((objc_bridge(T)))
#else
#define CF_BRIDGED_TYPE(T)
#endif
#define CF_RETURNS_RETAINED __attribute__((cf_returns_retained))

typedef const struct CF_BRIDGED_TYPE(NSString) __CFString* CFStringRef;
typedef const struct CF_BRIDGED_TYPE(NSArray) __CFArray* CFArrayRef;
typedef const struct CF_BRIDGED_TYPE(NSDictionary) __CFDictionary* CFDictionaryRef;
typedef const struct CF_BRIDGED_TYPE(NSURL) __CFURL* CFURLRef;
typedef struct __CFNotificationCenter* CFNotificationCenterRef;
typedef CFStringRef CFNotificationName;

typedef void (*CFNotificationCallback)(CFNotificationCenterRef center, void* observer, CFNotificationName name,
                                       const void* object, CFDictionaryRef userInfo);

typedef enum : CFIndex {
  CFNotificationSuspensionBehaviorDrop = 1,
  CFNotificationSuspensionBehaviorCoalesce = 2,
  CFNotificationSuspensionBehaviorHold = 3,
  CFNotificationSuspensionBehaviorDeliverImmediately = 4,
} CFNotificationSuspensionBehavior;

#ifdef __cplusplus
extern "C" {
#endif

void CFRelease(CFTypeRef cf);

CFNotificationCenterRef CFNotificationCenterGetDarwinNotifyCenter(void) API_AVAILABLE(macos(10.4));
void CFNotificationCenterPostNotification(CFNotificationCenterRef center, CFNotificationName name,
                                          const void* object, CFDictionaryRef userInfo,
                                          Boolean deliverImmediately);
// On the Darwin notify center the name is required and the object and the
// suspension behaviour are ignored.
void CFNotificationCenterAddObserver(CFNotificationCenterRef center, const void* observer,
                                     CFNotificationCallback callBack, CFStringRef name, const void* object,
                                     CFNotificationSuspensionBehavior suspensionBehavior);
void CFNotificationCenterRemoveEveryObserver(CFNotificationCenterRef center, const void* observer);

#ifdef __cplusplus
}
#endif
