// Who uses a camera, as the V4L2 service reports it: every process whose descriptors hold one of
// the camera's nodes, found by the service's /proc scan (ProcessNodeScanner). The kernel vouches
// for these processes, so their IDs are verified. A process whose executable (else command name) is
// a known media server (MediaServerProcesses.h) is a MediaServer consumer; its `feeds` are the
// clients it serves the camera to, when the server's own graph can say (MediaServerClientsQuery),
// and empty otherwise. Everyone else is an Application. Executable, process name and sandbox come
// from /proc (ProcessDetails.h).
//
// What this cannot know: a process whose descriptors this process may not read (another user's,
// without privilege) is not found by the scan and so is not listed; a process that closed its
// descriptor but keeps the buffers mapped is not listed; nor is the application name or ID a
// program would announce, since V4L2 has no such announcement.
//
// Runs on the V4L2 service's background thread (any thread may call; no state is kept).
#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "HarkwellFoundation/Model/MediaDeviceConsumer.h"
#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2SysfsReader.h"

namespace harkwell::v4l2 {

// Asked, on the background thread, about a camera that a media server holds: the clients the
// server streams the camera to right now, from the server's own graph. Absent: the graph does not
// know this camera (or is not available), and the server's feeds stay empty. Must answer from
// memory, without waiting.
using MediaServerClientsQuery =
    std::function<std::optional<std::vector<MediaDeviceConsumer>>(const CameraDescription& camera)>;

// The consumers of `camera` given the processes holding its nodes (in any order, repeats allowed):
// one per process, in process-ID order, with the details read from `procRoot`. A process that has
// gone by now is still listed, with its ID only.
std::vector<MediaDeviceConsumer> CameraConsumers(const CameraDescription& camera,
                                                 std::vector<pid_t> holders,
                                                 const std::string& procRoot,
                                                 const MediaServerClientsQuery& clientsQuery);

// Asks `clientsQuery` again for the feeds of the media servers among `consumers` (when the
// server's graph changed; the processes holding the camera are the same). Nothing is read from
// /proc.
void RefreshMediaServerFeeds(const CameraDescription& camera,
                             std::vector<MediaDeviceConsumer>& consumers,
                             const MediaServerClientsQuery& clientsQuery);

// Whether a consumer with these details is a media server: by the last part of its executable's
// path, else by its process name.
bool IsMediaServerConsumer(const MediaDeviceConsumer& consumer);

}  // namespace harkwell::v4l2
