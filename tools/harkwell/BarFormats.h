// The lines `harkwell watch --format ...` prints for status bars, one per change of the bar's
// summary, each a complete JSON value on one line:
//   - waybar: a custom module's object {"text", "tooltip", "class", "alt"}; the text is empty
//     while nothing is in use, which hides the module;
//   - i3bar: the i3bar protocol itself (a header line, then an endless array whose elements are
//     arrays of blocks), for i3bar's and swaybar's status_command;
//   - i3status-rust: the object its custom block reads with `json = true`
//     {"icon", "state", "text", "short_text"}.
// Pure functions of the summary; any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/harkwell/BarSummary.h"

namespace harkwell::cli {

enum class BarFormat { Waybar, I3bar, I3statusRust };

// "waybar", "i3bar", "i3status-rust"
std::string_view BarFormatWord(BarFormat format);
std::optional<BarFormat> BarFormatFromWord(std::string_view word);

// What a kind shows after its name: who uses it, else which devices.
// "parecord, Firefox" or "USB Microphone".
std::string BarKindDetail(const BarKindInUse& kind);

// The lines printed before the first summary (the i3bar header and the array's opening).
std::vector<std::string> BarPreamble(BarFormat format);
// The line for `summary`; `first` is the first line after the preamble.
std::string BarLine(BarFormat format, const BarSummary& summary, bool first);

}  // namespace harkwell::cli
