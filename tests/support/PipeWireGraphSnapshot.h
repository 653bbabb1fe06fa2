// A bare libpipewire client for the tests: it connects to a PipeWire daemon, reads every object the
// daemon announces (with each node's current state), and disconnects. It is what `pw-dump` shows,
// cut down to what the tests look at, and it lets a test wait for the daemon to have done
// something (a node made, a link active) without reading any program's output.
//
// Each call makes its own connection and its own loop on the calling thread, and returns once the
// daemon has answered or the deadline has passed. Calls may come from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace harkwell::testing {

// One object of the daemon's registry.
struct PipeWireObject {
  std::uint32_t id = 0;
  // The interface's short name: "Node", "Port", "Link", "Client", "Device", "Module", ...
  std::string type;
  // The properties the registry announces with the object; for nodes, all of the node's own.
  std::map<std::string, std::string> properties;
  // For nodes: the state from the node's info ("running", "idle", "suspended", "creating",
  // "error"); empty for other objects.
  std::string state;

  std::string property(const std::string& key) const;
};

struct PipeWireGraphSnapshot {
  std::vector<PipeWireObject> objects;

  // Reads the graph of the daemon listening on `remote` (a socket path). Nullopt, with the reason
  // in `error` when given, when the daemon cannot be reached or does not answer before `deadline`.
  static std::optional<PipeWireGraphSnapshot> take(
      const std::string& remote, std::chrono::milliseconds deadline = std::chrono::seconds(5),
      std::string* error = nullptr);

  // The first node whose "node.name" is `name`.
  const PipeWireObject* nodeNamed(const std::string& name) const;
  // The first object of `type` that `matches`.
  const PipeWireObject* find(const std::string& type,
                             const std::function<bool(const PipeWireObject&)>& matches) const;
  // How many links of the graph start at the node with this ID.
  std::size_t linksFromNode(std::uint32_t nodeID) const;
};

// Waits, by taking a snapshot after another, until `condition` holds for one, or the deadline
// passes. Empty on success; otherwise why not (the last snapshot's failure, or a plain timeout).
std::string WaitForPipeWireGraph(const std::string& remote,
                                 const std::function<bool(const PipeWireGraphSnapshot&)>& condition,
                                 std::chrono::milliseconds deadline = std::chrono::seconds(10));

}  // namespace harkwell::testing
