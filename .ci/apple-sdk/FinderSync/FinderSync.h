// FinderSync: the principal class's base, its callbacks and the controller.
#pragma once

#import <AppKit/AppKit.h>
#import <Foundation/Foundation.h>

NS_ASSUME_NONNULL_BEGIN

@interface FIFinderSyncController : NSExtensionContext
+ (instancetype)defaultController;
// Replaces the set of directories Finder involves the extension in.
@property(copy, null_resettable) NSSet<NSURL*>* directoryURLs;
- (nullable NSURL*)targetedURL;
- (nullable NSArray<NSURL*>*)selectedItemURLs;
@end

typedef NS_ENUM(NSUInteger, FIMenuKind){
    FIMenuKindContextualMenuForItems = 0,
    FIMenuKindContextualMenuForContainer = 1,
    FIMenuKindContextualMenuForSidebar = 2,
    FIMenuKindToolbarItemMenu = 3,
};

@protocol FIFinderSyncProtocol <NSObject>
@optional
- (nullable NSMenu*)menuForMenuKind:(FIMenuKind)menuKind;
- (void)beginObservingDirectoryAtURL:(NSURL*)url;
- (void)endObservingDirectoryAtURL:(NSURL*)url;
- (void)requestBadgeIdentifierForURL:(NSURL*)url;
@end

@interface FIFinderSync : NSObject <FIFinderSyncProtocol, NSExtensionRequestHandling>
@end

NS_ASSUME_NONNULL_END
