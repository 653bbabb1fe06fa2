#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2NodeProbe.h"

#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace harkwell::v4l2 {
namespace {

constexpr std::uint32_t kMemoryToMemory = V4L2_CAP_VIDEO_M2M | V4L2_CAP_VIDEO_M2M_MPLANE;

std::string FixedText(const __u8* bytes, std::size_t size) {
  std::size_t length = 0;
  while (length < size && bytes[length] != 0) ++length;
  return std::string(reinterpret_cast<const char*>(bytes), length);
}

}  // namespace

NodeProbeResult ProbeNodeCapabilities(const std::string& nodePath) {
  struct stat status {};
  if (::stat(nodePath.c_str(), &status) != 0) return {std::nullopt, errno};
  if (!S_ISCHR(status.st_mode)) return {std::nullopt, ENOTTY};

  const int fd = ::open(nodePath.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) return {std::nullopt, errno};
  v4l2_capability capability;
  std::memset(&capability, 0, sizeof capability);
  int result;
  do {
    result = ::ioctl(fd, VIDIOC_QUERYCAP, &capability);
  } while (result != 0 && errno == EINTR);
  const int error = result == 0 ? 0 : errno;
  ::close(fd);
  if (result != 0) return {std::nullopt, error};

  NodeCapabilities answer;
  // Drivers that fill device_caps say so; older ones only describe the whole device.
  answer.deviceCaps = (capability.capabilities & V4L2_CAP_DEVICE_CAPS) != 0
                          ? capability.device_caps
                          : capability.capabilities;
  answer.card = FixedText(capability.card, sizeof capability.card);
  return {std::move(answer), 0};
}

bool CapabilitiesCaptureVideo(std::uint32_t deviceCaps) {
  if ((deviceCaps & kMemoryToMemory) != 0) return false;
  return (deviceCaps & (V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_VIDEO_CAPTURE_MPLANE)) != 0;
}

bool CapabilitiesOutputVideo(std::uint32_t deviceCaps) {
  if ((deviceCaps & kMemoryToMemory) != 0) return false;
  return (deviceCaps & (V4L2_CAP_VIDEO_OUTPUT | V4L2_CAP_VIDEO_OUTPUT_MPLANE)) != 0;
}

bool CapabilitiesReadWriteOnly(std::uint32_t deviceCaps) {
  return (deviceCaps & V4L2_CAP_READWRITE) != 0 && (deviceCaps & V4L2_CAP_STREAMING) == 0;
}

}  // namespace harkwell::v4l2
