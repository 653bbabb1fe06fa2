// The ways the model identifier is read, each taking its source as a parameter so that tests can
// feed it bytes. ComputerModelIdentifier() calls the one that fits the platform.
#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace harkwell {

// The shape of sysctl(3): name, name length, output buffer, in/out output size, new value, its
// size; 0 on success.
using SysctlFunction =
    std::function<int(int* name, unsigned nameLength, void* oldValue, std::size_t* oldLength,
                      void* newValue, std::size_t newLength)>;

// The kernel's hw.model through `sysctl`: one call for the size, one for the value, no retry.
// Empty when either call fails or the text is not valid UTF-8.
std::optional<std::string> ComputerModelIdentifierFromSysctl(const SysctlFunction& sysctl);

// The Linux sources under `root` (normally "/"): the DMI product name from
// sys/class/dmi/id, prefixed with the system vendor unless the name already starts with it or is
// an Apple-style "Name<major>,<minor>" identifier (it contains a comma), or, where DMI says
// nothing useful, the device-tree model. Placeholder names that firmware leaves
// unfilled ("To Be Filled By O.E.M.", "System Product Name", "Default string", ...) count as none.
std::optional<std::string> ComputerModelIdentifierFromLinuxFirmware(
    const std::filesystem::path& root);

// The bytes before the first zero byte, if they are well-formed UTF-8; empty otherwise. Nothing
// is repaired.
std::optional<std::string> ModelIdentifierText(std::string_view bytes);

}  // namespace harkwell
