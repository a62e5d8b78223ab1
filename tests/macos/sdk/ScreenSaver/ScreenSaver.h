#pragma once
#import <AppKit/AppKit.h>

@interface ScreenSaverView : NSView
- (instancetype)initWithFrame:(NSRect)frame isPreview:(BOOL)isPreview;
- (instancetype)initWithCoder:(NSCoder*)coder;
@property(readonly, getter=isPreview) BOOL preview;
@property NSTimeInterval animationTimeInterval;
- (void)startAnimation;
- (void)stopAnimation;
@property(readonly) BOOL hasConfigureSheet;
@property(readonly) NSWindow* configureSheet;
@end
