#include "tools/harkwell/LogLines.h"

#include <regex>

#include "tools/harkwell/TerminalText.h"

namespace harkwell::cli {

bool IsExpectedConditionLine(std::string_view line) {
  // "Audio Error (unknown error): Model UID for device with ID 5 is nil": a model UID is absent
  // for many real devices (and by default in a scenario), and the record says so with null.
  static const std::regex kNoModelUID(
      R"((Audio|Video) Error [^:]*: Model UID for device with ID \d+ is nil)");
  return std::regex_match(line.begin(), line.end(), kNoModelUID);
}

std::string StderrLogLine(std::string_view line) {
  return "harkwell: " + EscapeForTerminal(line);
}

std::optional<std::string> UnreachableSourceNote(std::string_view line) {
  // The PulseAudio and PipeWire services write these while they start: "PulseAudio: no server
  // answered (Connection refused); devices will appear when one starts", "PipeWire: the daemon did
  // not answer within 2000 ms; devices will appear when it does".
  static const std::regex kUnreachable(R"((.*); devices will appear when (one starts|it does))");
  std::match_results<std::string_view::const_iterator> match;
  if (!std::regex_match(line.begin(), line.end(), match, kUnreachable)) return std::nullopt;
  return match[1].str();
}

}  // namespace harkwell::cli
