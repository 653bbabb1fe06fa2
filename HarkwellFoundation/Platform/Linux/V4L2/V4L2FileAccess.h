// Small, careful file-system reads for the V4L2 service. The trees they read (sysfs, the udev
// database, /dev, /proc) belong to the machine or to a test and may hold anything: missing files,
// directories where files belong, FIFOs, symlink loops. None of these calls blocks on such an
// entry or throws; each failure comes back as an errno value for the caller to report.
//
// Stateless; any thread may call.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace harkwell::v4l2 {

// A value read from the file system, or the errno that prevented it.
struct FileText {
  std::optional<std::string> text;
  int error = 0;
};

// The bytes of a regular file, at most `limit` of them (sysfs attributes are a page at most).
// Anything but a regular file (a directory, a FIFO, a device) fails with EINVAL without being
// read, so a FIFO planted in a tree cannot block the reader.
FileText ReadSmallFile(const std::string& path, std::size_t limit = 64 * 1024);

// The canonical absolute path of `path` (symlinks resolved), or the errno (ELOOP for a loop).
FileText ResolvePath(const std::string& path);

// The target text of the symlink at `path`, unresolved.
FileText ReadLinkText(const std::string& path);

// The last component of a path ("usb" for "../../bus/usb").
std::string_view LastPathComponent(std::string_view path);

// The directory part of a canonical path ("/a/b" for "/a/b/c"; "/" for "/a").
std::string ParentPath(std::string_view path);

// `text` without leading and trailing ASCII whitespace.
std::string_view TrimWhitespace(std::string_view text);

// The description of an errno value ("No such file or directory").
std::string ErrorText(int error);

}  // namespace harkwell::v4l2
