// The host app's delegate: installs the catalogue, handles requests at launch
// and whenever the extension's request notification arrives, and shows the
// status window when the app is opened.
#pragma once

#import <AppKit/AppKit.h>

@interface PalvinHostDelegate : NSObject <NSApplicationDelegate>
@end
