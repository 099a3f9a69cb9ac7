// ImageIO: image sources that decode files, image destinations that encode
// them, and the lists of types each handles.
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <stdint.h>

typedef struct CF_BRIDGED_TYPE(id) CGImageSource* CGImageSourceRef;
typedef struct CF_BRIDGED_TYPE(id) CGImageDestination* CGImageDestinationRef;

typedef enum : int32_t {
  kCGImageStatusUnexpectedEOF = -5,
  kCGImageStatusInvalidData = -4,
  kCGImageStatusUnknownType = -3,
  kCGImageStatusReadingHeader = -2,
  kCGImageStatusIncomplete = -1,
  kCGImageStatusComplete = 0,
} CGImageSourceStatus;

#ifdef __cplusplus
extern "C" {
#endif

// The type identifiers ImageIO can read, and those it can write.
CFArrayRef _Nonnull CGImageSourceCopyTypeIdentifiers(void) CF_RETURNS_RETAINED API_AVAILABLE(macos(10.4));
CFArrayRef _Nonnull CGImageDestinationCopyTypeIdentifiers(void) CF_RETURNS_RETAINED API_AVAILABLE(macos(10.4));

CGImageSourceRef _Nullable CGImageSourceCreateWithURL(CFURLRef _Nonnull url, CFDictionaryRef _Nullable options)
    CF_RETURNS_RETAINED API_AVAILABLE(macos(10.4));
CGImageSourceStatus CGImageSourceGetStatus(CGImageSourceRef _Nonnull isrc) API_AVAILABLE(macos(10.4));
size_t CGImageSourceGetCount(CGImageSourceRef _Nonnull isrc) API_AVAILABLE(macos(10.4));
CFStringRef _Nullable CGImageSourceGetType(CGImageSourceRef _Nonnull isrc) API_AVAILABLE(macos(10.4));

CGImageDestinationRef _Nullable CGImageDestinationCreateWithURL(CFURLRef _Nonnull url, CFStringRef _Nonnull type,
                                                                size_t count, CFDictionaryRef _Nullable options)
    CF_RETURNS_RETAINED API_AVAILABLE(macos(10.4));
void CGImageDestinationAddImageFromSource(CGImageDestinationRef _Nonnull idst, CGImageSourceRef _Nonnull isrc,
                                          size_t index, CFDictionaryRef _Nullable properties)
    API_AVAILABLE(macos(10.4));
bool CGImageDestinationFinalize(CGImageDestinationRef _Nonnull idst) API_AVAILABLE(macos(10.4));

#ifdef __cplusplus
}
#endif
