// PalvinHost.app: the macOS host app. It contains the Finder extension
// (Contents/PlugIns/PalvinFinder.appex), installs the catalogue of what
// ImageIO converts on this Mac into the shared container, and converts what
// the extension requests. The request hand-off itself (claim, decode, act,
// remove) is the shared FinderRequestQueue.
#import <AppKit/AppKit.h>

#import "host/apple/host_app.h"

int main() {
  @autoreleasepool {
    // The application keeps its delegate weakly; this one lives as long as
    // the process.
    PalvinHostDelegate* delegate = [[PalvinHostDelegate alloc] init];
    NSApplication* application = NSApplication.sharedApplication;
    application.delegate = delegate;
    [application run];
  }
  return 0;
}
