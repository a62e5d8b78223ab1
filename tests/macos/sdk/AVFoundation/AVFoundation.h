#pragma once
#include <CoreMedia/CoreMedia.h>
#include <CoreVideo/CoreVideo.h>
#import <Foundation/Foundation.h>
#import <QuartzCore/QuartzCore.h>

typedef NSString* AVMediaType;
extern AVMediaType const AVMediaTypeVideo;
typedef NSString* AVLayerVideoGravity;
extern AVLayerVideoGravity const AVLayerVideoGravityResize;
typedef enum : NSInteger {
  AVKeyValueStatusUnknown,
  AVKeyValueStatusLoading,
  AVKeyValueStatusLoaded,
  AVKeyValueStatusFailed,
  AVKeyValueStatusCancelled
} AVKeyValueStatus;

@interface AVAssetTrack : NSObject
@property(readonly) CGSize naturalSize;
@property(readonly) CGAffineTransform preferredTransform;
@end

@interface AVAsset : NSObject
@property(readonly) CMTime duration;
- (void)loadValuesAsynchronouslyForKeys:(NSArray<NSString*>*)keys completionHandler:(void (^)(void))handler;
- (AVKeyValueStatus)statusOfValueForKey:(NSString*)key error:(NSError**)outError;
- (NSArray<AVAssetTrack*>*)tracksWithMediaType:(AVMediaType)mediaType;
@end
@interface AVURLAsset : AVAsset
+ (instancetype)URLAssetWithURL:(NSURL*)URL options:(NSDictionary<NSString*, id>*)options;
@end

@interface AVPlayerItemOutput : NSObject
- (CMTime)itemTimeForHostTime:(CFTimeInterval)hostTimeInSeconds;
@end
@interface AVPlayerItemVideoOutput : AVPlayerItemOutput
- (instancetype)initWithPixelBufferAttributes:(NSDictionary<NSString*, id>*)pixelBufferAttributes;
- (BOOL)hasNewPixelBufferForItemTime:(CMTime)itemTime;
- (CVPixelBufferRef)copyPixelBufferForItemTime:(CMTime)itemTime itemTimeForDisplay:(CMTime*)outItemTimeForDisplay;
@end

@interface AVPlayerItem : NSObject
+ (instancetype)playerItemWithAsset:(AVAsset*)asset;
- (void)addOutput:(AVPlayerItemOutput*)output;
@property(readonly) NSArray<AVPlayerItemOutput*>* outputs;
@end

@interface AVPlayer : NSObject
@property float rate;
@property float volume;
@property(getter=isMuted) BOOL muted;
@property(readonly) AVPlayerItem* currentItem;
- (void)pause;
@end
@interface AVQueuePlayer : AVPlayer
+ (instancetype)queuePlayerWithItems:(NSArray<AVPlayerItem*>*)items;
- (void)removeAllItems;
@end

@interface AVPlayerLooper : NSObject
+ (instancetype)playerLooperWithPlayer:(AVQueuePlayer*)player
                          templateItem:(AVPlayerItem*)itemToLoop
                             timeRange:(CMTimeRange)loopRange;
@property(readonly) NSArray<AVPlayerItem*>* loopingPlayerItems;
- (void)disableLooping;
@end

@interface AVPlayerLayer : CALayer
+ (AVPlayerLayer*)playerLayerWithPlayer:(AVPlayer*)player;
@property(copy) AVLayerVideoGravity videoGravity;
@end
