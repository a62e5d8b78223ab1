#pragma once
#import <Foundation/Foundation.h>

@interface CIVector : NSObject
+ (instancetype)vectorWithX:(CGFloat)x Y:(CGFloat)y Z:(CGFloat)z W:(CGFloat)w;
@end
@interface CIFilter : NSObject
+ (CIFilter*)filterWithName:(NSString*)name;
@end
