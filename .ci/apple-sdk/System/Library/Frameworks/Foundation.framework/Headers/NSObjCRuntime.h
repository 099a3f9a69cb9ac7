// Foundation's basic macros: nullability regions, enumerations, exports and
// the MIN and MAX macros, which collide with any C++ name spelt MIN or MAX
// and followed by a parenthesis.
#pragma once

#include <objc/NSObjCRuntime.h>
#include <objc/NSObject.h>
#include <os/availability.h>

#if defined(__cplusplus)
#define FOUNDATION_EXPORT extern "C"
#else
#define FOUNDATION_EXPORT extern
#endif
#define NS_INLINE static inline __attribute__((always_inline))

#define NS_ASSUME_NONNULL_BEGIN _Pragma("clang assume_nonnull begin")
#define NS_ASSUME_NONNULL_END _Pragma("clang assume_nonnull end")
#define NS_RETURNS_INNER_POINTER __attribute__((objc_returns_inner_pointer))
#define NS_DESIGNATED_INITIALIZER __attribute__((objc_designated_initializer))
#define NS_RETURNS_RETAINED __attribute__((ns_returns_retained))
#define NS_SWIFT_NAME(name)
// Not for app extensions: with -fapplication-extension a use is an error.
#define NS_EXTENSION_UNAVAILABLE_MAC(_msg) __attribute__((availability(macos_app_extension, unavailable, message = _msg)))

// As the SDK spells them in C++: NS_ENUM is a typed enum, NS_OPTIONS a plain
// integer type with its constants beside it, so 0 and | work on options.
#define NS_ENUM(_type, _name) enum _name : _type _name; enum _name : _type
#define NS_OPTIONS(_type, _name) _type _name; enum : _type

#if !defined(MIN)
#define MIN(A, B) ((A) < (B) ? (A) : (B))
#endif
#if !defined(MAX)
#define MAX(A, B) ((A) > (B) ? (A) : (B))
#endif

typedef NS_ENUM(NSInteger, NSComparisonResult){
    NSOrderedAscending = -1L,
    NSOrderedSame,
    NSOrderedDescending,
};
