// AppKit: menus, symbol images, colours and the workspace.
#pragma once

#import <Foundation/Foundation.h>

#define IBAction void
#define APPKIT_EXTERN FOUNDATION_EXPORT

NS_ASSUME_NONNULL_BEGIN

@class NSRunningApplication;

@interface NSColor : NSObject
@property(class, strong, readonly) NSColor* whiteColor;
@property(class, strong, readonly) NSColor* blackColor;
@end

@interface NSImageSymbolConfiguration : NSObject
// macOS 12 and later.
+ (instancetype)configurationWithPaletteColors:(NSArray<NSColor*>*)paletteColors;
@end

@interface NSImage : NSObject
// macOS 11 and later; nil when the system has no symbol of that name.
+ (nullable instancetype)imageWithSystemSymbolName:(NSString*)symbolName
                          accessibilityDescription:(nullable NSString*)description;
- (nullable NSImage*)imageWithSymbolConfiguration:(NSImageSymbolConfiguration*)configuration;
@end

@class NSMenuItem;

@interface NSMenu : NSObject
- (instancetype)initWithTitle:(NSString*)title NS_DESIGNATED_INITIALIZER;
- (void)addItem:(NSMenuItem*)newItem;
@property BOOL autoenablesItems;
@end

@interface NSMenuItem : NSObject
+ (NSMenuItem*)separatorItem;
- (instancetype)initWithTitle:(NSString*)string
                       action:(nullable SEL)selector
                keyEquivalent:(NSString*)charCode NS_DESIGNATED_INITIALIZER;
@property(getter=isEnabled) BOOL enabled;
@property NSInteger tag;
@property(nullable, strong) NSImage* image;
@property(nullable, strong) NSMenu* submenu;
@end

@interface NSRunningApplication : NSObject
@end

@interface NSWorkspaceOpenConfiguration : NSObject
+ (instancetype)configuration;
@property BOOL activates;
@property BOOL addsToRecentItems;
@end

APPKIT_EXTERN NSNotificationName const NSWorkspaceDidMountNotification;
APPKIT_EXTERN NSNotificationName const NSWorkspaceDidUnmountNotification;

@interface NSWorkspace : NSObject
@property(class, readonly, strong) NSWorkspace* sharedWorkspace;
@property(readonly, strong) NSNotificationCenter* notificationCenter;
// macOS 10.15 and later. Returns at once; the handler runs later on a thread of the system's.
- (void)openApplicationAtURL:(NSURL*)applicationURL
               configuration:(NSWorkspaceOpenConfiguration*)configuration
           completionHandler:(void (^_Nullable)(NSRunningApplication* _Nullable app,
                                                NSError* _Nullable error))completionHandler;
@end

NS_ASSUME_NONNULL_END
