// Whether an audio device is "running": in use by some process, somewhere on the system. One rule
// for every Linux audio service, written against a small graph of where data flows, so that a
// PulseAudio server and a PipeWire graph are judged alike.
//
// The graph holds three kinds of node, each under a key the service chooses:
//   - devices: the sources and sinks the service shows as devices, and those a filter offers
//     (a virtual or remapped source, an echo-cancelling sink). A device with hardware behind it
//     (a sound card, a Bluetooth headset) is marked so: data enters or leaves the graph there.
//   - streams: what a program opens on a device, and what it is (a program's real stream, a level
//     meter, a capture of a sink's monitor, a paused stream, or one half of a filter).
//   - flows: "data goes from this node into that one": a source into the stream that records from
//     it, a stream into the sink it plays to, a filter's recording half into the source or the
//     playback half it offers.
//
// The rule (DeviceIsRunning):
//   A source is running while at least one real consumer takes data from it. Following the flows
//   out of the source: a program's stream that records is a real consumer; a hardware sink that
//   plays the data aloud is one too; a filter or a device without hardware passes the data on and
//   counts only while something real consumes its own output, however many filters stand in a
//   chain. A level meter (it receives peaks, not samples), a capture of a sink's monitor and a
//   paused (corked) stream consume nothing, and nothing flows on through them.
//   A sink is running while at least one real producer plays to it, following the flows into the
//   sink backwards in the same way: a program's playing stream is a real producer, a hardware
//   source is one (its sound is real), and a filter or a device without hardware counts only while
//   something real feeds it.
//   A flow that leads back to a node already visited adds nothing, so cycles end. Flows that name
//   a key the graph does not hold are ignored.
//
// The same walk tells who a filter serves (ProgramStreamsServedBy): the program streams at the far
// ends of the chains that start at one of the filter's streams.
//
// Values only: a graph is built, asked and dropped on one thread; the function is pure.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

namespace harkwell {

class ConsumerGraph {
 public:
  using NodeKey = std::uint64_t;

  enum class DeviceDirection {
    Source,  // gives data: a microphone, a virtual source, a sink's monitor
    Sink,    // takes data: a speaker, a null sink, a filter's input sink
  };

  // What a stream does with the data that flows through it.
  enum class StreamKind {
    Program,         // a program records or plays real samples
    LevelMeter,      // receives peaks only, as volume controls ask (peak detection, monitor
                     // streams, "peaks" resampling)
    MonitorCapture,  // records what a sink plays through the sink's monitor
    Paused,          // corked or paused: no data flows
    Filter,          // one half of a filter or loopback: passes the data on to its other half
  };

  // Adding a key twice keeps the last description; its flows stay.
  void addDevice(NodeKey key, DeviceDirection direction, bool hasHardware);
  void addStream(NodeKey key, StreamKind kind);
  // Data goes from `from` into `to`. Adding a flow twice changes nothing.
  void addFlow(NodeKey from, NodeKey to);

  // Whether `key` is a device of the graph.
  bool hasDevice(NodeKey key) const;
  // The device's direction, for a device of the graph.
  std::optional<DeviceDirection> deviceDirection(NodeKey key) const;
  // Whether `key` is a stream of the graph.
  bool hasStream(NodeKey key) const;
  // The nodes `key`'s flows enter, and the nodes whose flows enter `key`, in the order the flows
  // were added; they may name keys the graph does not describe.
  const std::vector<NodeKey>& flowsOutOf(NodeKey key) const;
  const std::vector<NodeKey>& flowsInto(NodeKey key) const;

 private:
  friend bool DeviceIsRunning(const ConsumerGraph& graph, NodeKey device);
  friend std::vector<NodeKey> ProgramStreamsServedBy(const ConsumerGraph& graph, NodeKey stream,
                                                     bool downstream);
  // Follows the flows from `start` (with the data when `downstream`, against it otherwise) as the
  // running rule does, and calls `reached` with each program stream found, and with each device
  // whose hardware ends a chain; stops early when `reached` returns true.
  template <class Reached>
  void walkFrom(NodeKey start, bool downstream, DeviceDirection realEnd, Reached reached) const;

  enum class Role { Device, Stream };
  struct Node {
    Role role = Role::Stream;
    DeviceDirection direction = DeviceDirection::Source;
    bool hasHardware = false;
    StreamKind kind = StreamKind::Program;
  };

  std::map<NodeKey, Node> nodes_;
  // Flows by the node they leave and by the node they enter; they may name undescribed keys.
  std::map<NodeKey, std::vector<NodeKey>> into_;
  std::map<NodeKey, std::vector<NodeKey>> from_;
};

// The rule above, for the device under `key`. False for a key that is not a device of the graph.
bool DeviceIsRunning(const ConsumerGraph& graph, ConsumerGraph::NodeKey device);

// The program streams the data of `stream` reaches (`downstream`: a filter's recording half and
// the chain after it) or comes from (a filter's playback half and the chain before it), past
// filters and devices without hardware, as the running rule walks. Each key once, in ascending
// order; empty for a key that is not a stream.
std::vector<ConsumerGraph::NodeKey> ProgramStreamsServedBy(const ConsumerGraph& graph,
                                                           ConsumerGraph::NodeKey stream,
                                                           bool downstream);

}  // namespace harkwell
