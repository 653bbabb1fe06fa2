// The default log line on Apple: NSLog, with the composed line as the format and no arguments.
// The line is passed exactly as composed, on purpose, so a '%' in it (say, in a device name) is
// read by NSLog's format parser. Bytes that are not UTF-8 are kept as escapes (EscapedUTF16.h)
// rather than dropping the line.
#import <Foundation/Foundation.h>

#include <string_view>
#include <vector>

#include "HarkwellFoundation/Platform/internal/EscapedUTF16.h"

namespace harkwell {
namespace {

// A CFString is an NSString (toll-free bridged); the bridging cast is the language's own, and the
// line is the format on purpose (see above).
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wold-style-cast"
#pragma clang diagnostic ignored "-Wformat-security"
#pragma clang diagnostic ignored "-Wformat-nonliteral"
void logWithFormat(CFStringRef format) {
  // The caller's thread may have no autorelease pool of its own (any thread logs).
  @autoreleasepool {
    NSLog((__bridge NSString*)format);
  }
}
#pragma clang diagnostic pop

}  // namespace

void WriteDefaultSystemLogLine(std::string_view line) {
  const std::vector<UniChar> units = EscapedUTF16FromBytes(line);
  CFStringRef format = CFStringCreateWithCharacters(kCFAllocatorDefault, units.data(),
                                                    static_cast<CFIndex>(units.size()));
  if (!format) return;
  logWithFormat(format);
  CFRelease(format);
}

}  // namespace harkwell
