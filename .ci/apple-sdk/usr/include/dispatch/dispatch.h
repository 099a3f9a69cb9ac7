// Grand Central Dispatch: serial queues, the main queue and asynchronous
// submission. Under ARC, queues are Objective-C objects.
#pragma once

#import <objc/NSObject.h>
#include <os/availability.h>

@protocol OS_dispatch_queue <NSObject>
@end
@protocol OS_dispatch_queue_attr <NSObject>
@end
typedef NSObject<OS_dispatch_queue>* dispatch_queue_t;
typedef NSObject<OS_dispatch_queue_attr>* dispatch_queue_attr_t;
typedef void (^dispatch_block_t)(void);

// A serial queue, as the attribute.
#define DISPATCH_QUEUE_SERIAL nullptr

#ifdef __cplusplus
extern "C" {
#endif

__attribute__((ns_returns_retained)) dispatch_queue_t dispatch_queue_create(const char* _Nullable label,
                                                                           dispatch_queue_attr_t _Nullable attr)
    API_AVAILABLE(macos(10.6));
dispatch_queue_t dispatch_get_main_queue(void) API_AVAILABLE(macos(10.6));
void dispatch_async(dispatch_queue_t queue, dispatch_block_t block) API_AVAILABLE(macos(10.6));

#ifdef __cplusplus
}
#endif
