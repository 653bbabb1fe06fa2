#include "tools/harkwell/JsonPositions.h"

#include <cstdint>
#include <iterator>
#include <vector>

namespace harkwell::cli {
namespace {

using nlohmann::json;

// An input iterator over the text that tells how many bytes the parser has taken so far. The
// parser reads lazily, so at each SAX event the count sits just past the token it reported (one
// further for a number, whose end the lexer finds by reading one byte ahead).
class CountingIterator {
 public:
  using iterator_category = std::input_iterator_tag;
  using value_type = char;
  using difference_type = std::ptrdiff_t;
  using pointer = const char*;
  using reference = const char&;

  CountingIterator() = default;
  CountingIterator(const char* at, std::size_t* consumed) : at_(at), consumed_(consumed) {}

  reference operator*() const { return *at_; }
  CountingIterator& operator++() {
    ++at_;
    if (consumed_ != nullptr) ++*consumed_;
    return *this;
  }
  CountingIterator operator++(int) {
    CountingIterator before = *this;
    ++*this;
    return before;
  }
  friend bool operator==(const CountingIterator& a, const CountingIterator& b) {
    return a.at_ == b.at_;
  }

 private:
  const char* at_ = nullptr;
  std::size_t* consumed_ = nullptr;
};

}  // namespace

class JsonPositions::Indexer {
 public:
  Indexer(std::string_view text, JsonPositions& positions) : text_(text), positions_(positions) {}

  std::size_t* consumed() { return &consumed_; }

  bool null() { return scalar(); }
  bool boolean(bool) { return scalar(); }
  bool number_integer(json::number_integer_t) { return scalar(); }
  bool number_unsigned(json::number_unsigned_t) { return scalar(); }
  bool number_float(json::number_float_t, const json::string_t&) { return scalar(); }
  bool string(json::string_t&) { return scalar(); }
  bool binary(json::binary_t&) { return scalar(); }

  bool start_object(std::size_t) { return open(false); }
  bool start_array(std::size_t) { return open(true); }
  bool end_object() { return close(); }
  bool end_array() { return close(); }

  bool key(json::string_t& name) {
    // The key's closing quote has just been read; its opening quote is the first byte after the
    // '{' or ',' that came before.
    const std::size_t start = skipSeparators(lastEventEnd_);
    frames_.back().key = name;
    positions_.keyOffsets_[(frames_.back().path / name).to_string()] = start;
    lastEventEnd_ = consumed_;
    return true;
  }

  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) {
    return false;
  }

 private:
  struct Frame {
    json::json_pointer path;
    bool isArray = false;
    std::size_t nextIndex = 0;
    std::string key;
  };

  // The pointer of the value that starts now, advancing the enclosing array's index.
  json::json_pointer nextPath() {
    if (frames_.empty()) return json::json_pointer();
    Frame& frame = frames_.back();
    if (frame.isArray) return frame.path / frame.nextIndex++;
    return frame.path / frame.key;
  }

  std::size_t skipSeparators(std::size_t offset) const {
    while (offset < text_.size()) {
      const char c = text_[offset];
      if (c != ' ' && c != '\t' && c != '\n' && c != '\r' && c != ':' && c != ',') break;
      ++offset;
    }
    return offset;
  }

  void note(const json::json_pointer& path) {
    positions_.valueOffsets_[path.to_string()] = skipSeparators(lastEventEnd_);
    lastEventEnd_ = consumed_;
  }

  bool scalar() {
    note(nextPath());
    return true;
  }

  bool open(bool isArray) {
    auto path = nextPath();
    note(path);
    frames_.push_back(Frame{.path = std::move(path), .isArray = isArray});
    return true;
  }

  bool close() {
    frames_.pop_back();
    lastEventEnd_ = consumed_;
    return true;
  }

  std::string_view text_;
  JsonPositions& positions_;
  std::size_t consumed_ = 0;
  std::size_t lastEventEnd_ = 0;
  std::vector<Frame> frames_;
};

TextPosition PositionOfOffset(std::string_view text, std::size_t offset) {
  TextPosition position;
  const std::size_t end = std::min(offset, text.size());
  for (std::size_t i = 0; i < end; ++i) {
    if (text[i] == '\n') {
      ++position.line;
      position.column = 1;
    } else if ((static_cast<std::uint8_t>(text[i]) & 0xC0) != 0x80) {
      ++position.column;
    }
  }
  return position;
}

JsonPositions::JsonPositions(std::string_view text) : text_(text) {
  Indexer indexer(text, *this);
  const CountingIterator first(text.data(), indexer.consumed());
  const CountingIterator last(text.data() + text.size(), nullptr);
  json::sax_parse(first, last, &indexer);
}

TextPosition JsonPositions::valuePosition(const nlohmann::json::json_pointer& pointer) const {
  return lookUp(valueOffsets_, pointer);
}

TextPosition JsonPositions::keyPosition(const nlohmann::json::json_pointer& pointer) const {
  if (keyOffsets_.contains(pointer.to_string())) return lookUp(keyOffsets_, pointer);
  return lookUp(valueOffsets_, pointer);
}

TextPosition JsonPositions::lookUp(const std::map<std::string, std::size_t>& offsets,
                                   nlohmann::json::json_pointer pointer) const {
  for (;;) {
    const auto found = offsets.find(pointer.to_string());
    if (found != offsets.end()) return PositionOfOffset(text_, found->second);
    if (pointer.empty()) return TextPosition{};
    pointer = pointer.parent_pointer();
  }
}

}  // namespace harkwell::cli
