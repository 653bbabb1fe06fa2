// Decides, camera by camera, whether frames flow: the V4L2 service's "running somewhere". It
// combines what an unprivileged process can read (V4L2HardwareService.h lists what each signal
// catches and misses), strongest first:
//
//   1. The USB device is runtime-suspended: not running.
//   2. An isochronous UVC camera: running exactly while a streaming interface is in a non-zero
//      alternate setting.
//   3. Otherwise running while any of:
//      - a process other than a media server has a node's buffers mapped;
//      - a media server streams it: the media-server query's answer when it has one for the
//        camera, else the server having a node's buffers mapped;
//      - the open-descriptor fallback: a process other than a media server holds open a node
//        whose frames cannot show as mapped buffers (read()/write() only), or holds a node open
//        while its mappings cannot be read.
//
// The judge reads the maps of the processes known to hold a node (from the last descriptor scan)
// and of those it saw mapping one last time (a program may close its descriptor and keep the
// buffers mapped, and streaming goes on), plus the cameras' USB folders in sysfs.
//
// Owned by the V4L2 service's background thread; not thread-safe.
#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2SysfsReader.h"

namespace harkwell::v4l2 {

// Asked, on the background thread, about a camera that a media server holds or maps: does the
// server stream it for a client right now? Absent: the server's own view is not available for
// this camera, and the server's mappings decide. Must answer from memory, without waiting (see
// MediaServerGraph.h).
using MediaServerStreamQuery = std::function<std::optional<bool>(const CameraDescription& camera)>;

class CameraStreamJudge {
 public:
  CameraStreamJudge(std::string procRoot, MediaServerStreamQuery mediaServerQuery)
      : procRoot_(std::move(procRoot)), mediaServerQuery_(std::move(mediaServerQuery)) {}

  // The processes found holding each node open by the latest descriptor scan (this process left
  // out); replaces the previous scan's.
  void setHolders(const std::vector<std::string>& nodePaths,
                  const std::vector<std::vector<pid_t>>& holders);

  struct Verdict {
    std::vector<bool> running;  // one per camera, in the given order
    // Some process is known to hold or map a node: worth looking again soon. A media server whose
    // graph answers for the camera is left out: the graph's changes say when to look.
    bool someoneHoldsANode = false;
  };

  // Reads maps and sysfs and decides for each camera.
  Verdict judge(const std::vector<const CameraDescription*>& cameras);

 private:
  struct ProcessFacts {
    bool isMediaServer = false;
  };

  bool isMediaServer(pid_t pid);
  bool judgeCamera(const CameraDescription& camera, bool& someoneHolds);

  const std::string procRoot_;
  const MediaServerStreamQuery mediaServerQuery_;
  std::map<std::string, std::set<pid_t>> holders_;  // node path -> descriptor holders
  std::map<std::string, std::set<pid_t>> mappers_;  // node path -> processes seen mapping it
  std::map<std::string, std::set<pid_t>> nextMappers_;
  std::map<pid_t, ProcessFacts> processes_;  // the candidates' facts, read once per process
};

}  // namespace harkwell::v4l2
