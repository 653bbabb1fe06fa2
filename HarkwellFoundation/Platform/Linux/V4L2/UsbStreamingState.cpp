#include "HarkwellFoundation/Platform/Linux/V4L2/UsbStreamingState.h"

#include <dirent.h>

#include <charconv>
#include <map>
#include <memory>
#include <string_view>

#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2FileAccess.h"

namespace harkwell::v4l2 {
namespace {

constexpr std::string_view kVideoClass = "0e";
constexpr std::string_view kStreamingSubclass = "02";

struct FolderCloser {
  void operator()(DIR* folder) const { ::closedir(folder); }
};

std::optional<std::string> Attribute(const std::string& path) {
  FileText file = ReadSmallFile(path, 256);
  if (!file.text) return std::nullopt;
  return std::string(TrimWhitespace(*file.text));
}

std::optional<unsigned> Number(const std::optional<std::string>& text, int base) {
  if (!text || text->empty()) return std::nullopt;
  unsigned value = 0;
  const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), value, base);
  if (error != std::errc() || end != text->data() + text->size()) return std::nullopt;
  return value;
}

// "1-2:1.3" -> ("1-2:1.", 3): the device and configuration part, and the interface number.
std::optional<std::pair<std::string, unsigned>> SplitInterfaceName(std::string_view name) {
  const auto colon = name.find(':');
  const auto dot = name.rfind('.');
  if (colon == std::string_view::npos || dot == std::string_view::npos || dot < colon) {
    return std::nullopt;
  }
  const std::string digits(name.substr(dot + 1));
  const auto number = Number(digits, 10);
  if (!number) return std::nullopt;
  return std::make_pair(std::string(name.substr(0, dot + 1)), *number);
}

}  // namespace

UsbStreamingState ReadUsbStreamingState(const std::string& controlInterfacePath,
                                        const std::string& usbDevicePath) {
  UsbStreamingState state;
  state.suspended = Attribute(usbDevicePath + "/power/runtime_status") == "suspended";

  const auto control = SplitInterfaceName(LastPathComponent(controlInterfacePath));
  if (!control) return state;
  // The device's interfaces of the same configuration, by number.
  std::map<unsigned, std::string> interfaces;
  std::unique_ptr<DIR, FolderCloser> folder(::opendir(usbDevicePath.c_str()));
  if (!folder) return state;
  while (const dirent* entry = ::readdir(folder.get())) {
    const std::string_view name = entry->d_name;
    const auto split = SplitInterfaceName(name);
    if (split && split->first == control->first && split->second > control->second) {
      interfaces.emplace(split->second, std::string(name));
    }
  }

  bool sawIsochronous = false;
  bool sawBulk = false;
  for (const auto& [number, name] : interfaces) {
    const std::string path = usbDevicePath + "/" + name;
    if (Attribute(path + "/bInterfaceClass") != kVideoClass ||
        Attribute(path + "/bInterfaceSubClass") != kStreamingSubclass) {
      break;  // the next function starts here
    }
    const auto setting = Number(Attribute(path + "/bAlternateSetting"), 10);
    if (!setting) continue;
    if (*setting != 0) {
      state.isochronousStreaming = true;
      return state;
    }
    // Setting 0 without endpoints is the zero-bandwidth rest of an isochronous interface; with
    // an endpoint it is a bulk interface, whose setting never changes.
    (Number(Attribute(path + "/bNumEndpoints"), 16) == 0u ? sawIsochronous : sawBulk) = true;
  }
  // A bulk interface beside an isochronous one could be streaming unseen.
  if (sawIsochronous && !sawBulk) state.isochronousStreaming = false;
  return state;
}

}  // namespace harkwell::v4l2
