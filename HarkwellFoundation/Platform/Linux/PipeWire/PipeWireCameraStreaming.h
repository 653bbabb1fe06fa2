// Whether PipeWire streams a camera to a consumer, read from a copy of its graph: the answer the
// V4L2 service asks for when a media server holds the camera's node (see the V4L2 service's
// mediaServerQuery). PipeWire's camera monitor makes one "Video/Source" node per V4L2 node it
// serves, naming the node file in "api.v4l2.path" (or "object.path" as "v4l2:<path>").
//
// The rule: the camera streams while such a node is in the running state and at least one of its
// links out to another node is active (a consumer takes the frames). A node that is running with
// no active link (being set up, or kept warm) and an idle or suspended node do not stream. No
// such node in the graph: no answer, and the server's own mappings decide.
//
// Pure; any thread may call.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "HarkwellFoundation/Model/MediaDeviceConsumer.h"
#include "HarkwellFoundation/Platform/Linux/PipeWire/PipeWireGraph.h"

namespace harkwell {

std::optional<bool> PipeWireStreamsCamera(const PipeWireGraph& graph,
                                          const std::vector<std::string>& nodePaths);

// The programs PipeWire streams a camera to: one consumer per node linked from one of the camera's
// nodes (a link that has not failed or come undone), in node order, with the process of its client
// as the audio services take it (AudioDeviceConsumers.h: the socket's PID, verified, else the
// claimed one) and the application's name and ID. No /proc details. No such camera node in the
// graph: no answer.
std::optional<std::vector<MediaDeviceConsumer>> PipeWireCameraClients(
    const PipeWireGraph& graph, const std::vector<std::string>& nodePaths);

// The part of `graph` the answers above depend on: the Video/Source nodes with their state and
// the properties that name their V4L2 node, the links out of them, the nodes those links go to and
// those nodes' clients. When it is equal for two graphs, every answer is.
PipeWireGraph PipeWireCameraPart(const PipeWireGraph& graph);

}  // namespace harkwell
