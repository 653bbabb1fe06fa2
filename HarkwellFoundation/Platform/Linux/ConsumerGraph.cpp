#include "HarkwellFoundation/Platform/Linux/ConsumerGraph.h"

#include <algorithm>
#include <set>

namespace harkwell {

void ConsumerGraph::addDevice(NodeKey key, DeviceDirection direction, bool hasHardware) {
  Node& node = nodes_[key];
  node.role = Role::Device;
  node.direction = direction;
  node.hasHardware = hasHardware;
}

void ConsumerGraph::addStream(NodeKey key, StreamKind kind) {
  Node& node = nodes_[key];
  node.role = Role::Stream;
  node.kind = kind;
}

void ConsumerGraph::addFlow(NodeKey from, NodeKey to) {
  std::vector<NodeKey>& into = into_[from];
  if (std::find(into.begin(), into.end(), to) != into.end()) return;
  into.push_back(to);
  from_[to].push_back(from);
}

bool ConsumerGraph::hasDevice(NodeKey key) const {
  auto found = nodes_.find(key);
  return found != nodes_.end() && found->second.role == Role::Device;
}

std::optional<ConsumerGraph::DeviceDirection> ConsumerGraph::deviceDirection(NodeKey key) const {
  auto found = nodes_.find(key);
  if (found == nodes_.end() || found->second.role != Role::Device) return std::nullopt;
  return found->second.direction;
}

bool ConsumerGraph::hasStream(NodeKey key) const {
  auto found = nodes_.find(key);
  return found != nodes_.end() && found->second.role == Role::Stream;
}

const std::vector<ConsumerGraph::NodeKey>& ConsumerGraph::flowsOutOf(NodeKey key) const {
  static const std::vector<NodeKey> none;
  auto found = into_.find(key);
  return found == into_.end() ? none : found->second;
}

const std::vector<ConsumerGraph::NodeKey>& ConsumerGraph::flowsInto(NodeKey key) const {
  static const std::vector<NodeKey> none;
  auto found = from_.find(key);
  return found == from_.end() ? none : found->second;
}

template <class Reached>
void ConsumerGraph::walkFrom(NodeKey start, bool downstream, DeviceDirection realEnd,
                             Reached reached) const {
  const auto& neighbours = downstream ? into_ : from_;
  std::set<NodeKey> visited{start};
  std::vector<NodeKey> pending{start};
  while (!pending.empty()) {
    auto flows = neighbours.find(pending.back());
    pending.pop_back();
    if (flows == neighbours.end()) continue;
    for (NodeKey key : flows->second) {
      auto found = nodes_.find(key);
      if (found == nodes_.end()) continue;
      const Node& next = found->second;
      if (next.role == Role::Stream) {
        if (next.kind == StreamKind::Program) {
          if (reached(key)) return;
          continue;
        }
        // Meters, monitor captures and paused streams end the path; filters pass it on.
        if (next.kind != StreamKind::Filter) continue;
      } else if (next.hasHardware && next.direction == realEnd) {
        if (reached(key)) return;
        continue;
      }
      if (visited.insert(key).second) pending.push_back(key);
    }
  }
}

bool DeviceIsRunning(const ConsumerGraph& graph, ConsumerGraph::NodeKey device) {
  using Direction = ConsumerGraph::DeviceDirection;
  const auto direction = graph.deviceDirection(device);
  if (!direction) return false;
  // A source is asked who consumes it: the search follows the data. A sink is asked who feeds
  // it: the search goes against the data. A device at the far end of a chain is real when its
  // hardware takes the data out of the graph (a sink played aloud) or puts it in (a microphone),
  // depending on the way we look.
  const bool downstream = *direction == Direction::Source;
  bool running = false;
  graph.walkFrom(device, downstream, downstream ? Direction::Sink : Direction::Source,
                 [&](ConsumerGraph::NodeKey) { return running = true; });
  return running;
}

std::vector<ConsumerGraph::NodeKey> ProgramStreamsServedBy(const ConsumerGraph& graph,
                                                           ConsumerGraph::NodeKey stream,
                                                           bool downstream) {
  using Direction = ConsumerGraph::DeviceDirection;
  std::set<ConsumerGraph::NodeKey> programs;
  if (!graph.hasStream(stream)) return {};
  graph.walkFrom(stream, downstream, downstream ? Direction::Sink : Direction::Source,
                 [&](ConsumerGraph::NodeKey key) {
                   if (graph.hasStream(key)) programs.insert(key);
                   return false;
                 });
  return {programs.begin(), programs.end()};
}

}  // namespace harkwell
