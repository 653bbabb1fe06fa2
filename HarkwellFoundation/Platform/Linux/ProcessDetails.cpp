#include "HarkwellFoundation/Platform/Linux/ProcessDetails.h"

#include <charconv>
#include <utility>

#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2FileAccess.h"

namespace harkwell {
namespace {

using v4l2::FileText;
using v4l2::ReadLinkText;
using v4l2::ReadSmallFile;
using v4l2::TrimWhitespace;

// /proc/<pid>/status is about 1.5 KiB; .flatpak-info a few hundred bytes; a cgroup line per
// hierarchy. The limits only keep a planted file in a test tree (or a sandbox's root) from making
// a read large.
constexpr std::size_t kStatusLimit = 16 * 1024;
constexpr std::size_t kCommLimit = 64;
constexpr std::size_t kCgroupLimit = 16 * 1024;
constexpr std::size_t kFlatpakInfoLimit = 64 * 1024;

bool IsAsciiLetter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
bool IsAsciiDigit(char c) {
  return c >= '0' && c <= '9';
}
bool IsLowerOrDigit(char c) {
  return (c >= 'a' && c <= 'z') || IsAsciiDigit(c);
}

// Calls `visit` with each line of `text`, without its line break.
template <typename Visit>
void ForEachLine(std::string_view text, Visit&& visit) {
  while (!text.empty()) {
    const auto end = text.find('\n');
    visit(text.substr(0, end));
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
}

// The value of a "Key:\tvalue" line of /proc/<pid>/status, when `line` has that key.
std::optional<std::string_view> StatusValue(std::string_view line, std::string_view key) {
  if (!line.starts_with(key) || line.size() <= key.size() || line[key.size()] != ':') {
    return std::nullopt;
  }
  return TrimWhitespace(line.substr(key.size() + 1));
}

// The kernel writes a task's name in status with C-like escapes for spaces and specials.
std::string UnescapeStatusName(std::string_view text) {
  std::string name;
  name.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\' || i + 1 == text.size()) {
      name += text[i];
      continue;
    }
    const char next = text[i + 1];
    if (next >= '0' && next <= '7' && i + 3 < text.size() && text[i + 2] >= '0' &&
        text[i + 2] <= '7' && text[i + 3] >= '0' && text[i + 3] <= '7') {
      name +=
          static_cast<char>(((next - '0') << 6) | ((text[i + 2] - '0') << 3) | (text[i + 3] - '0'));
      i += 3;
      continue;
    }
    switch (next) {
      case 'n':
        name += '\n';
        break;
      case 't':
        name += '\t';
        break;
      case 'r':
        name += '\r';
        break;
      case 'f':
        name += '\f';
        break;
      case 'v':
        name += '\v';
        break;
      case 'a':
        name += '\a';
        break;
      case 'e':
        name += '\x1b';
        break;
      case '\\':
        name += '\\';
        break;
      case '"':
        name += '"';
        break;
      default:
        name += '\\';
        name += next;
        break;
    }
    ++i;
  }
  return name;
}

std::optional<ProcessStatus> ReadStatus(const std::string& folder) {
  const FileText text = ReadSmallFile(folder + "/status", kStatusLimit);
  if (!text.text) return std::nullopt;
  return ParseProcessStatus(*text.text);
}

// "<ID>-<n>" of a Flatpak scope: the ID, which may hold '-' itself, before the last "-<digits>".
std::optional<std::string_view> FlatpakIDFromScopeStem(std::string_view stem) {
  const auto dash = stem.rfind('-');
  if (dash == std::string_view::npos || dash + 1 == stem.size()) return std::nullopt;
  for (char c : stem.substr(dash + 1)) {
    if (!IsAsciiDigit(c)) return std::nullopt;
  }
  const std::string_view id = stem.substr(0, dash);
  if (!IsFlatpakApplicationID(id)) return std::nullopt;
  return id;
}

// The sandbox one component of a cgroup path names ("app-flatpak-org.example.App-42.scope",
// "snap.example.app-<uuid>.scope", "snap.example.daemon.service").
ProcessSandbox SandboxFromUnitName(std::string_view unit) {
  constexpr std::string_view kFlatpakPrefix = "app-flatpak-";
  constexpr std::string_view kScope = ".scope";
  constexpr std::string_view kService = ".service";
  constexpr std::string_view kSnapPrefix = "snap.";
  if (unit.starts_with(kFlatpakPrefix) && unit.ends_with(kScope)) {
    std::string_view stem = unit.substr(kFlatpakPrefix.size());
    stem.remove_suffix(kScope.size());
    if (auto id = FlatpakIDFromScopeStem(stem)) {
      return {MediaDeviceConsumerSandbox::Flatpak, std::string(*id)};
    }
    return {};
  }
  if (unit.starts_with(kSnapPrefix) && (unit.ends_with(kScope) || unit.ends_with(kService))) {
    const std::string_view rest = unit.substr(kSnapPrefix.size());
    const auto dot = rest.find('.');
    if (dot == std::string_view::npos) return {};
    const std::string_view name = rest.substr(0, dot);
    // After the name comes the app's name, then the unit's own suffix.
    if (IsSnapName(name) && dot + 1 < rest.size() && rest[dot + 1] != '.') {
      return {MediaDeviceConsumerSandbox::Snap, std::string(name)};
    }
  }
  return {};
}

// A snap's name may carry an instance key ("name_key") when the snap is installed twice.
bool IsSnapInstanceKey(std::string_view key) {
  if (key.empty() || key.size() > 10) return false;
  for (char c : key) {
    if (!IsLowerOrDigit(c)) return false;
  }
  return true;
}

}  // namespace

std::optional<std::string> ExecutablePathFromLinkText(std::string_view linkText) {
  constexpr std::string_view kDeleted = " (deleted)";
  // A path that really ends in " (deleted)" and was then deleted shows it twice; only the
  // kernel's own mark is removed.
  if (linkText.ends_with(kDeleted)) linkText.remove_suffix(kDeleted.size());
  if (linkText.empty() || linkText.front() != '/') return std::nullopt;
  return std::string(linkText);
}

std::optional<std::string> ProcessNameFromCommText(std::string_view commText) {
  if (commText.ends_with('\n')) commText.remove_suffix(1);
  if (commText.empty()) return std::nullopt;
  return std::string(commText);
}

ProcessStatus ParseProcessStatus(std::string_view statusText) {
  ProcessStatus status;
  ForEachLine(statusText, [&status](std::string_view line) {
    if (auto name = StatusValue(line, "Name")) {
      // The name may end in spaces; only the tab after the colon separates it.
      std::string_view raw = line.substr(5);
      if (raw.starts_with('\t')) raw.remove_prefix(1);
      if (!status.name && !raw.empty()) status.name = UnescapeStatusName(raw);
    } else if (auto state = StatusValue(line, "State")) {
      if (!status.state && !state->empty()) status.state = state->front();
    } else if (auto group = StatusValue(line, "Tgid")) {
      pid_t value = 0;
      const auto* end = group->data() + group->size();
      const auto [last, error] = std::from_chars(group->data(), end, value);
      if (!status.threadGroupID && error == std::errc() && last == end && value > 0) {
        status.threadGroupID = value;
      }
    }
  });
  return status;
}

std::optional<std::string> FlatpakApplicationIDFromInfo(std::string_view flatpakInfoText) {
  bool inApplication = false;
  std::optional<std::string> id;
  ForEachLine(flatpakInfoText, [&](std::string_view line) {
    line = TrimWhitespace(line);
    if (line.empty() || line.front() == '#' || line.front() == ';') return;
    if (line.front() == '[') {
      inApplication = line == "[Application]";
      return;
    }
    if (!inApplication || id) return;
    const auto equals = line.find('=');
    if (equals == std::string_view::npos) return;
    if (TrimWhitespace(line.substr(0, equals)) != "name") return;
    const std::string_view value = TrimWhitespace(line.substr(equals + 1));
    if (IsFlatpakApplicationID(value)) id = std::string(value);
  });
  return id;
}

ProcessSandbox SandboxFromCgroup(std::string_view cgroupText) {
  ProcessSandbox found;
  ForEachLine(cgroupText, [&found](std::string_view line) {
    if (found.sandbox != MediaDeviceConsumerSandbox::None) return;
    // "hierarchy-ID:controllers:path"; the path may itself hold ':'.
    const auto first = line.find(':');
    if (first == std::string_view::npos) return;
    const auto second = line.find(':', first + 1);
    if (second == std::string_view::npos) return;
    std::string_view path = line.substr(second + 1);
    // The innermost unit decides: a Flatpak started from a snap's terminal is a Flatpak.
    while (!path.empty() && found.sandbox == MediaDeviceConsumerSandbox::None) {
      const auto slash = path.rfind('/');
      const std::string_view unit = slash == std::string_view::npos ? path : path.substr(slash + 1);
      found = SandboxFromUnitName(unit);
      path = slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
    }
  });
  return found;
}

std::optional<std::string> SnapNameFromExecutablePath(std::string_view executablePath) {
  constexpr std::string_view kSnapRoot = "/snap/";
  if (!executablePath.starts_with(kSnapRoot)) return std::nullopt;
  executablePath.remove_prefix(kSnapRoot.size());
  const auto slash = executablePath.find('/');
  // /snap/<name>/<revision>/<file>: a file directly in /snap/ or /snap/bin is no snap's own.
  if (slash == std::string_view::npos) return std::nullopt;
  const std::string_view name = executablePath.substr(0, slash);
  if (name == "bin" || !IsSnapName(name)) return std::nullopt;
  if (executablePath.find('/', slash + 1) == std::string_view::npos) return std::nullopt;
  return std::string(name);
}

bool IsFlatpakApplicationID(std::string_view text) {
  if (text.empty() || text.size() > 255) return false;
  int parts = 0;
  while (true) {
    const auto dot = text.find('.');
    const std::string_view part = text.substr(0, dot);
    if (part.empty() || IsAsciiDigit(part.front())) return false;
    for (char c : part) {
      if (!IsAsciiLetter(c) && !IsAsciiDigit(c) && c != '_' && c != '-') return false;
    }
    ++parts;
    if (dot == std::string_view::npos) break;
    text.remove_prefix(dot + 1);
  }
  return parts >= 3;
}

bool IsSnapName(std::string_view text) {
  const auto underscore = text.find('_');
  if (underscore != std::string_view::npos) {
    if (!IsSnapInstanceKey(text.substr(underscore + 1))) return false;
    text = text.substr(0, underscore);
  }
  if (text.empty() || text.size() > 40 || text.front() == '-' || text.back() == '-') return false;
  bool hasLetter = false;
  char previous = '\0';
  for (char c : text) {
    if (c == '-' && previous == '-') return false;
    if (c != '-' && !IsLowerOrDigit(c)) return false;
    if (c >= 'a' && c <= 'z') hasLetter = true;
    previous = c;
  }
  return hasLetter;
}

void FillProcessDetails(MediaDeviceConsumer& consumer, const std::string& procRoot) {
  if (consumer.processID < 1) return;
  const std::string folder = procRoot + "/" + std::to_string(consumer.processID);
  // The status is read only when needed (it is the costliest file here): an executable link that
  // reads means a live process, since a zombie has dropped its memory and with it the link.
  std::optional<ProcessStatus> status;
  std::optional<std::string> executable;
  if (FileText link = ReadLinkText(folder + "/exe"); link.text) {
    executable = ExecutablePathFromLinkText(*link.text);
  } else {
    // No link: the process has gone, is a zombie (it has exited; what is left of it names no
    // program that uses anything), or /proc hides its executable from this process.
    status = ReadStatus(folder);
    if (!status || status->isZombie()) return;
  }
  std::optional<std::string> name;
  if (FileText comm = ReadSmallFile(folder + "/comm", kCommLimit); comm.text) {
    name = ProcessNameFromCommText(*comm.text);
  }
  if (!name) {
    if (!status) status = ReadStatus(folder);
    if (status) name = status->name;
  }

  ProcessSandbox sandbox;
  if (FileText info = ReadSmallFile(folder + "/root/.flatpak-info", kFlatpakInfoLimit); info.text) {
    if (auto id = FlatpakApplicationIDFromInfo(*info.text)) {
      sandbox = {MediaDeviceConsumerSandbox::Flatpak, std::move(id)};
    }
  }
  if (sandbox.sandbox == MediaDeviceConsumerSandbox::None) {
    if (FileText cgroup = ReadSmallFile(folder + "/cgroup", kCgroupLimit); cgroup.text) {
      sandbox = SandboxFromCgroup(*cgroup.text);
    }
  }
  if (sandbox.sandbox == MediaDeviceConsumerSandbox::None && executable) {
    if (auto snap = SnapNameFromExecutablePath(*executable)) {
      sandbox = {MediaDeviceConsumerSandbox::Snap, std::move(snap)};
    }
  }

  if (executable) consumer.executablePath = std::move(executable);
  if (name) consumer.processName = std::move(name);
  if (sandbox.sandbox != MediaDeviceConsumerSandbox::None) {
    consumer.sandbox = sandbox.sandbox;
    consumer.sandboxApplicationID = std::move(sandbox.applicationID);
  }
}

}  // namespace harkwell
