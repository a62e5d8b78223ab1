#pragma once
#include <stdint.h>

typedef int64_t CMTimeValue;
typedef int32_t CMTimeScale;
typedef struct {
  CMTimeValue value;
  CMTimeScale timescale;
  uint32_t flags;
  int64_t epoch;
} CMTime;
typedef struct {
  CMTime start;
  CMTime duration;
} CMTimeRange;
CMTime CMTimeMakeWithSeconds(double seconds, int32_t preferredTimescale);
CMTimeRange CMTimeRangeFromTimeToTime(CMTime start, CMTime end);
double CMTimeGetSeconds(CMTime time);
