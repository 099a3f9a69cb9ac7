// Foundation: strings, collections, URLs, data, errors, files, bundles,
// defaults, notifications and the extension context.
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <CoreGraphics/CoreGraphics.h>
#import <Foundation/NSObjCRuntime.h>

NS_ASSUME_NONNULL_BEGIN

@class NSArray<ObjectType>, NSDictionary<KeyType, ObjectType>, NSError, NSOperationQueue, NSURL;

typedef struct {
  unsigned long state;
  id __unsafe_unretained _Nullable* _Nullable itemsPtr;
  unsigned long* _Nullable mutationsPtr;
  unsigned long extra[5];
} NSFastEnumerationState;

@protocol NSFastEnumeration
- (NSUInteger)countByEnumeratingWithState:(NSFastEnumerationState*)state
                                  objects:(id __unsafe_unretained _Nullable[_Nonnull])buffer
                                    count:(NSUInteger)len;
@end

// Hands a CoreFoundation object that the caller owns to ARC.
NS_INLINE id _Nullable CFBridgingRelease(CFTypeRef _Nullable X) { return (__bridge_transfer id)X; }

// --- Geometry --------------------------------------------------------------------

typedef CGRect NSRect;
typedef CGSize NSSize;
NS_INLINE NSRect NSMakeRect(CGFloat x, CGFloat y, CGFloat w, CGFloat h) {
  NSRect r;
  r.origin.x = x;
  r.origin.y = y;
  r.size.width = w;
  r.size.height = h;
  return r;
}

// --- Strings ---------------------------------------------------------------

typedef NSUInteger NSStringEncoding;
enum : NSStringEncoding { NSUTF8StringEncoding = 4 };

@interface NSString : NSObject
+ (nullable instancetype)stringWithUTF8String:(const char*)nullTerminatedCString;
- (nullable instancetype)initWithBytes:(const void*)bytes length:(NSUInteger)len encoding:(NSStringEncoding)encoding;
@property(readonly) NSUInteger length;
@property(nullable, readonly) const char* UTF8String NS_RETURNS_INNER_POINTER;
@property(readonly, copy) NSString* lowercaseString;
- (NSComparisonResult)localizedCaseInsensitiveCompare:(NSString*)string;
@end

// --- Numbers and collections ---------------------------------------------------

@interface NSValue : NSObject
@end

@interface NSNumber : NSValue
@property(readonly) BOOL boolValue;
@end

@interface NSArray<__covariant ObjectType> : NSObject <NSFastEnumeration>
// What the @[...] literal calls.
+ (instancetype)arrayWithObjects:(const ObjectType _Nonnull[_Nonnull])objects count:(NSUInteger)cnt;
@property(readonly) NSUInteger count;
- (ObjectType)objectAtIndex:(NSUInteger)index;
- (ObjectType)objectAtIndexedSubscript:(NSUInteger)idx API_AVAILABLE(macos(10.8));
@end

@interface NSMutableArray<ObjectType> : NSArray<ObjectType>
+ (instancetype)arrayWithCapacity:(NSUInteger)numItems;
- (void)addObject:(ObjectType)anObject;
@end

@interface NSDictionary<__covariant KeyType, __covariant ObjectType> : NSObject <NSFastEnumeration>
- (nullable ObjectType)objectForKey:(KeyType)aKey;
- (nullable ObjectType)objectForKeyedSubscript:(KeyType)key API_AVAILABLE(macos(10.8));
@end

@interface NSSet<__covariant ObjectType> : NSObject <NSFastEnumeration>
+ (instancetype)setWithArray:(NSArray<ObjectType>*)array;
@end

// --- Errors --------------------------------------------------------------------

typedef NSString* NSErrorDomain;
typedef NSString* NSErrorUserInfoKey;
FOUNDATION_EXPORT NSErrorDomain const NSPOSIXErrorDomain;

@interface NSError : NSObject
+ (instancetype)errorWithDomain:(NSErrorDomain)domain
                           code:(NSInteger)code
                       userInfo:(nullable NSDictionary<NSErrorUserInfoKey, id>*)dict;
@property(readonly, copy) NSString* localizedDescription;
@end

// --- URLs and data ---------------------------------------------------------------

typedef NSString* NSURLResourceKey;
FOUNDATION_EXPORT NSURLResourceKey const NSURLIsDirectoryKey API_AVAILABLE(macos(10.6));

@interface NSURL : NSObject
+ (nullable instancetype)URLWithString:(NSString*)URLString;
+ (NSURL*)fileURLWithFileSystemRepresentation:(const char*)path
                                  isDirectory:(BOOL)isDir
                                relativeToURL:(nullable NSURL*)baseURL API_AVAILABLE(macos(10.9));
@property(readonly, getter=isFileURL) BOOL fileURL;
@property(nullable, readonly, copy) NSString* path;
@property(readonly) const char* fileSystemRepresentation NS_RETURNS_INNER_POINTER API_AVAILABLE(macos(10.9));
- (BOOL)getResourceValue:(out id _Nullable* _Nonnull)value
                  forKey:(NSURLResourceKey)key
                   error:(out NSError** _Nullable)error API_AVAILABLE(macos(10.6));
@end

typedef NS_OPTIONS(NSUInteger, NSDataReadingOptions){
    NSDataReadingMappedIfSafe = 1UL << 0,
    NSDataReadingUncached = 1UL << 1,
    NSDataReadingMappedAlways = 1UL << 3,
};

typedef NS_OPTIONS(NSUInteger, NSDataWritingOptions){
    NSDataWritingAtomic = 1UL << 0,
    NSDataWritingWithoutOverwriting = 1UL << 1,
};

@interface NSData : NSObject
+ (instancetype)dataWithBytes:(nullable const void*)bytes length:(NSUInteger)length;
+ (nullable instancetype)dataWithContentsOfURL:(NSURL*)url
                                       options:(NSDataReadingOptions)readOptionsMask
                                         error:(NSError**)errorPtr;
- (BOOL)writeToURL:(NSURL*)url options:(NSDataWritingOptions)writeOptionsMask error:(NSError**)errorPtr;
@property(readonly) NSUInteger length;
@property(readonly) const void* bytes NS_RETURNS_INNER_POINTER;
@end

// --- Files -----------------------------------------------------------------------

typedef NSString* NSFileAttributeKey;

typedef NS_OPTIONS(NSUInteger, NSVolumeEnumerationOptions){
    NSVolumeEnumerationSkipHiddenVolumes = 1UL << 1,
    NSVolumeEnumerationProduceFileReferenceURLs = 1UL << 2,
};

@interface NSFileManager : NSObject
@property(class, readonly, strong) NSFileManager* defaultManager;
- (nullable NSURL*)containerURLForSecurityApplicationGroupIdentifier:(NSString*)groupIdentifier
    API_AVAILABLE(macos(10.8));
- (BOOL)createDirectoryAtURL:(NSURL*)url
    withIntermediateDirectories:(BOOL)createIntermediates
                     attributes:(nullable NSDictionary<NSFileAttributeKey, id>*)attributes
                          error:(NSError**)error API_AVAILABLE(macos(10.7));
- (nullable NSArray<NSURL*>*)mountedVolumeURLsIncludingResourceValuesForKeys:
                                 (nullable NSArray<NSURLResourceKey>*)propertyKeys
                                                                      options:(NSVolumeEnumerationOptions)options
    API_AVAILABLE(macos(10.6));
@end

@interface NSFileHandle : NSObject
+ (nullable instancetype)fileHandleForWritingToURL:(NSURL*)url error:(NSError**)error API_AVAILABLE(macos(10.6));
+ (nullable instancetype)fileHandleForUpdatingURL:(NSURL*)url error:(NSError**)error API_AVAILABLE(macos(10.6));
- (BOOL)seekToEndReturningOffset:(out unsigned long long* _Nullable)offsetInFile
                           error:(out NSError**)error API_AVAILABLE(macos(10.15));
- (BOOL)seekToOffset:(unsigned long long)offset error:(out NSError**)error API_AVAILABLE(macos(10.15));
- (nullable NSData*)readDataUpToLength:(NSUInteger)length error:(out NSError**)error API_AVAILABLE(macos(10.15));
- (BOOL)writeData:(NSData*)data error:(out NSError**)error API_AVAILABLE(macos(10.15));
- (BOOL)closeAndReturnError:(out NSError**)error API_AVAILABLE(macos(10.15));
@end

// --- Bundles and defaults --------------------------------------------------------

@interface NSBundle : NSObject
@property(class, readonly, strong) NSBundle* mainBundle;
@property(readonly, copy) NSString* bundlePath;
@property(nullable, readonly, copy) NSString* executablePath;
- (NSString*)localizedStringForKey:(NSString*)key value:(nullable NSString*)value table:(nullable NSString*)tableName;
@end

@interface NSUserDefaults : NSObject
@property(class, readonly, strong) NSUserDefaults* standardUserDefaults;
- (nullable NSString*)stringForKey:(NSString*)defaultName;
@end

// --- Notifications ---------------------------------------------------------------

typedef NSString* NSNotificationName;

@interface NSNotification : NSObject
@property(readonly, copy) NSNotificationName name;
@end

@interface NSNotificationCenter : NSObject
- (id<NSObject>)addObserverForName:(nullable NSNotificationName)name
                            object:(nullable id)obj
                             queue:(nullable NSOperationQueue*)queue
                        usingBlock:(void (^)(NSNotification* notification))block API_AVAILABLE(macos(10.6));
- (void)removeObserver:(id)observer;
@end

// --- Extensions ------------------------------------------------------------------

API_AVAILABLE(macos(10.10))
@interface NSExtensionContext : NSObject
@end

@protocol NSExtensionRequestHandling <NSObject>
- (void)beginRequestWithExtensionContext:(NSExtensionContext*)context;
@end

NS_ASSUME_NONNULL_END
