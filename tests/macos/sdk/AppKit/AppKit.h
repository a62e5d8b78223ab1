#pragma once
#import <Foundation/Foundation.h>

@class CALayer, NSWindow;

@interface NSScreen : NSObject
@property(class, readonly) NSScreen* mainScreen;
@property(class, readonly) NSArray<NSScreen*>* screens;
@property(readonly) NSRect frame;
@property(readonly, copy) NSDictionary<NSString*, id>* deviceDescription;
@property(readonly) CGFloat backingScaleFactor;
@end

@interface NSWindow : NSObject
@property(readonly) NSScreen* screen;
@end

@interface NSResponder : NSObject
@end

@interface NSView : NSResponder
- (instancetype)initWithFrame:(NSRect)frameRect;
- (instancetype)initWithCoder:(NSCoder*)coder;
@property(readonly) NSWindow* window;
@property NSRect bounds;
@property BOOL wantsLayer;
@property(strong) CALayer* layer;
- (void)viewDidMoveToWindow;
@end
