#pragma once
#import <Foundation/Foundation.h>

typedef NSString* CALayerContentsGravity;
extern CALayerContentsGravity const kCAGravityResize;
typedef NSString* CAAnimationCalculationMode;
extern CAAnimationCalculationMode const kCAAnimationDiscrete;
CFTimeInterval CACurrentMediaTime(void);

@protocol CAMediaTiming
@property CFTimeInterval beginTime;
@property CFTimeInterval duration;
@property float speed;
@property CFTimeInterval timeOffset;
@property float repeatCount;
@end

@interface CAAnimation : NSObject <CAMediaTiming>
@property(getter=isRemovedOnCompletion) BOOL removedOnCompletion;
@end
@interface CAPropertyAnimation : CAAnimation
+ (instancetype)animationWithKeyPath:(NSString*)path;
@end
@interface CAKeyframeAnimation : CAPropertyAnimation
@property(copy) NSArray* values;
@property(copy) NSArray<NSNumber*>* keyTimes;
@property(copy) CAAnimationCalculationMode calculationMode;
@end

@interface CALayer : NSObject <CAMediaTiming>
+ (instancetype)layer;
- (void)addSublayer:(CALayer*)layer;
- (void)removeFromSuperlayer;
- (void)addAnimation:(CAAnimation*)anim forKey:(NSString*)key;
- (void)removeAllAnimations;
@property(getter=isHidden) BOOL hidden;
@property CGAffineTransform affineTransform;
@property(copy) NSArray* filters;
@property CGColorRef backgroundColor;
@property(getter=isGeometryFlipped) BOOL geometryFlipped;
@property CGRect frame;
@property CGRect bounds;
@property BOOL masksToBounds;
@property(strong) id contents;
@property(copy) CALayerContentsGravity contentsGravity;
@end

@interface CATransaction : NSObject
+ (void)begin;
+ (void)commit;
+ (void)setDisableActions:(BOOL)flag;
@end
