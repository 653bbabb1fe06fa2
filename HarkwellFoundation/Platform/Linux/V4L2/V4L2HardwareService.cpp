#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2HardwareService.h"

#include <pthread.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>

#include "HarkwellFoundation/Platform/Linux/StableDeviceID.h"
#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2FileAccess.h"
#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2LogText.h"
#include "HarkwellFoundation/Platform/SystemLog.h"
#include "HarkwellFoundation/Platform/VideoHardwareConstants.h"

namespace harkwell {
namespace {

using Clock = std::chrono::steady_clock;

// Nodes appearing, disappearing or changing owner, and the folder itself going away.
constexpr std::uint32_t kDevFolderEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                           IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
// udev writes a database entry to a temporary name and renames it into place.
constexpr std::uint32_t kUdevFolderEvents =
    IN_CREATE | IN_MOVED_TO | IN_CLOSE_WRITE | IN_DELETE | IN_ONLYDIR;
constexpr std::uint32_t kNodeEvents = IN_OPEN | IN_CLOSE_WRITE | IN_CLOSE_NOWRITE;
// A steady storm of events is still looked at this often.
constexpr auto kLongestBurst = std::chrono::milliseconds(50);

// The problems the service logs itself, each under its own name; a node's watch is named after its
// path ("watch:/dev/video0").
constexpr char kInotifyProblem[] = "inotify";
constexpr char kDevFolderProblem[] = "dev";
constexpr char kProcProblem[] = "proc";
constexpr std::string_view kNodeWatchProblem = "watch:";

std::string NodeWatchProblem(const std::string& path) {
  return std::string(kNodeWatchProblem) + path;
}

v4l2::NodeProbe ProbeOrDefault(v4l2::NodeProbe probe) {
  return probe ? std::move(probe) : v4l2::NodeProbe(&v4l2::ProbeNodeCapabilities);
}

v4l2::MediaServerStreamQuery QueryOf(const std::shared_ptr<v4l2::MediaServerGraph>& graph) {
  if (!graph) return {};
  return [graph](const v4l2::CameraDescription& camera) { return graph->streamsCamera(camera); };
}

v4l2::MediaServerClientsQuery ClientsQueryOf(const std::shared_ptr<v4l2::MediaServerGraph>& graph) {
  if (!graph) return {};
  return [graph](const v4l2::CameraDescription& camera) { return graph->clientsOfCamera(camera); };
}

}  // namespace

std::shared_ptr<V4L2HardwareService> V4L2HardwareService::create(Options options) {
  std::shared_ptr<V4L2HardwareService> service(new V4L2HardwareService(std::move(options)));
  // Before the first reading, so that no change of the graph after it goes unseen. The handler is
  // removed before anything it touches is gone.
  if (service->options_.mediaServerGraph) {
    service->options_.mediaServerGraph->setChangeHandler(
        [raw = service.get()] { raw->mediaServerGraphChanged(); });
  }
  service->startWatching();
  service->readTree();
  service->thread_ = std::thread([raw = service.get()] { raw->run(); });
  pthread_setname_np(service->thread_.native_handle(), "harkwell-v4l2");
  return service;
}

V4L2HardwareService::V4L2HardwareService(Options options)
    : options_(std::move(options)),
      probeCache_(ProbeOrDefault(options_.probe)),
      scanner_(options_.procRoot, ::getpid()),
      judge_(options_.procRoot, QueryOf(options_.mediaServerGraph)),
      mediaServerClients_(ClientsQueryOf(options_.mediaServerGraph)),
      streamCheckSchedule_(options_.quickStreamCheckDelay, options_.quickStreamCheckSpan,
                           options_.longestStreamCheckDelay) {}

V4L2HardwareService::~V4L2HardwareService() {
  if (options_.mediaServerGraph) options_.mediaServerGraph->setChangeHandler({});
  stopRequested_ = true;
  watcher_.wake();
  if (thread_.joinable()) thread_.join();
  MutexLock lock(barrierMutex_);
  stopped_ = true;
  barrierServed_.notifyAll();
}

// --- The seam ------------------------------------------------------------------------------------

OSStatus V4L2HardwareService::getPropertyDataSize(ObjectID object, const PropertyAddress& address,
                                                  std::uint32_t, const void*,
                                                  std::uint32_t* outDataSize) {
  return mirror_.dataSize(object, address, outDataSize);
}

OSStatus V4L2HardwareService::getPropertyData(ObjectID object, const PropertyAddress& address,
                                              std::uint32_t, const void*, std::uint32_t* ioDataSize,
                                              void* outData) {
  return mirror_.data(object, address, ioDataSize, outData);
}

OSStatus V4L2HardwareService::setPropertyData(ObjectID object, const PropertyAddress& address,
                                              std::uint32_t, const void*, std::uint32_t dataSize,
                                              void* data) {
  std::vector<PropertyChange> changes;
  const OSStatus status = mirror_.setData(object, address, dataSize, data, &changes);
  notify(changes);
  return status;
}

OSStatus V4L2HardwareService::addPropertyListenerBlock(ObjectID object,
                                                       const PropertyAddress& address,
                                                       std::shared_ptr<DispatchQueue> queue,
                                                       PlatformListenerBlockRef block) {
  if (!queue || !block) return kCMIOHardwareIllegalOperationError;
  const OSStatus status = mirror_.checkProperty(object, address);
  if (status != kNoErr) return status;
  listeners_.add(object, address, std::move(queue), std::move(block));
  return kNoErr;
}

OSStatus V4L2HardwareService::removePropertyListenerBlock(ObjectID object,
                                                          const PropertyAddress& address,
                                                          std::shared_ptr<DispatchQueue> queue,
                                                          PlatformListenerBlockRef block) {
  // A camera that went away keeps its listeners until they are removed: its ID stays its own,
  // and a listener removed after the camera vanished is removed all the same.
  if (listeners_.remove(object, address, queue, block)) return kNoErr;
  const OSStatus status = mirror_.checkProperty(object, address);
  return status == kCMIOHardwareBadObjectError ? status : kCMIOHardwareUnknownPropertyError;
}

// --- Waiting for the background thread ----------------------------------------------------------

void V4L2HardwareService::waitForPendingChanges() {
  if (std::this_thread::get_id() == thread_.get_id()) return;
  MutexLock lock(barrierMutex_);
  const std::uint64_t ticket = ++barrierRequested_;
  watcher_.wake();
  while (barrierDone_ < ticket && !stopped_) barrierServed_.wait(barrierMutex_);
}

// --- The background thread -----------------------------------------------------------------------

void V4L2HardwareService::startWatching() {
  if (watcher_.error() != 0) {
    logProblem(kInotifyProblem, "V4L2: cannot use inotify (" + v4l2::ErrorText(watcher_.error()) +
                                    "); cameras are read once and changes are not followed");
    return;
  }
  devWatch_ = watcher_.addWatch(options_.devRoot, kDevFolderEvents);
  if (devWatch_ < 0) {
    logProblem(kDevFolderProblem, "V4L2: cannot watch " + v4l2::QuotedForLog(options_.devRoot) +
                                      " (" + v4l2::ErrorText(-devWatch_) +
                                      "); cameras plugged in later are not seen");
  }
  if (!options_.udevDataRoot.empty()) {
    // Most containers have no udev; its absence is normal and not worth a line.
    udevWatch_ = watcher_.addWatch(options_.udevDataRoot, kUdevFolderEvents);
  }
}

void V4L2HardwareService::run() {
  for (;;) {
    std::optional<Clock::time_point> due = recheckAt_;
    if (streamCheckAt_ && (!due || *streamCheckAt_ < *due)) due = streamCheckAt_;
    std::optional<std::chrono::nanoseconds> timeout;
    if (due) timeout = std::max(Clock::duration::zero(), *due - Clock::now());
    const v4l2::InotifyWatcher::Burst burst =
        watcher_.waitForBurst(timeout, options_.eventBurstWindow, kLongestBurst);
    if (stopRequested_) return;
    handleEvents(burst.events);

    if (burst.woken) {
      // Whoever asked changed the file system before asking; what is queued now covers it.
      std::uint64_t ticket;
      {
        MutexLock lock(barrierMutex_);
        ticket = barrierRequested_;
      }
      handleEvents(watcher_.takeQueued());
      const bool graphChanged = graphChanged_.exchange(false);
      if (graphChanged) streamCheckSchedule_.restart();
      if (recheckAt_) {
        recheckAt_.reset();
        readRunningState();
      } else if (streamCheckAt_ || graphChanged) {
        // Whatever is due is done now: a stream started since the last check shows at once.
        // A changed graph may also change whom a media server feeds.
        if (graphChanged) updateMediaServerFeeds();
        checkStreams();
      }
      MutexLock lock(barrierMutex_);
      barrierDone_ = std::max(barrierDone_, ticket);
      barrierServed_.notifyAll();
    } else if (recheckAt_ && Clock::now() >= *recheckAt_) {
      recheckAt_.reset();
      readRunningState();
    } else if (streamCheckAt_ && Clock::now() >= *streamCheckAt_) {
      checkStreams();
    }
  }
}

void V4L2HardwareService::handleEvents(const std::vector<v4l2::InotifyEvent>& events) {
  if (events.empty()) return;
  bool treeChanged = false;
  bool openersChanged = false;
  std::set<std::string> opened;
  for (const v4l2::InotifyEvent& event : events) {
    if (event.watch < 0) {
      treeChanged = true;  // events were lost; look at everything again
    } else if (event.watch == devWatch_) {
      if ((event.mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED)) != 0) {
        logProblem(kDevFolderProblem, "V4L2: " + v4l2::QuotedForLog(options_.devRoot) +
                                          " went away; cameras plugged in later are not seen");
        devWatch_ = -1;
        treeChanged = true;
      } else if (event.name.starts_with("video") || deviceNodeNames_.count(event.name) != 0) {
        treeChanged = true;
      }
    } else if (event.watch == udevWatch_) {
      if (udevRecordNames_.count(event.name) != 0) treeChanged = true;
    } else if (auto node = nodesOfWatch_.find(event.watch); node != nodesOfWatch_.end()) {
      if ((event.mask & IN_IGNORED) != 0) {
        // The node's file is gone (or no longer watchable); forget the watch and look again.
        for (const std::string& path : node->second) watchOfNode_.erase(path);
        nodesOfWatch_.erase(node);
        treeChanged = true;
        continue;
      }
      if ((event.mask & IN_OPEN) != 0) opened.insert(node->second.begin(), node->second.end());
      if ((event.mask & (IN_OPEN | IN_CLOSE_WRITE | IN_CLOSE_NOWRITE)) != 0) openersChanged = true;
    }
  }

  if (!treeChanged && !openersChanged) return;
  // A stream starts after its open, with no file event of its own: look again soon after an open.
  if (!opened.empty()) streamCheckSchedule_.restart();
  // A new reading of the tree reads /proc too, so it answers for the opens of the same burst.
  const std::set<std::string> openNodes = treeChanged ? readTree() : readRunningState();
  // The kernel reports an open just before the new descriptor appears in /proc; an opener not
  // seen yet is looked for once more shortly (unless its node went away meanwhile).
  const bool openerMissed = std::any_of(opened.begin(), opened.end(), [&](const auto& path) {
    return openNodes.count(path) == 0 && watchOfNode_.count(path) != 0;
  });
  if (openerMissed && !recheckAt_) recheckAt_ = Clock::now() + options_.openRecheckDelay;
}

std::set<std::string> V4L2HardwareService::readTree() {
  const v4l2::TreeLocation location{options_.sysfsRoot, options_.devRoot, options_.udevDataRoot};
  v4l2::TreeReading reading = v4l2::ReadV4L2Tree(
      location, [this](const std::string& path) { return probeCache_.probe(path); });

  // A problem is reported when it appears, not at every later reading while it lasts.
  std::set<std::string> diagnostics(reading.diagnostics.begin(), reading.diagnostics.end());
  for (const std::string& line : reading.diagnostics) {
    if (currentDiagnostics_.count(line) == 0) SystemLog(line);
  }
  currentDiagnostics_ = std::move(diagnostics);
  deviceNodeNames_ = {reading.deviceNodeNames.begin(), reading.deviceNodeNames.end()};
  udevRecordNames_ = {reading.udevRecordNames.begin(), reading.udevRecordNames.end()};

  // IDs come from the cameras' identities by the stable rule, so every process agrees on them.
  std::vector<std::string> identities;
  identities.reserve(reading.cameras.size());
  for (const v4l2::CameraDescription& description : reading.cameras) {
    identities.push_back(description.identity);
  }
  const std::vector<ObjectID> ids = AssignStableDeviceIDs(StableIDSpace::Video, identities);
  cameras_.clear();
  for (std::size_t i = 0; i < reading.cameras.size(); ++i) {
    if (ids[i] != 0) cameras_.push_back(Camera{ids[i], std::move(reading.cameras[i])});
  }
  // Nodes that are no camera (codecs, metadata-only groups) keep their answers too, or every
  // re-read of the tree would open them again.
  probeCache_.keepOnly({reading.probedNodePaths.begin(), reading.probedNodePaths.end()});
  updateNodeWatches();
  return readRunningState();
}

void V4L2HardwareService::updateNodeWatches() {
  std::set<std::string> wanted;
  for (const Camera& camera : cameras_) {
    wanted.insert(camera.description.nodePaths.begin(), camera.description.nodePaths.end());
  }
  for (auto watched = watchOfNode_.begin(); watched != watchOfNode_.end();) {
    if (wanted.count(watched->first) != 0) {
      ++watched;
      continue;
    }
    auto nodes = nodesOfWatch_.find(watched->second);
    if (nodes != nodesOfWatch_.end()) {
      nodes->second.erase(watched->first);
      if (nodes->second.empty()) {
        watcher_.removeWatch(watched->second);
        nodesOfWatch_.erase(nodes);
      }
    }
    watched = watchOfNode_.erase(watched);
  }
  // A node that went away takes its watch problem with it.
  std::erase_if(loggedProblems_, [&](const auto& problem) {
    return problem.first.starts_with(kNodeWatchProblem) &&
           wanted.count(problem.first.substr(kNodeWatchProblem.size())) == 0;
  });
  if (watcher_.error() != 0) return;
  for (const std::string& path : wanted) {
    if (watchOfNode_.count(path) != 0) continue;
    const int watch = watcher_.addWatch(path, kNodeEvents);
    if (watch < 0) {
      logProblem(NodeWatchProblem(path),
                 "V4L2: cannot watch " + v4l2::QuotedForLog(path) + " for opens and closes (" +
                     v4l2::ErrorText(-watch) +
                     "); its running state is updated with other changes only");
      continue;
    }
    problemCleared(NodeWatchProblem(path));
    watchOfNode_[path] = watch;
    nodesOfWatch_[watch].insert(path);
  }
}

std::set<std::string> V4L2HardwareService::readRunningState() {
  std::vector<std::string> paths;
  for (const Camera& camera : cameras_) {
    paths.insert(paths.end(), camera.description.nodePaths.begin(),
                 camera.description.nodePaths.end());
  }
  std::sort(paths.begin(), paths.end());
  paths.erase(std::unique(paths.begin(), paths.end()), paths.end());

  std::set<std::string> openNodes;
  if (!paths.empty()) {
    ++processScanCount_;
    const v4l2::ProcessNodeScanner::Result scan = scanner_.scan(paths);
    if (scan.procError != 0) {
      logProblem(kProcProblem, "V4L2: cannot read " + v4l2::QuotedForLog(options_.procRoot) + " (" +
                                   v4l2::ErrorText(scan.procError) +
                                   "); cameras are reported as not running");
    } else {
      problemCleared(kProcProblem);
    }
    for (std::size_t i = 0; i < paths.size(); ++i) {
      if (scan.isOpen[i]) openNodes.insert(paths[i]);
    }
    judge_.setHolders(paths, scan.holders);
    for (Camera& camera : cameras_) {
      camera.holders.clear();
      for (const std::string& path : camera.description.nodePaths) {
        const auto found = std::lower_bound(paths.begin(), paths.end(), path);
        const auto& held = scan.holders[static_cast<std::size_t>(found - paths.begin())];
        camera.holders.insert(camera.holders.end(), held.begin(), held.end());
      }
    }
  } else {
    judge_.setHolders({}, {});
  }
  updateConsumers();
  checkStreams();
  return openNodes;
}

void V4L2HardwareService::checkStreams() {
  ++streamCheckCount_;
  std::vector<const v4l2::CameraDescription*> descriptions;
  descriptions.reserve(cameras_.size());
  for (const Camera& camera : cameras_) descriptions.push_back(&camera.description);
  const v4l2::CameraStreamJudge::Verdict verdict = judge_.judge(descriptions);
  publish(verdict.running);

  // While a node is held, or for the checks that follow any open, look again; otherwise do nothing
  // at all.
  const auto delay = streamCheckSchedule_.next(verdict.someoneHoldsANode);
  if (delay)
    streamCheckAt_ = Clock::now() + *delay;
  else
    streamCheckAt_.reset();
  streamCheckScheduled_ = delay.has_value();
}

void V4L2HardwareService::updateConsumers() {
  for (Camera& camera : cameras_) {
    camera.consumers = v4l2::CameraConsumers(camera.description, camera.holders, options_.procRoot,
                                             mediaServerClients_);
  }
}

void V4L2HardwareService::updateMediaServerFeeds() {
  for (Camera& camera : cameras_) {
    v4l2::RefreshMediaServerFeeds(camera.description, camera.consumers, mediaServerClients_);
  }
}

void V4L2HardwareService::mediaServerGraphChanged() {
  graphChanged_ = true;
  watcher_.wake();
}

void V4L2HardwareService::publish(const std::vector<bool>& running) {
  std::vector<v4l2::PublishedDevice> devices;
  devices.reserve(cameras_.size());
  for (std::size_t i = 0; i < cameras_.size(); ++i) {
    const Camera& camera = cameras_[i];
    const v4l2::CameraDescription& description = camera.description;
    devices.push_back(v4l2::PublishedDevice{
        .deviceID = camera.deviceID,
        .name = description.name,
        .uid = description.uid,
        .modelUID = description.modelUID,
        .transportType = description.transportType,
        .inputStreamCount = description.inputStreamCount,
        .outputStreamCount = description.outputStreamCount,
        .isRunningSomewhere = i < running.size() && running[i],
        .consumers = camera.consumers,
    });
  }
  notify(mirror_.publishDevices(std::move(devices)));
}

void V4L2HardwareService::notify(const std::vector<PropertyChange>& changes) {
  for (const PropertyChange& change : changes) {
    listeners_.notify(change.object, change.address);
  }
}

void V4L2HardwareService::logProblem(const std::string& problem, const std::string& line) {
  auto [logged, added] = loggedProblems_.try_emplace(problem, line);
  if (!added) {
    if (logged->second == line) return;
    logged->second = line;
  }
  SystemLog(line);
}

void V4L2HardwareService::problemCleared(const std::string& problem) {
  loggedProblems_.erase(problem);
}

}  // namespace harkwell
