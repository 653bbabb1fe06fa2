// Log lines about a V4L2 tree quote what the tree holds: entry names, paths, device names. Those
// are bytes from the machine (or from a broken test tree) and may contain newlines, terminal
// escapes or invalid UTF-8. A log line must stay one readable line, so quoted text goes through
// this first. Device names reported through the service are never passed through it: they stay
// unaltered.
#pragma once

#include <string>
#include <string_view>

namespace harkwell::v4l2 {

// `bytes` with well-formed, printable UTF-8 kept as is; control characters (C0, DEL, C1, the
// Unicode line and paragraph separators), bytes that are not valid UTF-8 and the backslash itself
// are written as \xNN escapes (a backslash as "\\"), so the result has no line break and reads
// back unambiguously.
std::string PrintableForLog(std::string_view bytes);

// PrintableForLog(bytes) between double quotes, the way log lines quote names and paths.
std::string QuotedForLog(std::string_view bytes);

}  // namespace harkwell::v4l2
