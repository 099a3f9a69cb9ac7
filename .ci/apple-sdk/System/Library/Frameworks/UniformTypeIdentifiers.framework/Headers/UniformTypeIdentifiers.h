// Uniform type identifiers: a type's file name extensions and description.
#pragma once

#import <Foundation/Foundation.h>

NS_ASSUME_NONNULL_BEGIN

typedef NSString* UTTagClass;
FOUNDATION_EXPORT UTTagClass const UTTagClassFilenameExtension API_AVAILABLE(macos(11.0));

API_AVAILABLE(macos(11.0))
@interface UTType : NSObject
+ (nullable instancetype)typeWithIdentifier:(NSString*)identifier;
@property(readonly, copy) NSString* identifier;
@property(readonly, nullable, copy) NSString* preferredFilenameExtension;
@property(readonly, nullable, copy) NSString* localizedDescription;
@property(readonly, copy) NSDictionary<UTTagClass, NSArray<NSString*>*>* tags;
@end

NS_ASSUME_NONNULL_END
