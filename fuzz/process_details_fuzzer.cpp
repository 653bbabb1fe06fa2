// The /proc readers for device consumers on arbitrary text: status, the exe link's text, comm,
// cgroup and .flatpak-info, each given the whole input. None may crash, and each keeps its
// promises: a sandbox always comes with an application ID that follows its system's naming rules,
// an executable path is absolute and taken from the text, a process name is never empty, and a
// zombie is recognised from its state letter alone.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "HarkwellFoundation/Platform/Linux/ProcessDetails.h"

namespace {

void Require(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "broken promise: %s\n", what);
  std::abort();
}

void CheckSandbox(const harkwell::ProcessSandbox& found) {
  using harkwell::MediaDeviceConsumerSandbox;
  switch (found.sandbox) {
    case MediaDeviceConsumerSandbox::None:
      Require(!found.applicationID, "no sandbox, yet an application ID");
      break;
    case MediaDeviceConsumerSandbox::Flatpak:
      Require(found.applicationID && harkwell::IsFlatpakApplicationID(*found.applicationID),
              "a Flatpak without a valid application ID");
      break;
    case MediaDeviceConsumerSandbox::Snap:
      Require(found.applicationID && harkwell::IsSnapName(*found.applicationID),
              "a snap without a valid name");
      break;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace harkwell;
  const std::string_view text(reinterpret_cast<const char*>(data), size);

  const ProcessStatus status = ParseProcessStatus(text);
  Require(!status.name || !status.name->empty(), "an empty process name from status");
  Require(!status.threadGroupID || *status.threadGroupID > 0, "a thread group ID below 1");
  Require(status.isZombie() == (status.state == 'Z' || status.state == 'X'),
          "zombie judged by more than the state letter");

  if (auto path = ExecutablePathFromLinkText(text)) {
    Require(!path->empty() && path->front() == '/', "an executable path that is not absolute");
    Require(text.starts_with(*path), "an executable path not taken from the link text");
    if (auto snap = SnapNameFromExecutablePath(*path)) {
      Require(IsSnapName(*snap), "a snap name against the rules from an executable path");
      Require(path->starts_with("/snap/" + *snap + "/"), "a snap name not from the path");
    }
  }
  if (auto name = ProcessNameFromCommText(text)) {
    Require(!name->empty(), "an empty command name");
    Require(text.starts_with(*name), "a command name not taken from comm");
  }
  if (auto id = FlatpakApplicationIDFromInfo(text)) {
    Require(IsFlatpakApplicationID(*id), "a Flatpak ID against the rules from .flatpak-info");
    Require(text.find(*id) != std::string_view::npos, "a Flatpak ID not in .flatpak-info");
  }
  const ProcessSandbox fromCgroup = SandboxFromCgroup(text);
  CheckSandbox(fromCgroup);
  if (fromCgroup.applicationID) {
    Require(text.find(*fromCgroup.applicationID) != std::string_view::npos,
            "a sandbox ID not in the cgroup text");
  }
  return 0;
}
