#include <algorithm>
#include <array>
#include <fstream>

#include "HarkwellFoundation/Host/internal/ModelIdentifierSources.h"

namespace harkwell {
namespace {

// Firmware attributes are small; anything longer is not a model name.
constexpr std::size_t kMaximumAttributeSize = 4096;

std::optional<std::string> readAttribute(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  std::string bytes;
  bytes.resize(kMaximumAttributeSize + 1);
  file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  bytes.resize(static_cast<std::size_t>(file.gcount()));
  if (bytes.size() > kMaximumAttributeSize || file.bad()) return std::nullopt;
  return bytes;
}

// A DMI attribute as sysfs shows it: the text and a newline. Returns the text, if it is valid
// UTF-8 and says something.
std::optional<std::string> dmiText(const std::filesystem::path& path) {
  auto bytes = readAttribute(path);
  if (!bytes) return std::nullopt;
  auto text = ModelIdentifierText(*bytes);
  if (!text) return std::nullopt;
  while (!text->empty() && (text->back() == '\n' || text->back() == ' ')) text->pop_back();
  static constexpr std::array<std::string_view, 8> kPlaceholders = {"",
                                                                    "To Be Filled By O.E.M.",
                                                                    "To be filled by O.E.M.",
                                                                    "System Product Name",
                                                                    "System manufacturer",
                                                                    "Default string",
                                                                    "Not Applicable",
                                                                    "N/A"};
  if (std::find(kPlaceholders.begin(), kPlaceholders.end(), *text) != kPlaceholders.end()) {
    return std::nullopt;
  }
  return text;
}

}  // namespace

std::optional<std::string> ComputerModelIdentifierFromLinuxFirmware(
    const std::filesystem::path& root) {
  const auto dmi = root / "sys/class/dmi/id";
  if (auto product = dmiText(dmi / "product_name")) {
    auto vendor = dmiText(dmi / "sys_vendor");
    // "20XW0026GE" says little without "LENOVO"; "MacBookPro18,3" needs no "Apple Inc.".
    if (vendor && product->rfind(*vendor, 0) != 0 && product->find(',') == std::string::npos) {
      return *vendor + " " + *product;
    }
    return product;
  }
  // Device-tree machines (ARM boards): the model is a zero-terminated string.
  for (const char* path : {"proc/device-tree/model", "sys/firmware/devicetree/base/model"}) {
    auto bytes = readAttribute(root / path);
    if (!bytes) continue;
    auto text = ModelIdentifierText(*bytes);
    if (!text) return std::nullopt;
    if (!text->empty()) return text;
  }
  return std::nullopt;
}

}  // namespace harkwell
