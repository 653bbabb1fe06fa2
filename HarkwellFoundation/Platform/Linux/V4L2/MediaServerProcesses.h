// Programs that serve cameras to other programs. Such a server keeps camera nodes open while
// nobody watches (to list them, to keep its graph ready), so its open descriptor says nothing
// about frames flowing; only its streaming does (buffers of the node mapped into it), or, where a
// view of the server's own graph is available, that graph.
//
// The list, matched against the name of the process's executable (the last part of
// /proc/<pid>/exe, " (deleted)" removed), else its command name (/proc/<pid>/comm):
//   pipewire, pipewire-media-session, wireplumber
//
// Stateless; any thread may call.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

namespace harkwell::v4l2 {

bool IsMediaServerExecutable(std::string_view executableName);

// The name of the process's executable; absent when /proc does not say (a process that is gone,
// or whose executable this process may not see, answers from its command name if it can).
std::optional<std::string> ProcessExecutableName(const std::string& procRoot, pid_t pid);

}  // namespace harkwell::v4l2
