#include "HarkwellFoundation/Platform/Linux/PipeWire/PipeWireCameraGraph.h"

#include "HarkwellFoundation/Platform/Linux/PipeWire/PipeWireCameraStreaming.h"
#include "HarkwellFoundation/Platform/Linux/ProcessDetails.h"

namespace harkwell {

std::shared_ptr<PipeWireCameraGraph> PipeWireCameraGraph::start(Options options) {
  std::shared_ptr<PipeWireCameraGraph> graph(new PipeWireCameraGraph);
  PipeWireGraphConnection::Options connectionOptions;
  connectionOptions.remote = options.remote;
  connectionOptions.writesLogLines = false;
  // The connection is destroyed before the rest of the object, so the raw pointer outlives it.
  graph->connection_ = PipeWireGraphConnection::start(
      std::move(connectionOptions),
      [raw = graph.get()](const PipeWireGraph& whole) { raw->takeGraph(whole); });
  if (!graph->connection_) return nullptr;
  graph->connection_->waitForFirstOutcome(options.startupTimeout);
  return graph;
}

PipeWireCameraGraph::~PipeWireCameraGraph() {
  connection_.reset();
}

std::optional<bool> PipeWireCameraGraph::streamsCamera(const v4l2::CameraDescription& camera) {
  MutexLock lock(graphMutex_);
  return PipeWireStreamsCamera(cameras_, camera.nodePaths);
}

std::optional<std::vector<MediaDeviceConsumer>> PipeWireCameraGraph::clientsOfCamera(
    const v4l2::CameraDescription& camera) {
  std::optional<std::vector<MediaDeviceConsumer>> clients;
  {
    MutexLock lock(graphMutex_);
    clients = PipeWireCameraClients(cameras_, camera.nodePaths);
  }
  if (clients) {
    for (MediaDeviceConsumer& client : *clients) FillProcessDetails(client);
  }
  return clients;
}

void PipeWireCameraGraph::setChangeHandler(std::function<void()> handler) {
  std::function<void()> previous;
  {
    MutexLock lock(handlerMutex_);
    previous.swap(handler_);
    handler_ = std::move(handler);
  }
  // The previous handler's captures go outside the lock.
}

void PipeWireCameraGraph::takeGraph(const PipeWireGraph& graph) {
  PipeWireGraph cameras = PipeWireCameraPart(graph);
  {
    MutexLock lock(graphMutex_);
    if (cameras == cameras_) return;
    cameras_ = std::move(cameras);
  }
  MutexLock lock(handlerMutex_);
  if (handler_) handler_();
}

}  // namespace harkwell
