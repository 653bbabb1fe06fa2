#include "HarkwellFoundation/Platform/Linux/V4L2/CameraStreamJudge.h"

#include <algorithm>
#include <cerrno>

#include "HarkwellFoundation/Platform/Linux/V4L2/MediaServerProcesses.h"
#include "HarkwellFoundation/Platform/Linux/V4L2/ProcessMappingReader.h"
#include "HarkwellFoundation/Platform/Linux/V4L2/UsbStreamingState.h"

namespace harkwell::v4l2 {

void CameraStreamJudge::setHolders(const std::vector<std::string>& nodePaths,
                                   const std::vector<std::vector<pid_t>>& holders) {
  holders_.clear();
  for (std::size_t i = 0; i < nodePaths.size() && i < holders.size(); ++i) {
    if (!holders[i].empty()) holders_[nodePaths[i]].insert(holders[i].begin(), holders[i].end());
  }
}

bool CameraStreamJudge::isMediaServer(pid_t pid) {
  auto [facts, added] = processes_.try_emplace(pid);
  if (added) {
    const auto name = ProcessExecutableName(procRoot_, pid);
    facts->second.isMediaServer = name && IsMediaServerExecutable(*name);
  }
  return facts->second.isMediaServer;
}

CameraStreamJudge::Verdict CameraStreamJudge::judge(
    const std::vector<const CameraDescription*>& cameras) {
  Verdict verdict;
  nextMappers_.clear();
  for (const CameraDescription* camera : cameras) {
    verdict.running.push_back(judgeCamera(*camera, verdict.someoneHoldsANode));
  }
  mappers_ = std::move(nextMappers_);
  nextMappers_.clear();
  // Facts of processes no longer involved are dropped, so a reused process ID is looked at anew.
  std::erase_if(processes_, [&](const auto& entry) {
    auto involves = [&](const auto& table) {
      return std::any_of(table.begin(), table.end(),
                         [&](const auto& node) { return node.second.count(entry.first) != 0; });
    };
    return !involves(holders_) && !involves(mappers_);
  });
  return verdict;
}

bool CameraStreamJudge::judgeCamera(const CameraDescription& camera, bool& someoneHolds) {
  // Which processes to look at: the descriptor holders and the last known mappers of its nodes.
  std::set<pid_t> candidates;
  std::set<pid_t> descriptorHolders;
  for (const std::string& path : camera.nodePaths) {
    if (auto held = holders_.find(path); held != holders_.end()) {
      descriptorHolders.insert(held->second.begin(), held->second.end());
    }
    if (auto mapped = mappers_.find(path); mapped != mappers_.end()) {
      candidates.insert(mapped->second.begin(), mapped->second.end());
    }
  }
  candidates.insert(descriptorHolders.begin(), descriptorHolders.end());

  bool mappedByClient = false;
  bool mappedByServer = false;
  bool serverInvolved = false;
  bool clientInvolved = false;
  bool fallback = false;
  if (!candidates.empty()) {
    std::vector<MappedFileIdentity> identities;
    identities.reserve(camera.nodePaths.size());
    for (const std::string& path : camera.nodePaths) identities.push_back(IdentifyMappedFile(path));
    for (pid_t pid : candidates) {
      const ProcessMappings mappings = ReadProcessMappings(procRoot_, pid, identities);
      if (mappings.error == ENOENT || mappings.error == ESRCH) continue;  // gone meanwhile
      const bool server = isMediaServer(pid);
      serverInvolved = serverInvolved || server;
      clientInvolved = clientInvolved || !server;
      bool mapsSomething = false;
      for (std::size_t i = 0; i < identities.size(); ++i) {
        if (!mappings.mapped[i]) continue;
        mapsSomething = true;
        nextMappers_[camera.nodePaths[i]].insert(pid);
      }
      (server ? mappedByServer : mappedByClient) |= mapsSomething;
      if (server || descriptorHolders.count(pid) == 0) continue;
      // The weakest signal, only where the stronger one cannot see: a node whose frames never
      // show as mapped buffers, or a holder whose mappings cannot be read.
      if (mappings.error != 0) fallback = true;
      for (const std::string& path : camera.readWriteOnlyNodePaths) {
        if (auto held = holders_.find(path); held != holders_.end() && held->second.count(pid)) {
          fallback = true;
        }
      }
    }
  }

  // A server whose graph answers for the camera is followed through the graph's changes; only
  // the other holders are worth looking at again.
  std::optional<bool> serverAnswer;
  if (serverInvolved && mediaServerQuery_) serverAnswer = mediaServerQuery_(camera);
  someoneHolds = someoneHolds || clientInvolved || (serverInvolved && !serverAnswer);

  if (camera.usbDevicePath) {
    const UsbStreamingState usb =
        ReadUsbStreamingState(camera.usbInterfacePath.value_or(""), *camera.usbDevicePath);
    if (usb.suspended) return false;
    if (usb.isochronousStreaming) return *usb.isochronousStreaming;
  }
  return mappedByClient || serverAnswer.value_or(mappedByServer) || fallback;
}

}  // namespace harkwell::v4l2
