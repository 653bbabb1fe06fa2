// The closest of a few known words to one the user typed, for "did you mean ...?" hints.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace harkwell::cli {

// The number of single-character insertions, deletions, substitutions and swaps of neighbours
// that turn `a` into `b`.
std::size_t EditDistance(std::string_view a, std::string_view b);

// The candidate closest to `word`, when it is close enough to be what was meant: at most two
// edits, and fewer than the word's own length. The earlier candidate wins a tie.
std::optional<std::string> NearestWord(std::string_view word,
                                       const std::vector<std::string>& candidates);

}  // namespace harkwell::cli
