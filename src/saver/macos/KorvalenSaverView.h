// The screensaver plug-in's only view. It owns one platform-neutral controller and forwards
// the host's life cycle to it; every decision is the controller's.
#import <ScreenSaver/ScreenSaver.h>

@interface KorvalenSaverView : ScreenSaverView
- (void)screenSaverEnded:(NSNotification*)notification;
@end
