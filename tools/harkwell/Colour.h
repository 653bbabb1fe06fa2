// ANSI colours for the human-readable output. They are used only when the output is a terminal
// (and NO_COLOR is not set), so piped output stays plain text.
#pragma once

#include <string>
#include <string_view>

namespace harkwell::cli {

enum class Colour { Bold, Dim, Red, Green, Yellow, Cyan };

class Painter {
 public:
  explicit Painter(bool enabled) : enabled_(enabled) {}
  bool enabled() const { return enabled_; }
  // `text` wrapped in the colour's escape sequence and a reset; `text` itself when disabled.
  std::string paint(std::string_view text, Colour colour) const;

 private:
  bool enabled_;
};

// Whether the stream behind `fd` should get colour: a terminal, NO_COLOR unset, TERM not "dumb".
bool ShouldUseColour(int fd);

}  // namespace harkwell::cli
