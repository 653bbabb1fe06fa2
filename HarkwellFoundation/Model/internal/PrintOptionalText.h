// How the model's records print an optional text: quoted, or nil when absent.
#pragma once

#include <optional>
#include <ostream>
#include <string>

namespace harkwell {

inline void PrintOptionalText(std::ostream& out, const std::optional<std::string>& text) {
  if (text) {
    out << '"' << *text << '"';
  } else {
    out << "nil";
  }
}

}  // namespace harkwell
