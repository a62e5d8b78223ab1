#pragma once
#include <CoreGraphics/CoreGraphics.h>

typedef struct __CVBuffer* CVPixelBufferRef;
typedef int32_t CVReturn;
typedef uint64_t CVPixelBufferLockFlags;
enum : uint64_t { kCVPixelBufferLock_ReadOnly = 1 };
enum : uint32_t { kCVPixelFormatType_32BGRA = 'BGRA' };
extern const CFStringRef kCVPixelBufferPixelFormatTypeKey;
CVReturn CVPixelBufferLockBaseAddress(CVPixelBufferRef pixelBuffer, CVPixelBufferLockFlags lockFlags);
CVReturn CVPixelBufferUnlockBaseAddress(CVPixelBufferRef pixelBuffer, CVPixelBufferLockFlags unlockFlags);
size_t CVPixelBufferGetWidth(CVPixelBufferRef pixelBuffer);
size_t CVPixelBufferGetHeight(CVPixelBufferRef pixelBuffer);
size_t CVPixelBufferGetBytesPerRow(CVPixelBufferRef pixelBuffer);
void* CVPixelBufferGetBaseAddress(CVPixelBufferRef pixelBuffer);
void CVPixelBufferRelease(CVPixelBufferRef texture);
