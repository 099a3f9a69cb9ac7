// Grand Central Dispatch: serial queues, the main queue and asynchronous
// submission. Under Objective-C the queues are objects that ARC manages.
// The main queue is no call but the library's variable _dispatch_main_q.
#pragma once

#include <os/availability.h>
#include <stddef.h>
#include <sys/cdefs.h>

#if __OBJC__
#import <objc/NSObject.h>
#define __PALVIN_DISPATCH_DECL(name, base) \
  @protocol OS_##name <base>               \
  @end                                     \
  typedef NSObject<OS_##name>* name##_t
#if __has_feature(objc_arc)
#define __PALVIN_DISPATCH_BRIDGE __bridge
#else
#define __PALVIN_DISPATCH_BRIDGE
#endif
#define __PALVIN_DISPATCH_RETURNS_RETAINED __attribute__((__ns_returns_retained__))
__PALVIN_DISPATCH_DECL(dispatch_queue, NSObject);
__PALVIN_DISPATCH_DECL(dispatch_queue_serial, OS_dispatch_queue);
__PALVIN_DISPATCH_DECL(dispatch_queue_main, OS_dispatch_queue_serial);
__PALVIN_DISPATCH_DECL(dispatch_queue_attr, NSObject);
#else
#define __PALVIN_DISPATCH_BRIDGE
#define __PALVIN_DISPATCH_RETURNS_RETAINED
typedef struct dispatch_queue_s* dispatch_queue_t;
typedef struct dispatch_queue_s* dispatch_queue_main_t;
typedef struct dispatch_queue_attr_s* dispatch_queue_attr_t;
#endif

typedef void (^dispatch_block_t)(void);

struct dispatch_queue_s;

#define DISPATCH_QUEUE_SERIAL NULL

__BEGIN_DECLS
extern struct dispatch_queue_s _dispatch_main_q API_AVAILABLE(macos(10.6));

// The queue of the main thread.
static inline __attribute__((__always_inline__, __const__)) dispatch_queue_main_t dispatch_get_main_queue(void) {
  return (__PALVIN_DISPATCH_BRIDGE dispatch_queue_main_t) & _dispatch_main_q;
}

dispatch_queue_t dispatch_queue_create(const char* _Nullable label, dispatch_queue_attr_t _Nullable attr)
    __PALVIN_DISPATCH_RETURNS_RETAINED API_AVAILABLE(macos(10.6));
void dispatch_async(dispatch_queue_t queue, dispatch_block_t block) API_AVAILABLE(macos(10.6));
__END_DECLS
