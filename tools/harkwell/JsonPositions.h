// Where each value of a JSON text starts, so an error about a value (an unknown action, a count
// that is negative) can name its line and column, as a syntax error does. nlohmann::json keeps no
// positions in its values; this runs its SAX parser once more over the same text and notes the
// offset of every value and key by JSON pointer.
#pragma once

#include <cstddef>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace harkwell::cli {

struct TextPosition {
  std::size_t line = 1;    // 1-based
  std::size_t column = 1;  // 1-based, in characters (code points)

  friend bool operator==(const TextPosition&, const TextPosition&) = default;
};

// The line and column of the byte at `offset` in `text` (an offset past the end counts as the end).
TextPosition PositionOfOffset(std::string_view text, std::size_t offset);

class JsonPositions {
 public:
  // Indexes `text`, which must be well-formed JSON (offsets of a malformed text stop at the
  // error). `text` must outlive the index.
  explicit JsonPositions(std::string_view text);

  // The position of the value at `pointer`; of its nearest indexed parent when it has none.
  TextPosition valuePosition(const nlohmann::json::json_pointer& pointer) const;
  // The position of the key that names the member at `pointer` (its value's position when the
  // member is an array element or the document itself).
  TextPosition keyPosition(const nlohmann::json::json_pointer& pointer) const;

 private:
  class Indexer;
  TextPosition lookUp(const std::map<std::string, std::size_t>& offsets,
                      nlohmann::json::json_pointer pointer) const;

  std::string_view text_;
  std::map<std::string, std::size_t> valueOffsets_;
  std::map<std::string, std::size_t> keyOffsets_;
};

}  // namespace harkwell::cli
