// What /proc says about a process that uses a device: its executable, its command name and the
// sandbox it runs in. Every Linux service calls FillProcessDetails on the consumers it reports, so
// a consumer reads the same whichever server found it.
//
//   executablePath        the text of /proc/<pid>/exe, without the " (deleted)" the kernel adds
//                         once the file was replaced or removed (an upgraded program still runs).
//   processName           /proc/<pid>/comm (at most 15 bytes, the kernel cuts longer names).
//   sandbox + ID          Flatpak: the [Application] name= of /proc/<pid>/root/.flatpak-info,
//                         which flatpak writes and the sandboxed program cannot change; when that
//                         file is out of reach, the systemd scope flatpak starts the program in,
//                         "app-flatpak-<ID>-<n>.scope", from /proc/<pid>/cgroup.
//                         Snap: the scope or service snapd starts it in, "snap.<name>.<app>...",
//                         else an executable under /snap/<name>/; the ID is the snap's name.
//
// A process that has gone (no /proc entry, or a zombie: no executable link and "State: Z" in its
// status) or that /proc hides from this process (another user's, under hidepid) leaves those
// fields empty; one whose executable alone is hidden (another user's, without hidepid) gets its
// name and what else it shows. Nothing else of the consumer is touched, and nothing fails. A
// process ID reused by a new process between the server's event and this read gives the new
// process's details: /proc cannot tell them apart.
//
// The parsers below take file text and return values, so they can be tested and fuzzed on any
// text. Everything here is stateless; any thread may call. A call costs a handful of small reads
// under /proc/<pid> and never blocks on anything but the kernel's /proc.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

#include "HarkwellFoundation/Model/MediaDeviceConsumer.h"

namespace harkwell {

// Fills executablePath, processName, sandbox and sandboxApplicationID of `consumer` from
// `procRoot`/<consumer.processID> ("/proc", or a test tree laid out like it). A processID below 1
// reads nothing. Fields the process's entry does not give are left as they were.
void FillProcessDetails(MediaDeviceConsumer& consumer, const std::string& procRoot = "/proc");

// The sandbox a process runs in, as one marker tells it.
struct ProcessSandbox {
  MediaDeviceConsumerSandbox sandbox = MediaDeviceConsumerSandbox::None;
  std::optional<std::string> applicationID;  // set whenever sandbox is not None

  friend bool operator==(const ProcessSandbox&, const ProcessSandbox&) = default;
};

// The executable's path from the text of /proc/<pid>/exe; absent for empty text or text that is no
// absolute path (an anonymous executable shows as "/memfd:... (deleted)", which is kept).
std::optional<std::string> ExecutablePathFromLinkText(std::string_view linkText);

// The command name from the text of /proc/<pid>/comm (its line break removed); absent when empty.
std::optional<std::string> ProcessNameFromCommText(std::string_view commText);

// The fields of /proc/<pid>/status that tell whether the entry is a live process.
struct ProcessStatus {
  std::optional<std::string> name;     // "Name:", with the kernel's escapes ("\n", "\\") undone
  std::optional<char> state;           // the letter of "State:" ('R', 'S', 'Z', ...)
  std::optional<pid_t> threadGroupID;  // "Tgid:"; differs from the ID read for a thread

  bool isZombie() const { return state == 'Z' || state == 'X'; }
};
ProcessStatus ParseProcessStatus(std::string_view statusText);

// The Flatpak application ID from the text of .flatpak-info: "name=" in the [Application] group.
// Absent when the group or key is missing or the value is no application ID.
std::optional<std::string> FlatpakApplicationIDFromInfo(std::string_view flatpakInfoText);

// The sandbox named by the systemd unit in the text of /proc/<pid>/cgroup (any line, cgroup v1 or
// v2); None when no line names a Flatpak or Snap unit.
ProcessSandbox SandboxFromCgroup(std::string_view cgroupText);

// The snap a program belongs to from its executable's path (/snap/<name>/<revision>/...).
std::optional<std::string> SnapNameFromExecutablePath(std::string_view executablePath);

// Whether `text` could be a Flatpak application ID: at least three dot-separated parts of ASCII
// letters, digits, '_' and '-', none starting with a digit, 255 bytes at most.
bool IsFlatpakApplicationID(std::string_view text);

// Whether `text` could be a snap's name: lower-case letters, digits and '-', at least one letter,
// 40 bytes at most, no '-' at either end or twice in a row.
bool IsSnapName(std::string_view text);

}  // namespace harkwell
