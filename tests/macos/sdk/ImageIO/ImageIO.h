#pragma once
#include <CoreGraphics/CoreGraphics.h>

typedef struct CGImageSource* CGImageSourceRef;
CGImageSourceRef CGImageSourceCreateWithURL(CFURLRef url, CFDictionaryRef options);
size_t CGImageSourceGetCount(CGImageSourceRef isrc);
CGImageRef CGImageSourceCreateImageAtIndex(CGImageSourceRef isrc, size_t index, CFDictionaryRef options);
CFDictionaryRef CGImageSourceCopyPropertiesAtIndex(CGImageSourceRef isrc, size_t index, CFDictionaryRef options);
extern const CFStringRef kCGImagePropertyGIFDictionary;
extern const CFStringRef kCGImagePropertyPNGDictionary;
extern const CFStringRef kCGImagePropertyGIFDelayTime;
extern const CFStringRef kCGImagePropertyGIFUnclampedDelayTime;
extern const CFStringRef kCGImagePropertyAPNGDelayTime;
extern const CFStringRef kCGImagePropertyAPNGUnclampedDelayTime;
