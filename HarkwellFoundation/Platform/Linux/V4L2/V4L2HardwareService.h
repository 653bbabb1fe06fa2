// V4L2HardwareService: the video hardware service on Linux. It reads what the machine says about
// its cameras from sysfs (/sys/class/video4linux), the udev database where there is one, and the
// nodes themselves (VIDIOC_QUERYCAP); it learns of changes through inotify (nodes appearing and
// disappearing under /dev, each node being opened and closed), finds out who holds a node open by
// reading /proc when inotify reports an open or a close, and whether frames flow from the holders'
// memory maps and the camera's USB folders in sysfs (see "Running" below).
//
// How the machine maps onto the video seam:
//
//   device       One physical camera: the video nodes (sysfs entries "video*") that share a
//                parent device (the target of their "device" link) and have a node under /dev.
//                A node without a parent (a loopback device) is a device of its own. A group
//                with neither a capture nor an output node (metadata only, codecs) is no device.
//   object ID    From the UID by the stable rule (StableDeviceID.h), video space: the FNV-1a hash
//                of the UID picks an ID from 131072 to 196607, apart from every audio ID, the same
//                in every process and whenever the camera is plugged back into the same port. When
//                two present cameras' UIDs share a slot, the UID that sorts first keeps it and the
//                next takes the following free ID.
//   "dev#"  (1)  The devices, in ID order.
//   "yes "  (1)  The screen-capture switch: a 4-byte write is accepted and kept, reads answer the
//                last value (1 at first); it changes nothing, V4L2 has no screen-capture devices.
//   "lnam"       The sysfs name of the camera's first capture node, bytes unaltered (only the
//                trailing newline goes). Without one: the driver's card name, udev's
//                ID_V4L_PRODUCT, the USB product string, the node's name, in that order.
//   "uid "       USB: "usb:<idVendor>:<idProduct>:<serial>@<parent>", the parent being the USB
//                interface ("usb:046d:0825:A1B2C3@1-2:1.0"; the serial is empty when the camera
//                has none). Otherwise udev's by-id link without its "-video-indexN" ending
//                ("by-id:..."), else the parent's path under /sys ("sysfs:devices/..."), and for
//                a device without a parent "virtual:<node name>".
//   "muid"       USB "usb:<idVendor>:<idProduct>"; PCI "pci:<vendor>:<device>"; else the parent's
//                driver "driver:<name>"; else a null reference (no model is known).
//   "tran"       From the parent upwards, the first bus met: usb "usb ", pci "pci ", platform
//                "bltn" (built in). No parent, or a parent under devices/virtual: "virt".
//                Anything else: "othr".
//   "stm#"       Input scope: one 4-byte stream ID per capture node; output scope: one per
//                output-capable node; global scope: both. What a node can do comes from
//                VIDIOC_QUERYCAP; when the node cannot be opened, from udev's
//                ID_V4L_CAPABILITIES; failing both, a driver's first node (index 0) captures and
//                its later nodes carry metadata. Metadata nodes are no streams. A loopback node
//                counts as one input and one output stream. Stream IDs are opaque, not objects.
//   "gone"       1 while frames flow from the camera to some process other than this one, as
//                the signals below combine (CameraStreamJudge.h); otherwise 0.
//   "hcn#"       The consumers (global scope): every process whose descriptors hold one of the
//                camera's nodes, in process-ID order, from the same /proc scan as the running
//                state, so the list changes with opens and closes and costs nothing while no node
//                changes. IDs are verified; a media server holding a node is a MediaServer
//                consumer whose feeds are the clients its graph names
//                (MediaServerGraph::clientsOfCamera; none without a graph, or when it cannot
//                tell). Processes this one may not examine are missing (CameraConsumers.h).
//   "oink"       "who?" (kCMIOHardwareUnknownPropertyError): V4L2 has no exclusive-access owner.
//   otherwise    "who?" for other selectors, "!obj" for unknown objects, "!siz" for a buffer too
//                small for the value, "nope" for a write to anything but "yes ".
//
// Running. A camera is running while frames flow, as its light shows: not merely while a node is
// open (settings panels, `v4l2-ctl --all` and browsers listing devices open nodes without
// streaming; media servers keep them open while idle). The signals an unprivileged process can
// read, strongest first:
//
//   signal                 catches                               misses
//   ---------------------  ------------------------------------  ---------------------------------
//   isochronous UVC        any stream of a UVC camera on an      bulk UVC cameras (they stay in
//   alternate setting      isochronous interface: MMAP, DMABUF,  setting 0), cameras that are not
//   (bAlternateSetting of  USERPTR and read() alike, by any      UVC, loopback devices; looked at
//   the streaming          process of any user or container.     only while a node is known to be
//   interfaces; decides    Setting 0 is decisive too: buffers    open, since sysfs attributes
//   both ways)             mapped but stopped are not running.   change without inotify events.
//   buffers mapped         MMAP streaming (the common case for   DMABUF and USERPTR streaming
//   (/proc/<pid>/maps of   UVC, PCI and platform cameras,        (the buffers are not mapped
//   the node's holders,    loopback readers and writers that     through the node), read(); the
//   matched by file        map), through a media server too; a   processes this one may not
//   system dev:inode or    program that closes its descriptor    examine (other users' without
//   by path, see           but keeps its buffers mapped.         privilege); a program keeping
//   ProcessMappingReader)                                        buffers mapped while paused
//                                                                counts as running.
//   a media server's       streams a server (PipeWire) gives     cameras opened by programs
//   graph (PipeWire: the   its clients, whatever memory it       directly; servers whose graph
//   camera's Video/Source  uses with the camera (DMABUF too),    is not read (only PipeWire's
//   node running with an   while the server holds or maps the    is); a PipeWire daemon that
//   active link out;       node; replaces the server's           starts after this service.
//   asked only for a       mappings for that camera.
//   camera a media server
//   holds)
//   runtime power state    a USB camera that is suspended        says nothing when "active":
//   (power/runtime_status  cannot stream: vetoes the others.     drivers keep a camera awake while
//   of the USB device)                                           a node is open, and devices with
//                                                                autosuspend off are always so.
//   open descriptor        read()/write()-only nodes (some       idle holders; used only where the
//   (/proc/<pid>/fd; the   loopback and legacy capture           mapping cannot show: a node that
//   weakest, a fallback)   drivers); holders whose maps cannot   offers no buffer streaming, or a
//                          be read.                              holder whose maps are unreadable.
//                                                                Media servers never count by it.
//
// Evaluated and not used: opening the node and asking for buffers (VIDIOC_CREATE_BUFS with no
// buffers answers EBUSY while another file owns the queue, whatever its memory type) would catch
// DMABUF and USERPTR streaming, but every look would open the node (waking a suspended USB camera,
// causing file events of our own); inotify's IN_ACCESS/IN_MODIFY would see read()/write()
// streaming but wake the service for every frame.
//
// Media servers (MediaServerProcesses.h: pipewire, pipewire-media-session, wireplumber, matched by
// executable) hold nodes open while idle; their descriptors never count, their mappings do. Where
// a media server's own graph is known (Options::mediaServerGraph, MediaServerGraph.h), its answer
// replaces the server's mappings: PipeWireCameraGraph answers from PipeWire's live graph (the
// camera's node running with an active link to a consumer), and each change of that graph that
// concerns a camera makes the service judge again at once. The default services follow PipeWire's
// graph when a PipeWire daemon answers at start-up (V4L2ServiceWithMediaServers.h); without a
// graph, the server's mappings decide.
//
// When the service looks: /proc/<pid>/fd after every burst of opens and closes (and once more for
// an opener not yet visible, see below); the maps of the known holders and the cameras' USB
// folders after each of those, then (StreamCheckSchedule.h) every 5 ms for the first 250 ms after
// an open, then each time twice as long, up to every 500 ms while a node stays held. The checks
// after an open run even when no holder can be seen (its opener may be invisible to this process,
// its stream seen only in sysfs). While no node is open, nothing runs: no timer, no polling; nor
// while the only holders are media servers whose graph answers for their cameras (a change of the
// graph makes the service look). A stream that starts within 250 ms of its open is therefore seen
// within about 5 ms, one that starts later on a node held all along within 500 ms.
//
// False positives are avoided on purpose: this process's own opens (its capability queries
// included) never count as running and cause no event; a process that opens a node and closes it
// again within one burst of inotify events is not seen at all, and in any case yields at most one
// pair of running events. After a burst with an open, when no other process is seen holding the
// node, /proc is read once more a moment later (the kernel reports the open an instant before
// the descriptor shows in /proc).
//
// Threads: every seam call may come from any thread; reads answer from the service's mirror under
// a short lock. One background thread owns inotify, reads the trees and /proc, updates the mirror
// and only then queues each listener block on its queue, once per changed value. A media server's
// graph calls in from a thread of its own only to wake that thread. A listener fires
// only when its value really changed. Removal of a listener matches the closure its block wraps.
//
// Lifetime: create() reads the trees once before it returns, so the first read already shows the
// cameras present; destroying the service removes its handler from the media server's graph, then
// stops and joins its thread. Listener blocks still
// queued then never run (the listener registry marks every registration dead as it goes); one
// already running finishes on its queue, and holds nothing of the service.
//
// Problems with the trees (unreadable entries, symlink loops, nodes without a name, a /proc that
// cannot be read) are written to the system log, one line each, once while they persist (one that
// clears and comes back is logged again); the other cameras are reported as usual.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "HarkwellFoundation/Platform/HardwareService.h"
#include "HarkwellFoundation/Platform/Linux/V4L2/CameraConsumers.h"
#include "HarkwellFoundation/Platform/Linux/V4L2/CameraStreamJudge.h"
#include "HarkwellFoundation/Platform/Linux/V4L2/InotifyWatcher.h"
#include "HarkwellFoundation/Platform/Linux/V4L2/MediaServerGraph.h"
#include "HarkwellFoundation/Platform/Linux/V4L2/ProcessNodeScanner.h"
#include "HarkwellFoundation/Platform/Linux/V4L2/StreamCheckSchedule.h"
#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2NodeProbe.h"
#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2NodeProbeCache.h"
#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2PropertyMirror.h"
#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2SysfsReader.h"
#include "HarkwellFoundation/Platform/Mutex.h"
#include "HarkwellFoundation/Platform/internal/PropertyListenerRegistry.h"

namespace harkwell {

class V4L2HardwareService final : public VideoHardwareService {
 public:
  struct Options {
    // The trees to read; a test tree can stand in for each. An empty udev folder means no udev.
    std::string sysfsRoot = "/sys";
    std::string devRoot = "/dev";
    std::string procRoot = "/proc";
    std::string udevDataRoot = "/run/udev/data";
    // Asks a node for its capabilities; empty means VIDIOC_QUERYCAP on the node itself.
    v4l2::NodeProbe probe;
    // How long the events of one burst may be apart.
    std::chrono::nanoseconds eventBurstWindow = std::chrono::milliseconds(2);
    // When /proc is read once more after an open that no other process was seen holding.
    std::chrono::nanoseconds openRecheckDelay = std::chrono::milliseconds(20);
    // After an open, streams are looked for every quick delay for the quick span, then after
    // twice as long each time, up to the longest delay, which then repeats while a node is held
    // (StreamCheckSchedule.h).
    std::chrono::nanoseconds quickStreamCheckDelay = std::chrono::milliseconds(5);
    std::chrono::nanoseconds quickStreamCheckSpan = std::chrono::milliseconds(250);
    std::chrono::nanoseconds longestStreamCheckDelay = std::chrono::milliseconds(500);
    // Answers for cameras that a media server holds, from the server's own graph; null: the
    // server's mappings decide (see CameraStreamJudge.h). The service follows its changes from
    // create() until it is destroyed.
    std::shared_ptr<v4l2::MediaServerGraph> mediaServerGraph;
  };

  static std::shared_ptr<V4L2HardwareService> create(Options options);
  static std::shared_ptr<V4L2HardwareService> create() { return create(Options()); }

  ~V4L2HardwareService() override;
  V4L2HardwareService(const V4L2HardwareService&) = delete;
  V4L2HardwareService& operator=(const V4L2HardwareService&) = delete;

  OSStatus getPropertyDataSize(ObjectID object, const PropertyAddress& address,
                               std::uint32_t qualifierDataSize, const void* qualifierData,
                               std::uint32_t* outDataSize) override;
  OSStatus getPropertyData(ObjectID object, const PropertyAddress& address,
                           std::uint32_t qualifierDataSize, const void* qualifierData,
                           std::uint32_t* ioDataSize, void* outData) override;
  OSStatus setPropertyData(ObjectID object, const PropertyAddress& address,
                           std::uint32_t qualifierDataSize, const void* qualifierData,
                           std::uint32_t dataSize, void* data) override;
  OSStatus addPropertyListenerBlock(ObjectID object, const PropertyAddress& address,
                                    std::shared_ptr<DispatchQueue> queue,
                                    PlatformListenerBlockRef block) override;
  OSStatus removePropertyListenerBlock(ObjectID object, const PropertyAddress& address,
                                       std::shared_ptr<DispatchQueue> queue,
                                       PlatformListenerBlockRef block) override;

  // Returns once the background thread has handled every file-system change made before the call
  // (listener blocks are queued by then, not necessarily run). For tests and tools; must not be
  // called from a listener block on a queue the caller then waits for.
  void waitForPendingChanges();

  // How many times /proc has been scanned for descriptors, and how many times the cameras'
  // streams were looked at (for tests and benchmarks).
  std::uint64_t processScanCount() const { return processScanCount_.load(); }
  std::uint64_t streamCheckCount() const { return streamCheckCount_.load(); }
  // Whether another stream check is due: false means the service waits for file events only.
  bool streamCheckScheduled() const { return streamCheckScheduled_.load(); }
  // How many stream checks follow an open even when no holder is seen.
  std::size_t streamChecksAfterAnOpen() const {
    return streamCheckSchedule_.checksAfterAnOpen();  // fixed at construction
  }
  std::size_t listenerCount() const { return listeners_.count(); }

 private:
  struct Camera {
    ObjectID deviceID = 0;
    v4l2::CameraDescription description;
    std::vector<pid_t> holders;  // from the latest /proc scan
    std::vector<MediaDeviceConsumer> consumers;
  };

  explicit V4L2HardwareService(Options options);

  void startWatching();
  void run();
  void handleEvents(const std::vector<v4l2::InotifyEvent>& events);
  // Reads the trees, then /proc, and publishes; returns the node paths that were found open.
  std::set<std::string> readTree();
  void updateNodeWatches();
  // Reads /proc and publishes; returns the node paths that were found open.
  std::set<std::string> readRunningState();
  // Judges every camera's stream from the last descriptor scan, publishes, and decides when to
  // look again.
  void checkStreams();
  // The media server's graph changed: the cameras are judged again soon, on the background thread.
  // Any thread may call.
  void mediaServerGraphChanged();
  // Turns each camera's holders into its consumers (reading their details from /proc).
  void updateConsumers();
  // Asks the media servers' graph again whom they feed.
  void updateMediaServerFeeds();
  void publish(const std::vector<bool>& running);
  void notify(const std::vector<PropertyChange>& changes);
  // Logs `line` for the problem named `problem`, unless that line was logged for it and the
  // problem has not cleared since; a problem that changes its line is logged again.
  void logProblem(const std::string& problem, const std::string& line);
  // The problem is over; should it come back, it is logged again.
  void problemCleared(const std::string& problem);

  const Options options_;
  v4l2::PropertyMirror mirror_;
  PropertyListenerRegistry listeners_;
  std::atomic<std::uint64_t> processScanCount_{0};
  std::atomic<std::uint64_t> streamCheckCount_{0};
  std::atomic<bool> graphChanged_{false};
  std::atomic<bool> streamCheckScheduled_{false};

  // Owned by the background thread (and by create() before the thread starts).
  v4l2::InotifyWatcher watcher_;
  v4l2::NodeProbeCache probeCache_;
  v4l2::ProcessNodeScanner scanner_;
  v4l2::CameraStreamJudge judge_;
  const v4l2::MediaServerClientsQuery mediaServerClients_;
  int devWatch_ = -1;
  int udevWatch_ = -1;
  std::map<std::string, int> watchOfNode_;
  std::map<int, std::set<std::string>> nodesOfWatch_;
  std::set<std::string> deviceNodeNames_;
  std::set<std::string> udevRecordNames_;
  std::vector<Camera> cameras_;
  std::set<std::string> currentDiagnostics_;
  std::map<std::string, std::string> loggedProblems_;  // problem name -> the line logged
  std::optional<std::chrono::steady_clock::time_point> recheckAt_;
  v4l2::StreamCheckSchedule streamCheckSchedule_;
  std::optional<std::chrono::steady_clock::time_point> streamCheckAt_;

  // The hand-shake of waitForPendingChanges() and the stop request.
  Mutex barrierMutex_;
  CondVar barrierServed_;
  std::uint64_t barrierRequested_ HARKWELL_GUARDED_BY(barrierMutex_) = 0;
  std::uint64_t barrierDone_ HARKWELL_GUARDED_BY(barrierMutex_) = 0;
  bool stopped_ HARKWELL_GUARDED_BY(barrierMutex_) = false;
  std::atomic<bool> stopRequested_{false};
  std::thread thread_;
};

}  // namespace harkwell
