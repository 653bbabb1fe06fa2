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

bool DeviceIsRunning(const ConsumerGraph& graph, ConsumerGraph::NodeKey device) {
  using Node = ConsumerGraph::Node;
  using Role = ConsumerGraph::Role;
  using Kind = ConsumerGraph::StreamKind;
  using Direction = ConsumerGraph::DeviceDirection;

  auto start = graph.nodes_.find(device);
  if (start == graph.nodes_.end() || start->second.role != Role::Device) return false;
  // A source is asked who consumes it: the search follows the data. A sink is asked who feeds
  // it: the search goes against the data. Everything else is the same both ways.
  const bool downstream = start->second.direction == Direction::Source;
  const auto& neighbours = downstream ? graph.into_ : graph.from_;
  // A device at the far end of a chain is real when its hardware takes the data out of the graph
  // (a sink played aloud) or puts it in (a microphone), depending on the way we look.
  const Direction realEnd = downstream ? Direction::Sink : Direction::Source;

  std::set<ConsumerGraph::NodeKey> visited{device};
  std::vector<ConsumerGraph::NodeKey> pending{device};
  while (!pending.empty()) {
    auto flows = neighbours.find(pending.back());
    pending.pop_back();
    if (flows == neighbours.end()) continue;
    for (ConsumerGraph::NodeKey key : flows->second) {
      auto found = graph.nodes_.find(key);
      if (found == graph.nodes_.end()) continue;
      const Node& next = found->second;
      if (next.role == Role::Stream) {
        if (next.kind == Kind::Program) return true;
        // Meters, monitor captures and paused streams end the path; filters pass it on.
        if (next.kind != Kind::Filter) continue;
      } else if (next.hasHardware && next.direction == realEnd) {
        return true;
      }
      if (visited.insert(key).second) pending.push_back(key);
    }
  }
  return false;
}

}  // namespace harkwell
