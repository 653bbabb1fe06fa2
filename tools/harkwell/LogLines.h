// How harkwell shows the library's log lines on stderr: prefixed with "harkwell: " and escaped for
// the terminal, and without the notes about conditions that are normal (a device that has no
// model UID) unless -v asks for them. Real failures are always shown.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace harkwell::cli {

// Whether `line` notes something that is expected in normal use rather than a failure.
bool IsExpectedConditionLine(std::string_view line);

// `line` as printed on stderr.
std::string StderrLogLine(std::string_view line);

// When `line` is a real service's note that its server did not answer at start and that devices
// will appear once it does, the note without that promise ("PulseAudio: no server answered
// (Connection refused)"), which only a command that goes on watching can keep.
std::optional<std::string> UnreachableSourceNote(std::string_view line);

}  // namespace harkwell::cli
