#include "tools/harkwell/Colour.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace harkwell::cli {
namespace {

std::string_view StartSequence(Colour colour) {
  switch (colour) {
    case Colour::Bold:
      return "\x1b[1m";
    case Colour::Dim:
      return "\x1b[2m";
    case Colour::Red:
      return "\x1b[31m";
    case Colour::Green:
      return "\x1b[32m";
    case Colour::Yellow:
      return "\x1b[33m";
    case Colour::Cyan:
      return "\x1b[36m";
  }
  return "";
}

}  // namespace

std::string Painter::paint(std::string_view text, Colour colour) const {
  if (!enabled_ || text.empty()) return std::string(text);
  std::string out(StartSequence(colour));
  out += text;
  out += "\x1b[0m";
  return out;
}

bool ShouldUseColour(int fd) {
  if (!isatty(fd)) return false;
  const char* noColour = std::getenv("NO_COLOR");
  if (noColour != nullptr && noColour[0] != '\0') return false;
  const char* term = std::getenv("TERM");
  return term == nullptr || std::strcmp(term, "dumb") != 0;
}

}  // namespace harkwell::cli
