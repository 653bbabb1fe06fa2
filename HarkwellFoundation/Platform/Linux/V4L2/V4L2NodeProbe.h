// Asking a video node what it can do (VIDIOC_QUERYCAP). This is the only place the V4L2 service
// opens a device node. The open is this process's own, so it never counts as the node being in use
// (the /proc scan leaves this process out), and the inotify events it causes change nothing.
//
// The probe is a plain function so that tests can stand in for the kernel (a node that refuses to
// open, a node that reports output capability). Any thread may call it.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace harkwell::v4l2 {

// What a node reported about itself.
struct NodeCapabilities {
  std::uint32_t deviceCaps = 0;  // the V4L2_CAP_* bits of this node (not of the whole driver)
  std::string card;              // the driver's name for the device; may be empty
};

// The answer of one probe: the capabilities, or the errno that stopped the probe (EACCES for a
// node this process may not open, ENOTTY for something that is not a V4L2 node).
struct NodeProbeResult {
  std::optional<NodeCapabilities> capabilities;
  int error = 0;
};

using NodeProbe = std::function<NodeProbeResult(const std::string& nodePath)>;

// Opens `nodePath` read-only and non-blocking, asks VIDIOC_QUERYCAP and closes it again. Only
// character devices are opened; anything else answers ENOTTY without being touched.
NodeProbeResult ProbeNodeCapabilities(const std::string& nodePath);

// Whether a node with these capabilities delivers frames to its reader (a camera's capture node),
// or takes frames from a writer (a loopback device's output side). Memory-to-memory nodes (codecs,
// scalers) do neither in the sense of a camera.
bool CapabilitiesCaptureVideo(std::uint32_t deviceCaps);
bool CapabilitiesOutputVideo(std::uint32_t deviceCaps);
// Whether the node moves frames through read() and write() only, offering no buffer streaming
// (memory-mapped, user-pointer or DMABUF buffers).
bool CapabilitiesReadWriteOnly(std::uint32_t deviceCaps);

}  // namespace harkwell::v4l2
