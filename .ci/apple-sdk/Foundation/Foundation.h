// Foundation: strings, collections, URLs, data, errors, files, bundles,
// defaults, notifications and the extension context.
#pragma once

#import <objc/NSObject.h>
#include <CoreFoundation/CoreFoundation.h>

#ifdef __cplusplus
#define FOUNDATION_EXPORT extern "C"
#else
#define FOUNDATION_EXPORT extern
#endif

// As the SDK spells them in C++: NS_ENUM is a typed enum, NS_OPTIONS a plain
// integer type with its constants beside it, so 0 and | work on options.
#define NS_ENUM(_type, _name) enum _name : _type _name; enum _name : _type
#define NS_OPTIONS(_type, _name) _type _name; enum : _type

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

// --- Strings ---------------------------------------------------------------

typedef NSUInteger NSStringEncoding;
enum : NSStringEncoding { NSUTF8StringEncoding = 4 };

typedef NS_ENUM(NSInteger, NSComparisonResult){
    NSOrderedAscending = -1L,
    NSOrderedSame,
    NSOrderedDescending,
};

@interface NSString : NSObject
- (nullable instancetype)initWithBytes:(const void*)bytes length:(NSUInteger)len encoding:(NSStringEncoding)encoding;
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
@end

@interface NSMutableArray<ObjectType> : NSArray<ObjectType>
+ (instancetype)arrayWithCapacity:(NSUInteger)numItems;
- (void)addObject:(ObjectType)anObject;
@end

@interface NSDictionary<__covariant KeyType, __covariant ObjectType> : NSObject <NSFastEnumeration>
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
FOUNDATION_EXPORT NSURLResourceKey const NSURLIsDirectoryKey;

@interface NSURL : NSObject
+ (NSURL*)fileURLWithFileSystemRepresentation:(const char*)path
                                  isDirectory:(BOOL)isDir
                                relativeToURL:(nullable NSURL*)baseURL;
@property(readonly, getter=isFileURL) BOOL fileURL;
@property(readonly) const char* fileSystemRepresentation NS_RETURNS_INNER_POINTER;
- (BOOL)getResourceValue:(out id _Nullable* _Nonnull)value
                  forKey:(NSURLResourceKey)key
                   error:(out NSError** _Nullable)error;
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
- (nullable NSURL*)containerURLForSecurityApplicationGroupIdentifier:(NSString*)groupIdentifier;
- (BOOL)createDirectoryAtURL:(NSURL*)url
    withIntermediateDirectories:(BOOL)createIntermediates
                     attributes:(nullable NSDictionary<NSFileAttributeKey, id>*)attributes
                          error:(NSError**)error;
- (nullable NSArray<NSURL*>*)mountedVolumeURLsIncludingResourceValuesForKeys:
                                 (nullable NSArray<NSURLResourceKey>*)propertyKeys
                                                                      options:(NSVolumeEnumerationOptions)options;
@end

@interface NSFileHandle : NSObject
+ (nullable instancetype)fileHandleForWritingToURL:(NSURL*)url error:(NSError**)error;
+ (nullable instancetype)fileHandleForUpdatingURL:(NSURL*)url error:(NSError**)error;
- (BOOL)seekToEndReturningOffset:(out unsigned long long* _Nullable)offsetInFile error:(out NSError**)error;
- (BOOL)seekToOffset:(unsigned long long)offset error:(out NSError**)error;
- (nullable NSData*)readDataUpToLength:(NSUInteger)length error:(out NSError**)error;
- (BOOL)writeData:(NSData*)data error:(out NSError**)error;
- (BOOL)closeAndReturnError:(out NSError**)error;
@end

// --- Bundles and defaults --------------------------------------------------------

@interface NSBundle : NSObject
@property(class, readonly, strong) NSBundle* mainBundle;
@property(readonly, copy) NSString* bundlePath;
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
                        usingBlock:(void (^)(NSNotification* notification))block;
- (void)removeObserver:(id)observer;
@end

// --- Extensions ------------------------------------------------------------------

@interface NSExtensionContext : NSObject
@end

@protocol NSExtensionRequestHandling <NSObject>
- (void)beginRequestWithExtensionContext:(NSExtensionContext*)context;
@end

NS_ASSUME_NONNULL_END
