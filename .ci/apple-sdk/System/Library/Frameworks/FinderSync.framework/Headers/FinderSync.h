// FinderSync: the principal class's base, its callbacks and the controller.
// In Objective-C the protocol and the class share the name FIFinderSync
// (Swift calls the protocol FIFinderSyncProtocol).
#pragma once

#import <AppKit/AppKit.h>
#import <Foundation/Foundation.h>

NS_ASSUME_NONNULL_BEGIN

typedef NS_ENUM(NSUInteger, FIMenuKind){
    FIMenuKindContextualMenuForItems = 0,
    FIMenuKindContextualMenuForContainer = 1,
    FIMenuKindContextualMenuForSidebar = 2,
    FIMenuKindToolbarItemMenu = 3,
} API_AVAILABLE(macos(10.10));

API_AVAILABLE(macos(10.10))
@interface FIFinderSyncController : NSExtensionContext
+ (instancetype)defaultController;
// Replaces the set of directories Finder involves the extension in.
@property(copy, null_resettable) NSSet<NSURL*>* directoryURLs;
- (nullable NSURL*)targetedURL;
- (nullable NSArray<NSURL*>*)selectedItemURLs;
// For the containing app: whether the user has enabled the extension, and
// the system's interface for enabling it.
@property(class, readonly, getter=isExtensionEnabled) BOOL extensionEnabled API_AVAILABLE(macos(10.14));
+ (void)showExtensionManagementInterface API_AVAILABLE(macos(10.14));
@end

@protocol FIFinderSync <NSObject>
@optional
- (nullable NSMenu*)menuForMenuKind:(FIMenuKind)menuKind;
- (void)beginObservingDirectoryAtURL:(NSURL*)url;
- (void)endObservingDirectoryAtURL:(NSURL*)url;
- (void)requestBadgeIdentifierForURL:(NSURL*)url;
@end

API_AVAILABLE(macos(10.10))
@interface FIFinderSync : NSObject <FIFinderSync, NSExtensionRequestHandling>
@end

NS_ASSUME_NONNULL_END
