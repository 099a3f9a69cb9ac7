// The root class and the NSObject protocol.
#pragma once

#include <objc/NSObjCRuntime.h>
#include <objc/objc.h>

#pragma clang assume_nonnull begin

@protocol NSObject
- (BOOL)isEqual:(nullable id)object;
- (BOOL)isKindOfClass:(Class)aClass;
- (BOOL)respondsToSelector:(SEL)aSelector;
@end

__attribute__((objc_root_class))
@interface NSObject <NSObject>
+ (void)initialize;
+ (instancetype)alloc;
+ (instancetype)new;
+ (Class)class;
- (instancetype)init;
- (void)dealloc;
@end

#pragma clang assume_nonnull end
