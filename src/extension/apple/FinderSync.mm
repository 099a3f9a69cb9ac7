// The extension's principal class: a translator between Finder and the C++
// controller. Every entry point catches whatever the C++ side might throw,
// since an exception that reaches Finder ends the extension.

#import <AppKit/AppKit.h>
#import <FinderSync/FinderSync.h>
#import <Foundation/Foundation.h>

#include <cstdint>
#include <memory>
#include <string>

#include "finder/finder_sync.h"
#include "finder/menu_model.h"
#include "platform/apple_platform.h"
#include "platform/platform.h"

// The principal class, named "FinderSync" in the Info.plist: an Objective-C
// class has no module, so its plain name is the one the runtime finds.
// The overridden callbacks are listed too, so that a misspelt definition
// below is reported as missing rather than silently never called.
@interface FinderSync : FIFinderSync
- (instancetype)init;
- (NSMenu*)menuForMenuKind:(FIMenuKind)menuKind;
- (void)beginObservingDirectoryAtURL:(NSURL*)url;
- (void)endObservingDirectoryAtURL:(NSURL*)url;
- (void)requestBadgeIdentifierForURL:(NSURL*)url;
- (IBAction)convertAction:(id)sender;
- (IBAction)openHostApp:(id)sender;
@end

namespace {

NSString* toNSString(const std::string& text) {
  // Titles come from the capabilities document, which was decoded as UTF-8;
  // an empty title beats no menu should that ever fail.
  NSString* converted = [[NSString alloc] initWithBytes:text.data()
                                                 length:text.size()
                                               encoding:NSUTF8StringEncoding];
  return converted != nil ? converted : @"";
}

std::string pathOf(NSURL* url) {
  const char* representation = url.fileSystemRepresentation;
  return representation != nullptr ? std::string(representation) : std::string();
}

SEL selectorFor(palvin::MenuAction action) {
  switch (action) {
    case palvin::MenuAction::convertAction:
      return @selector(convertAction:);
    case palvin::MenuAction::openHostApp:
      return @selector(openHostApp:);
    case palvin::MenuAction::none:
      break;
  }
  return nil;
}

NSImage* paletteSymbolImage(const palvin::SymbolImage& image) {
  NSImage* symbol = [NSImage imageWithSystemSymbolName:toNSString(image.symbolName)
                              accessibilityDescription:toNSString(image.accessibilityDescription)];
  if (symbol == nil) return nil;
  NSColor* color =
      image.paletteColor == palvin::PaletteColor::white ? NSColor.whiteColor : NSColor.blackColor;
  return [symbol
      imageWithSymbolConfiguration:[NSImageSymbolConfiguration configurationWithPaletteColors:@[ color ]]];
}

NSMenu* makeMenu(const palvin::Menu& menu);

NSMenuItem* makeItem(const palvin::MenuItem& item) {
  if (item.isSeparator) return [NSMenuItem separatorItem];
  NSMenuItem* result = [[NSMenuItem alloc] initWithTitle:toNSString(item.title)
                                                  action:selectorFor(item.action)
                                           keyEquivalent:toNSString(item.keyEquivalent)];
  // The model holds the platform's defaults where the build set nothing, so
  // setting them always changes nothing.
  result.enabled = item.enabled;
  result.tag = static_cast<NSInteger>(item.tag);
  if (item.image) result.image = paletteSymbolImage(*item.image);
  if (item.submenu) result.submenu = makeMenu(*item.submenu);
  return result;
}

NSMenu* makeMenu(const palvin::Menu& menu) {
  NSMenu* result = [[NSMenu alloc] initWithTitle:toNSString(menu.title)];
  if (menu.autoenablesItems) result.autoenablesItems = *menu.autoenablesItems;
  for (const palvin::MenuItem& item : menu.items) [result addItem:makeItem(item)];
  return result;
}

}  // namespace

@implementation FinderSync {
  std::unique_ptr<palvin::FinderSync> _controller;
}

+ (void)initialize {
  if (self != [FinderSync class]) return;
  // Never destroyed: the log queue's thread may still use it while the
  // process exits.
  palvin::installPlatform(new palvin::ApplePlatform());
}

- (instancetype)init {
  self = [super init];
  if (self == nil) return nil;
  try {
    _controller = std::make_unique<palvin::FinderSync>();
  } catch (...) {
    // Without a controller every callback answers with nothing.
  }
  return self;
}

- (void)dealloc {
  // The controller's destructor stops the volume observers.
  _controller.reset();
}

- (void)beginObservingDirectoryAtURL:(NSURL*)url {
  try {
    if (_controller) _controller->beginObservingDirectoryAtURL(pathOf(url));
  } catch (...) {
  }
}

- (void)endObservingDirectoryAtURL:(NSURL*)url {
  try {
    if (_controller) _controller->endObservingDirectoryAtURL(pathOf(url));
  } catch (...) {
  }
}

- (void)requestBadgeIdentifierForURL:(NSURL*)url {
  try {
    if (_controller) _controller->requestBadgeIdentifierForURL(pathOf(url));
  } catch (...) {
  }
}

- (NSMenu*)menuForMenuKind:(FIMenuKind)menuKind {
  try {
    if (_controller) return makeMenu(_controller->menuForMenuKind(static_cast<std::uint64_t>(menuKind)));
  } catch (...) {
  }
  // Finder always gets a menu, empty when there is nothing to offer.
  return [[NSMenu alloc] initWithTitle:@""];
}

- (IBAction)convertAction:(id)sender {
  try {
    // Only the item's tag is read; anything else counts as tag 0, a stale pick.
    NSInteger tag = [sender isKindOfClass:[NSMenuItem class]] ? [(NSMenuItem*)sender tag] : 0;
    if (_controller) _controller->convertAction(static_cast<std::int64_t>(tag));
  } catch (...) {
  }
}

- (IBAction)openHostApp:(id)sender {
  (void)sender;
  try {
    if (_controller) _controller->openHostApp();
  } catch (...) {
  }
}

@end
