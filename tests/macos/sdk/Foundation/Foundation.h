#pragma once
#include <CoreGraphics/CoreGraphics.h>

typedef long NSInteger;
typedef unsigned long NSUInteger;
typedef double NSTimeInterval;
typedef signed char BOOL;
#define nil nullptr
#define YES ((BOOL)1)
#define NO ((BOOL)0)
typedef CGRect NSRect;
typedef CGSize NSSize;

typedef struct dispatch_queue_s* dispatch_queue_t;
dispatch_queue_t dispatch_get_main_queue(void);
void dispatch_async(dispatch_queue_t queue, void (^block)(void));

@class NSString, NSError, NSCoder;

@protocol NSObject
- (BOOL)isKindOfClass:(Class)aClass;
@end

__attribute__((objc_root_class))
@interface NSObject<NSObject>
+ (instancetype)alloc;
+ (Class)class;
- (instancetype)init;
- (BOOL)isKindOfClass:(Class)aClass;
- (void)setValue:(id)value forKey:(NSString*)key;
@end

typedef struct {
  unsigned long state;
  __unsafe_unretained id* itemsPtr;
  unsigned long* mutationsPtr;
  unsigned long extra[5];
} NSFastEnumerationState;

@protocol NSFastEnumeration
- (NSUInteger)countByEnumeratingWithState:(NSFastEnumerationState*)state
                                  objects:(__unsafe_unretained id[])buffer
                                    count:(NSUInteger)len;
@end

@interface NSString : NSObject
+ (instancetype)stringWithUTF8String:(const char*)nullTerminatedCString;
@property(readonly) const char* UTF8String;
@end
@interface NSConstantString : NSString
@end

@interface NSNumber : NSObject
+ (NSNumber*)numberWithDouble:(double)value;
+ (NSNumber*)numberWithInt:(int)value;
+ (NSNumber*)numberWithUnsignedInt:(unsigned int)value;
+ (NSNumber*)numberWithFloat:(float)value;
@property(readonly) double doubleValue;
@property(readonly) unsigned long long unsignedLongLongValue;
@end

@interface NSArray<ObjectType> : NSObject <NSFastEnumeration>
+ (instancetype)arrayWithObjects:(const ObjectType[])objects count:(NSUInteger)cnt;
@property(readonly) NSUInteger count;
@property(readonly) ObjectType firstObject;
- (ObjectType)objectAtIndexedSubscript:(NSUInteger)idx;
@end

@interface NSMutableArray<ObjectType> : NSArray <ObjectType>
+ (instancetype)array;
- (void)addObject:(ObjectType)anObject;
@end

@interface NSDictionary<KeyType, ObjectType> : NSObject
+ (instancetype)dictionaryWithObjects:(const ObjectType[])objects forKeys:(const KeyType[])keys count:(NSUInteger)cnt;
- (ObjectType)objectForKeyedSubscript:(KeyType)key;
@end

@interface NSURL : NSObject
+ (NSURL*)fileURLWithPath:(NSString*)path;
@end

@interface NSError : NSObject
@property(readonly, copy) NSString* localizedDescription;
@end

@interface NSCoder : NSObject
@end

typedef NSString* NSNotificationName;
@interface NSNotification : NSObject
@property(readonly, copy) NSNotificationName name;
@end

@interface NSNotificationCenter : NSObject
- (void)addObserver:(id)observer selector:(SEL)aSelector name:(NSNotificationName)aName object:(id)anObject;
- (void)removeObserver:(id)observer;
@end
@interface NSDistributedNotificationCenter : NSNotificationCenter
@property(class, readonly, strong) NSDistributedNotificationCenter* defaultCenter;
@end

@interface NSTimer : NSObject
+ (NSTimer*)scheduledTimerWithTimeInterval:(NSTimeInterval)interval
                                   repeats:(BOOL)repeats
                                     block:(void (^)(NSTimer* timer))block;
- (void)invalidate;
@end

id CFBridgingRelease(CFTypeRef X);
