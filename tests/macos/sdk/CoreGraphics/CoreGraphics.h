#pragma once
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

typedef double CGFloat;
struct CGPoint {
  CGFloat x;
  CGFloat y;
};
struct CGSize {
  CGFloat width;
  CGFloat height;
};
struct CGRect {
  struct CGPoint origin;
  struct CGSize size;
};
typedef struct CGPoint CGPoint;
typedef struct CGSize CGSize;
typedef struct CGRect CGRect;
struct CGAffineTransform {
  CGFloat a, b, c, d, tx, ty;
};
typedef struct CGAffineTransform CGAffineTransform;
CGRect CGRectMake(CGFloat x, CGFloat y, CGFloat width, CGFloat height);
CGAffineTransform CGAffineTransformMakeScale(CGFloat sx, CGFloat sy);
CGSize CGSizeApplyAffineTransform(CGSize size, CGAffineTransform t);

typedef const void* CFTypeRef;
typedef const struct __CFString* CFStringRef;
typedef const struct __CFURL* CFURLRef;
typedef const struct __CFDictionary* CFDictionaryRef;
typedef const struct __CFAllocator* CFAllocatorRef;
typedef const struct __CFUUID* CFUUIDRef;
void CFRelease(CFTypeRef object);
CFStringRef CFUUIDCreateString(CFAllocatorRef allocator, CFUUIDRef uuid);
typedef double CFTimeInterval;

typedef struct CGColor* CGColorRef;
extern const CFStringRef kCGColorBlack;
CGColorRef CGColorGetConstantColor(CFStringRef colorName);
typedef struct CGColorSpace* CGColorSpaceRef;
extern const CFStringRef kCGColorSpaceSRGB;
CGColorSpaceRef CGColorSpaceCreateWithName(CFStringRef name);
void CGColorSpaceRelease(CGColorSpaceRef space);

typedef struct CGImage* CGImageRef;
size_t CGImageGetWidth(CGImageRef image);
size_t CGImageGetHeight(CGImageRef image);
typedef uint32_t CGBitmapInfo;
typedef enum : uint32_t { kCGImageAlphaPremultipliedFirst = 2 } CGImageAlphaInfo;
enum : uint32_t { kCGBitmapByteOrder32Little = 2 << 12 };
typedef struct CGContext* CGContextRef;
CGContextRef CGBitmapContextCreate(void* data, size_t width, size_t height, size_t bitsPerComponent, size_t bytesPerRow,
                                   CGColorSpaceRef space, uint32_t bitmapInfo);
void CGContextDrawImage(CGContextRef c, CGRect rect, CGImageRef image);
void CGContextRelease(CGContextRef c);

typedef uint32_t CGDirectDisplayID;
typedef int32_t CGError;
enum : int32_t { kCGErrorSuccess = 0 };
uint32_t CGDisplayVendorNumber(CGDirectDisplayID display);
uint32_t CGDisplayModelNumber(CGDirectDisplayID display);
uint32_t CGDisplaySerialNumber(CGDirectDisplayID display);
int CGDisplayIsBuiltin(CGDirectDisplayID display);
CGError CGGetOnlineDisplayList(uint32_t maxDisplays, CGDirectDisplayID* onlineDisplays, uint32_t* displayCount);
CFUUIDRef CGDisplayCreateUUIDFromDisplayID(CGDirectDisplayID display);
