#include "HarkwellFoundation/Platform/Linux/V4L2/MediaServerProcesses.h"

#include <array>

#include "HarkwellFoundation/Platform/Linux/ProcessDetails.h"
#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2FileAccess.h"

namespace harkwell::v4l2 {
namespace {

constexpr std::array<std::string_view, 3> kMediaServers = {
    "pipewire",
    "pipewire-media-session",
    "wireplumber",
};

}  // namespace

bool IsMediaServerExecutable(std::string_view executableName) {
  for (std::string_view server : kMediaServers) {
    if (executableName == server) return true;
  }
  return false;
}

std::optional<std::string> ProcessExecutableName(const std::string& procRoot, pid_t pid) {
  const std::string folder = procRoot + "/" + std::to_string(pid);
  FileText executable = ReadLinkText(folder + "/exe");
  if (executable.text) {
    if (auto path = ExecutablePathFromLinkText(*executable.text)) {
      return std::string(LastPathComponent(*path));
    }
  }
  FileText command = ReadSmallFile(folder + "/comm", 64);
  if (!command.text) return std::nullopt;
  std::string_view name = TrimWhitespace(*command.text);
  if (name.empty()) return std::nullopt;
  return std::string(name);
}

}  // namespace harkwell::v4l2
