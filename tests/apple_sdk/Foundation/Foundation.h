// The Foundation declarations our macOS sources use: NSLog, whose format is an NSString (a
// CFStringRef converts to it by a bridging cast).
#pragma once

#include <CoreFoundation/CoreFoundation.h>

@class NSString;

extern "C" void NSLog(NSString* format, ...) __attribute__((format(__NSString__, 1, 2)));
