// The Core Foundation declarations our macOS sources use: allocators, strings and the run loop.
#pragma once

#include <MacTypes.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef signed long CFIndex;
typedef unsigned long CFOptionFlags;
typedef unsigned long CFHashCode;
typedef const void* CFTypeRef;
typedef double CFTimeInterval;
typedef CFTimeInterval CFAbsoluteTime;

typedef const struct OpaqueCFString* CFStringRef;
typedef const struct OpaqueCFAllocator* CFAllocatorRef;
typedef struct OpaqueCFRunLoop* CFRunLoopRef;
typedef struct OpaqueCFRunLoopTimer* CFRunLoopTimerRef;
typedef struct OpaqueCFRunLoopSource* CFRunLoopSourceRef;
typedef CFStringRef CFRunLoopMode;

typedef struct {
  CFIndex location;
  CFIndex length;
} CFRange;

static inline CFRange CFRangeMake(CFIndex location, CFIndex length) {
  CFRange range;
  range.location = location;
  range.length = length;
  return range;
}

CFTypeRef CFRetain(CFTypeRef object);
void CFRelease(CFTypeRef object);

// Allocators.
typedef struct {
  CFIndex version;
  void* info;
  const void* (*retain)(const void* info);
  void (*release)(const void* info);
  CFStringRef (*copyDescription)(const void* info);
  void* (*allocate)(CFIndex size, CFOptionFlags hint, void* info);
  void* (*reallocate)(void* pointer, CFIndex newSize, CFOptionFlags hint, void* info);
  void (*deallocate)(void* pointer, void* info);
  CFIndex (*preferredSize)(CFIndex size, CFOptionFlags hint, void* info);
} CFAllocatorContext;

extern const CFAllocatorRef kCFAllocatorDefault;
CFAllocatorRef CFAllocatorCreate(CFAllocatorRef allocator, CFAllocatorContext* context);

// Strings.
CFStringRef CFStringCreateWithCharacters(CFAllocatorRef allocator, const UniChar* characters,
                                         CFIndex count);
CFIndex CFStringGetLength(CFStringRef string);
void CFStringGetCharacters(CFStringRef string, CFRange range, UniChar* buffer);

// Time.
CFAbsoluteTime CFAbsoluteTimeGetCurrent(void);

// Run loops.
typedef SInt32 CFRunLoopRunResult;
extern const CFRunLoopMode kCFRunLoopDefaultMode;
extern const CFRunLoopMode kCFRunLoopCommonModes;

CFRunLoopRef CFRunLoopGetMain(void);
void CFRunLoopRun(void);
CFRunLoopRunResult CFRunLoopRunInMode(CFRunLoopMode mode, CFTimeInterval seconds,
                                      Boolean returnAfterSourceHandled);
void CFRunLoopStop(CFRunLoopRef runLoop);
void CFRunLoopWakeUp(CFRunLoopRef runLoop);

CFRunLoopTimerRef CFRunLoopTimerCreateWithHandler(CFAllocatorRef allocator,
                                                  CFAbsoluteTime fireDate,
                                                  CFTimeInterval interval, CFOptionFlags flags,
                                                  CFIndex order,
                                                  void (^block)(CFRunLoopTimerRef timer));
void CFRunLoopAddTimer(CFRunLoopRef runLoop, CFRunLoopTimerRef timer, CFRunLoopMode mode);
void CFRunLoopTimerInvalidate(CFRunLoopTimerRef timer);
void CFRunLoopTimerSetTolerance(CFRunLoopTimerRef timer, CFTimeInterval tolerance);
CFAbsoluteTime CFRunLoopTimerGetNextFireDate(CFRunLoopTimerRef timer);
void CFRunLoopTimerSetNextFireDate(CFRunLoopTimerRef timer, CFAbsoluteTime fireDate);

typedef struct {
  CFIndex version;
  void* info;
  const void* (*retain)(const void* info);
  void (*release)(const void* info);
  CFStringRef (*copyDescription)(const void* info);
  Boolean (*equal)(const void* info1, const void* info2);
  CFHashCode (*hash)(const void* info);
  void (*schedule)(void* info, CFRunLoopRef runLoop, CFRunLoopMode mode);
  void (*cancel)(void* info, CFRunLoopRef runLoop, CFRunLoopMode mode);
  void (*perform)(void* info);
} CFRunLoopSourceContext;

CFRunLoopSourceRef CFRunLoopSourceCreate(CFAllocatorRef allocator, CFIndex order,
                                         CFRunLoopSourceContext* context);
void CFRunLoopAddSource(CFRunLoopRef runLoop, CFRunLoopSourceRef source, CFRunLoopMode mode);
void CFRunLoopSourceSignal(CFRunLoopSourceRef source);

#ifdef __cplusplus
}
#endif
