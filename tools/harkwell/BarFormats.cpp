#include "tools/harkwell/BarFormats.h"

#include "tools/harkwell/DeviceJson.h"

namespace harkwell::cli {
namespace {

constexpr std::string_view kIdleTooltip = "No microphone, camera or speaker in use";

std::string Joined(const std::vector<std::string>& words, std::string_view separator) {
  std::string text;
  for (const auto& word : words) {
    if (!text.empty()) text += separator;
    text += word;
  }
  return text;
}

std::vector<std::string> KindWords(const BarSummary& summary) {
  std::vector<std::string> words;
  for (const auto& kind : summary.kinds) words.emplace_back(BarKindWord(kind.kind));
  return words;
}

std::string Capitalised(std::string_view word) {
  std::string text(word);
  if (!text.empty() && text[0] >= 'a' && text[0] <= 'z') text[0] = static_cast<char>(text[0] - 32);
  return text;
}

// "Microphone: parecord on Harkwell Null Input", one line per kind. A held kind reads as in use:
// the hold is there so that the bar does not change at once.
std::string Tooltip(const BarSummary& summary) {
  if (summary.isEmpty()) return std::string(kIdleTooltip);
  std::vector<std::string> lines;
  for (const auto& kind : summary.kinds) {
    std::string line = Capitalised(BarKindWord(kind.kind)) + ": " + BarKindDetail(kind);
    if (!kind.users.empty()) line += " on " + Joined(kind.devices, ", ");
    lines.push_back(std::move(line));
  }
  return Joined(lines, "\n");
}

// "microphone: parecord  camera: HD Webcam"
std::string FullText(const BarSummary& summary) {
  std::vector<std::string> parts;
  for (const auto& kind : summary.kinds) {
    parts.push_back(std::string(BarKindWord(kind.kind)) + ": " + BarKindDetail(kind));
  }
  return Joined(parts, "  ");
}

bool ShowsPrivateKind(const BarSummary& summary) {
  for (const auto& kind : summary.kinds) {
    if (kind.kind != BarKind::Speaker) return true;
  }
  return false;
}

Json WaybarObject(const BarSummary& summary) {
  const auto words = KindWords(summary);
  Json classes = Json::array();
  for (const auto& word : words) classes.push_back(word);
  if (words.empty()) classes.push_back("idle");
  return Json{{"text", Joined(words, " ")},
              {"tooltip", Tooltip(summary)},
              {"class", classes},
              {"alt", words.empty() ? std::string("idle") : Joined(words, "-")}};
}

Json I3barBlocks(const BarSummary& summary) {
  Json block{{"name", "harkwell"},
             {"full_text", FullText(summary)},
             {"short_text", Joined(KindWords(summary), " ")}};
  if (ShowsPrivateKind(summary)) block["urgent"] = true;
  return Json::array({block});
}

Json I3statusRustObject(const BarSummary& summary) {
  const char* state = summary.isEmpty()           ? "Idle"
                      : ShowsPrivateKind(summary) ? "Critical"
                                                  : "Warning";
  return Json{{"icon", ""},
              {"state", state},
              {"text", FullText(summary)},
              {"short_text", Joined(KindWords(summary), " ")}};
}

}  // namespace

std::string_view BarFormatWord(BarFormat format) {
  switch (format) {
    case BarFormat::Waybar:
      return "waybar";
    case BarFormat::I3bar:
      return "i3bar";
    case BarFormat::I3statusRust:
      return "i3status-rust";
  }
  return "waybar";
}

std::optional<BarFormat> BarFormatFromWord(std::string_view word) {
  for (const auto format : {BarFormat::Waybar, BarFormat::I3bar, BarFormat::I3statusRust}) {
    if (BarFormatWord(format) == word) return format;
  }
  return std::nullopt;
}

std::string BarKindDetail(const BarKindInUse& kind) {
  return Joined(kind.users.empty() ? kind.devices : kind.users, ", ");
}

std::vector<std::string> BarPreamble(BarFormat format) {
  if (format == BarFormat::I3bar) return {R"({"version":1})", "["};
  return {};
}

std::string BarLine(BarFormat format, const BarSummary& summary, bool first) {
  switch (format) {
    case BarFormat::Waybar:
      return DumpLine(WaybarObject(summary));
    case BarFormat::I3bar: {
      // Built by appending: GCC 12 at -O3 misreads `"," + std::string&&` as an overlapping copy.
      std::string line = first ? "" : ",";
      line += DumpLine(I3barBlocks(summary));
      return line;
    }
    case BarFormat::I3statusRust:
      return DumpLine(I3statusRustObject(summary));
  }
  return {};
}

}  // namespace harkwell::cli
