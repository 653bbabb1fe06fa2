// Text from devices (names, UIDs, input sources) is printed to a terminal that the user trusts,
// so anything in it that a terminal would act on is shown as a visible escape instead. Used by the
// human-readable output and the log sink; JSON output has its own escaping.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace harkwell::cli {

// `text` with every byte sequence a terminal could interpret made visible:
//   - C0 controls and DEL become \t, \n, \r, \e or \xHH;
//   - C1 controls (U+0080..U+009F) and the bidirectional overrides and isolates
//     (U+202A..U+202E, U+2066..U+2069) become \uHHHH;
//   - bytes that are not well-formed UTF-8 become \xHH;
//   - a backslash becomes \\ so the escapes above cannot be forged.
// Everything else, printable non-ASCII letters included, is kept as it is.
std::string EscapeForTerminal(std::string_view text);

// The code points besides C0 controls and DEL that a terminal acts on without showing them: the C1
// controls and the bidirectional overrides and isolates. JSON output escapes the same ones.
bool IsInvisibleFormatting(char32_t codePoint);

// How many terminal columns `text` takes once printed, counting one per code point. Meant for
// text that went through EscapeForTerminal (and so holds no controls) and for ASCII colour codes,
// which callers leave out of the text they measure.
std::size_t DisplayWidth(std::string_view text);

}  // namespace harkwell::cli
