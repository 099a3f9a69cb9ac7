// AppKit: the application, windows and the few views of the host app's
// status window, menus, symbol images, colours and the workspace.
#pragma once

#import <Foundation/Foundation.h>
// AppKit brings in ApplicationServices and CoreServices, and with them the
// check, verify and require macros.
#include <AssertMacros.h>

#define IBAction void
#define IBOutlet
#define APPKIT_EXTERN FOUNDATION_EXPORT

NS_ASSUME_NONNULL_BEGIN

@class NSMenu, NSMenuItem, NSRunningApplication, NSWindow;

// --- Colours, images, fonts ------------------------------------------------------

@interface NSColor : NSObject
@property(class, strong, readonly) NSColor* whiteColor;
@property(class, strong, readonly) NSColor* blackColor;
@end

API_AVAILABLE(macos(11.0))
@interface NSImageSymbolConfiguration : NSObject
+ (instancetype)configurationWithPaletteColors:(NSArray<NSColor*>*)paletteColors API_AVAILABLE(macos(12.0));
@end

@interface NSImage : NSObject
// nil when the system has no symbol of that name.
+ (nullable instancetype)imageWithSystemSymbolName:(NSString*)symbolName
                          accessibilityDescription:(nullable NSString*)description API_AVAILABLE(macos(11.0));
// Variable symbols came a year after the deployment target: their use must
// be guarded.
+ (nullable instancetype)imageWithSystemSymbolName:(NSString*)symbolName
                                     variableValue:(double)value
                          accessibilityDescription:(nullable NSString*)description API_AVAILABLE(macos(13.0));
- (nullable NSImage*)imageWithSymbolConfiguration:(NSImageSymbolConfiguration*)configuration
    API_AVAILABLE(macos(11.0));
@end

typedef CGFloat NSFontWeight;

@interface NSFont : NSObject
+ (NSFont*)systemFontOfSize:(CGFloat)fontSize;
+ (NSFont*)boldSystemFontOfSize:(CGFloat)fontSize;
@end

// --- Menus -----------------------------------------------------------------------

@interface NSMenu : NSObject
- (instancetype)initWithTitle:(NSString*)title NS_DESIGNATED_INITIALIZER;
- (void)addItem:(NSMenuItem*)newItem;
- (NSMenuItem*)addItemWithTitle:(NSString*)string action:(nullable SEL)selector keyEquivalent:(NSString*)charCode;
@property BOOL autoenablesItems;
@end

@interface NSMenuItem : NSObject
+ (NSMenuItem*)separatorItem;
// Section headers came with macOS 14: their use must be guarded.
+ (instancetype)sectionHeaderWithTitle:(NSString*)title API_AVAILABLE(macos(14.0));
- (instancetype)initWithTitle:(NSString*)string
                       action:(nullable SEL)selector
                keyEquivalent:(NSString*)charCode NS_DESIGNATED_INITIALIZER;
@property(getter=isEnabled) BOOL enabled;
@property NSInteger tag;
@property(nullable, strong) NSImage* image;
@property(nullable, strong) NSMenu* submenu;
@end

// --- Views and windows -----------------------------------------------------------

@interface NSResponder : NSObject
@end

@interface NSView : NSResponder
@end

@interface NSControl : NSView
@property(copy) NSString* stringValue;
@property(nullable, strong) NSFont* font;
@end

@interface NSTextField : NSControl
+ (instancetype)labelWithString:(NSString*)stringValue API_AVAILABLE(macos(10.12));
+ (instancetype)wrappingLabelWithString:(NSString*)stringValue API_AVAILABLE(macos(10.12));
@property(getter=isSelectable) BOOL selectable;
@property CGFloat preferredMaxLayoutWidth API_AVAILABLE(macos(10.8));
@end

@interface NSButton : NSControl
+ (instancetype)buttonWithTitle:(NSString*)title
                         target:(nullable id)target
                         action:(nullable SEL)action API_AVAILABLE(macos(10.12));
@property(copy) NSString* keyEquivalent;
@end

typedef NS_ENUM(NSInteger, NSUserInterfaceLayoutOrientation){
    NSUserInterfaceLayoutOrientationHorizontal = 0,
    NSUserInterfaceLayoutOrientationVertical = 1,
};

typedef NS_ENUM(NSInteger, NSLayoutAttribute){
    NSLayoutAttributeLeading = 5,
};

typedef struct NSEdgeInsets {
  CGFloat top;
  CGFloat left;
  CGFloat bottom;
  CGFloat right;
} NSEdgeInsets;

API_AVAILABLE(macos(10.9))
@interface NSStackView : NSView
+ (instancetype)stackViewWithViews:(NSArray<NSView*>*)views API_AVAILABLE(macos(10.11));
@property NSUserInterfaceLayoutOrientation orientation;
@property NSLayoutAttribute alignment;
@property CGFloat spacing;
@property NSEdgeInsets edgeInsets;
@end

typedef NS_OPTIONS(NSUInteger, NSWindowStyleMask){
    NSWindowStyleMaskBorderless = 0,
    NSWindowStyleMaskTitled = 1 << 0,
    NSWindowStyleMaskClosable = 1 << 1,
    NSWindowStyleMaskMiniaturizable = 1 << 2,
    NSWindowStyleMaskResizable = 1 << 3,
};

typedef NS_ENUM(NSUInteger, NSBackingStoreType){
    NSBackingStoreBuffered = 2,
};

@interface NSWindow : NSResponder
- (instancetype)initWithContentRect:(NSRect)contentRect
                          styleMask:(NSWindowStyleMask)style
                            backing:(NSBackingStoreType)backingStoreType
                              defer:(BOOL)flag;
@property(copy) NSString* title;
@property(nullable, strong) __kindof NSView* contentView;
@property(getter=isReleasedWhenClosed) BOOL releasedWhenClosed;
@property(getter=isVisible, readonly) BOOL visible;
- (void)center;
- (void)makeKeyAndOrderFront:(nullable id)sender;
- (void)performClose:(nullable id)sender;
@end

// --- The application -------------------------------------------------------------

typedef NS_ENUM(NSInteger, NSApplicationActivationPolicy){
    NSApplicationActivationPolicyRegular,
    NSApplicationActivationPolicyAccessory,
    NSApplicationActivationPolicyProhibited,
};

typedef NS_ENUM(NSUInteger, NSApplicationTerminateReply){
    NSTerminateCancel = 0,
    NSTerminateNow = 1,
    NSTerminateLater = 2,
};

@class NSApplication;

@protocol NSApplicationDelegate <NSObject>
@optional
- (void)applicationDidFinishLaunching:(NSNotification*)notification;
- (void)applicationDidBecomeActive:(NSNotification*)notification;
- (BOOL)applicationShouldHandleReopen:(NSApplication*)sender hasVisibleWindows:(BOOL)flag;
- (NSApplicationTerminateReply)applicationShouldTerminate:(NSApplication*)sender;
- (BOOL)applicationShouldTerminateAfterLastWindowClosed:(NSApplication*)sender;
- (BOOL)applicationSupportsSecureRestorableState:(NSApplication*)app API_AVAILABLE(macos(12.0));
@end

// "An app extension cannot access a sharedApplication object", the App
// Extension Programming Guide says (Understand How an App Extension Works);
// NSApp is the same object.
@interface NSApplication : NSResponder
@property(class, readonly, strong) __kindof NSApplication* sharedApplication
    NS_EXTENSION_UNAVAILABLE_MAC("an app extension has no shared application");
@property(nullable, weak) id<NSApplicationDelegate> delegate;
@property(nullable, strong) NSMenu* mainMenu;
- (BOOL)setActivationPolicy:(NSApplicationActivationPolicy)activationPolicy API_AVAILABLE(macos(10.6));
- (void)activateIgnoringOtherApps:(BOOL)flag
    API_DEPRECATED("Use -activate instead.", macos(10.0, 14.0));
- (void)activate API_AVAILABLE(macos(14.0));
- (void)run;
- (void)terminate:(nullable id)sender;
- (void)replyToApplicationShouldTerminate:(BOOL)shouldTerminate;
@end

APPKIT_EXTERN __kindof NSApplication* _Null_unspecified NSApp
    NS_EXTENSION_UNAVAILABLE_MAC("an app extension has no shared application");

// --- The workspace ---------------------------------------------------------------

@interface NSRunningApplication : NSObject
@end

API_AVAILABLE(macos(10.15))
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
// Returns at once; the handler runs later on a thread of the system's.
- (void)openApplicationAtURL:(NSURL*)applicationURL
               configuration:(NSWorkspaceOpenConfiguration*)configuration
           completionHandler:(void (^_Nullable)(NSRunningApplication* _Nullable app,
                                                NSError* _Nullable error))completionHandler
    API_AVAILABLE(macos(10.15));
@end

NS_ASSUME_NONNULL_END
