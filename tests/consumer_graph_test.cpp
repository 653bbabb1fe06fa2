// The "running" rule that the Linux audio services share: who takes data from a device, followed
// through filters, meters, monitors and paused streams.
#include <gtest/gtest.h>

#include "HarkwellFoundation/Platform/Linux/ConsumerGraph.h"

namespace harkwell {
namespace {

using Direction = ConsumerGraph::DeviceDirection;
using Kind = ConsumerGraph::StreamKind;

constexpr ConsumerGraph::NodeKey kMicrophone = 1;
constexpr ConsumerGraph::NodeKey kSpeaker = 2;
constexpr ConsumerGraph::NodeKey kVirtualSource = 3;
constexpr ConsumerGraph::NodeKey kVirtualSink = 4;
constexpr ConsumerGraph::NodeKey kSecondVirtualSource = 5;

// A microphone with hardware behind it and a speaker with hardware behind it.
ConsumerGraph TwoDevices() {
  ConsumerGraph graph;
  graph.addDevice(kMicrophone, Direction::Source, true);
  graph.addDevice(kSpeaker, Direction::Sink, true);
  return graph;
}

TEST(ConsumerGraphTest, ADeviceNobodyUsesIsNotRunning) {
  const ConsumerGraph graph = TwoDevices();
  EXPECT_FALSE(DeviceIsRunning(graph, kMicrophone));
  EXPECT_FALSE(DeviceIsRunning(graph, kSpeaker));
}

TEST(ConsumerGraphTest, AKeyThatIsNoDeviceIsNotRunning) {
  ConsumerGraph graph = TwoDevices();
  graph.addStream(10, Kind::Program);
  EXPECT_FALSE(DeviceIsRunning(graph, 10));
  EXPECT_FALSE(DeviceIsRunning(graph, 99));
  EXPECT_TRUE(graph.hasDevice(kMicrophone));
  EXPECT_FALSE(graph.hasDevice(10));
}

TEST(ConsumerGraphTest, AProgramRecordingMakesTheSourceRunning) {
  ConsumerGraph graph = TwoDevices();
  graph.addStream(10, Kind::Program);
  graph.addFlow(kMicrophone, 10);
  EXPECT_TRUE(DeviceIsRunning(graph, kMicrophone));
  EXPECT_FALSE(DeviceIsRunning(graph, kSpeaker));
}

TEST(ConsumerGraphTest, TwoRecordersKeepTheSourceRunningUntilTheLastStops) {
  ConsumerGraph both = TwoDevices();
  both.addStream(10, Kind::Program);
  both.addStream(11, Kind::Program);
  both.addFlow(kMicrophone, 10);
  both.addFlow(kMicrophone, 11);
  EXPECT_TRUE(DeviceIsRunning(both, kMicrophone));

  ConsumerGraph one = TwoDevices();
  one.addStream(11, Kind::Program);
  one.addFlow(kMicrophone, 11);
  EXPECT_TRUE(DeviceIsRunning(one, kMicrophone));
}

TEST(ConsumerGraphTest, LevelMetersMonitorCapturesAndPausedStreamsConsumeNothing) {
  ConsumerGraph graph = TwoDevices();
  graph.addStream(10, Kind::LevelMeter);
  graph.addStream(11, Kind::MonitorCapture);
  graph.addStream(12, Kind::Paused);
  for (ConsumerGraph::NodeKey stream : {10, 11, 12}) graph.addFlow(kMicrophone, stream);
  EXPECT_FALSE(DeviceIsRunning(graph, kMicrophone));
}

TEST(ConsumerGraphTest, ALevelMeterPassesNothingOn) {
  // A meter is never a path onwards, even if a flow leaves it.
  ConsumerGraph graph = TwoDevices();
  graph.addStream(10, Kind::LevelMeter);
  graph.addStream(11, Kind::Program);
  graph.addFlow(kMicrophone, 10);
  graph.addFlow(10, 11);
  EXPECT_FALSE(DeviceIsRunning(graph, kMicrophone));
}

TEST(ConsumerGraphTest, AMonitorCaptureDoesNotMakeTheSinkRunning) {
  ConsumerGraph graph = TwoDevices();
  graph.addStream(10, Kind::MonitorCapture);
  graph.addFlow(kSpeaker, 10);
  EXPECT_FALSE(DeviceIsRunning(graph, kSpeaker));
}

TEST(ConsumerGraphTest, AProgramPlayingMakesTheSinkRunning) {
  ConsumerGraph graph = TwoDevices();
  graph.addStream(20, Kind::Program);
  graph.addFlow(20, kSpeaker);
  EXPECT_TRUE(DeviceIsRunning(graph, kSpeaker));
  EXPECT_FALSE(DeviceIsRunning(graph, kMicrophone));
}

TEST(ConsumerGraphTest, APausedPlaybackDoesNotMakeTheSinkRunning) {
  ConsumerGraph graph = TwoDevices();
  graph.addStream(20, Kind::Paused);
  graph.addFlow(20, kSpeaker);
  EXPECT_FALSE(DeviceIsRunning(graph, kSpeaker));
}

// The microphone -> filter -> virtual source shape of a remapped, echo-cancelled or noise
// suppressed microphone.
ConsumerGraph FilterInFrontOfTheMicrophone() {
  ConsumerGraph graph = TwoDevices();
  graph.addDevice(kVirtualSource, Direction::Source, false);
  graph.addStream(30, Kind::Filter);
  graph.addFlow(kMicrophone, 30);
  graph.addFlow(30, kVirtualSource);
  return graph;
}

TEST(ConsumerGraphTest, AFilterThatFeedsNobodyDoesNotMakeTheSourceRunning) {
  const ConsumerGraph graph = FilterInFrontOfTheMicrophone();
  EXPECT_FALSE(DeviceIsRunning(graph, kMicrophone));
  EXPECT_FALSE(DeviceIsRunning(graph, kVirtualSource));
}

TEST(ConsumerGraphTest, RecordingFromTheFilterOutputMakesBothRunning) {
  ConsumerGraph graph = FilterInFrontOfTheMicrophone();
  graph.addStream(10, Kind::Program);
  graph.addFlow(kVirtualSource, 10);
  EXPECT_TRUE(DeviceIsRunning(graph, kMicrophone));
  EXPECT_TRUE(DeviceIsRunning(graph, kVirtualSource));
}

TEST(ConsumerGraphTest, AMeterOnTheFilterOutputDoesNotMakeTheSourceRunning) {
  ConsumerGraph graph = FilterInFrontOfTheMicrophone();
  graph.addStream(10, Kind::LevelMeter);
  graph.addFlow(kVirtualSource, 10);
  EXPECT_FALSE(DeviceIsRunning(graph, kMicrophone));
}

TEST(ConsumerGraphTest, APausedFilterPassesNothingOn) {
  ConsumerGraph graph = FilterInFrontOfTheMicrophone();
  graph.addStream(30, Kind::Paused);
  graph.addStream(10, Kind::Program);
  graph.addFlow(kVirtualSource, 10);
  EXPECT_FALSE(DeviceIsRunning(graph, kMicrophone));
  EXPECT_TRUE(DeviceIsRunning(graph, kVirtualSource));
}

TEST(ConsumerGraphTest, AChainOfFiltersIsFollowedToItsEnd) {
  ConsumerGraph graph = FilterInFrontOfTheMicrophone();
  graph.addDevice(kSecondVirtualSource, Direction::Source, false);
  graph.addStream(31, Kind::Filter);
  graph.addStream(32, Kind::Filter);
  // Two filter halves between the two virtual sources, as a loopback has.
  graph.addFlow(kVirtualSource, 31);
  graph.addFlow(31, 32);
  graph.addFlow(32, kSecondVirtualSource);
  EXPECT_FALSE(DeviceIsRunning(graph, kMicrophone));

  graph.addStream(10, Kind::Program);
  graph.addFlow(kSecondVirtualSource, 10);
  EXPECT_TRUE(DeviceIsRunning(graph, kMicrophone));
  EXPECT_TRUE(DeviceIsRunning(graph, kVirtualSource));
}

TEST(ConsumerGraphTest, ALoopbackToAHardwareSinkUsesTheMicrophoneAndTheSpeaker) {
  ConsumerGraph graph = TwoDevices();
  graph.addStream(30, Kind::Filter);
  graph.addStream(31, Kind::Filter);
  graph.addFlow(kMicrophone, 30);
  graph.addFlow(30, 31);
  graph.addFlow(31, kSpeaker);
  EXPECT_TRUE(DeviceIsRunning(graph, kMicrophone)) << "the microphone is heard aloud";
  EXPECT_TRUE(DeviceIsRunning(graph, kSpeaker)) << "the speaker plays a real microphone";
}

TEST(ConsumerGraphTest, ALoopbackBetweenDevicesWithoutHardwareUsesNeither) {
  ConsumerGraph graph;
  graph.addDevice(kVirtualSource, Direction::Source, false);
  graph.addDevice(kVirtualSink, Direction::Sink, false);
  graph.addStream(30, Kind::Filter);
  graph.addStream(31, Kind::Filter);
  graph.addFlow(kVirtualSource, 30);
  graph.addFlow(30, 31);
  graph.addFlow(31, kVirtualSink);
  EXPECT_FALSE(DeviceIsRunning(graph, kVirtualSource));
  EXPECT_FALSE(DeviceIsRunning(graph, kVirtualSink));
}

TEST(ConsumerGraphTest, AFilterSinkInFrontOfTheSpeakerCountsOnlyWhileSomethingPlaysToIt) {
  // A program plays to a virtual sink whose filter plays on into the speaker.
  ConsumerGraph graph = TwoDevices();
  graph.addDevice(kVirtualSink, Direction::Sink, false);
  graph.addStream(30, Kind::Filter);
  graph.addFlow(kVirtualSink, 30);
  graph.addFlow(30, kSpeaker);
  EXPECT_FALSE(DeviceIsRunning(graph, kSpeaker));

  graph.addStream(20, Kind::Program);
  graph.addFlow(20, kVirtualSink);
  EXPECT_TRUE(DeviceIsRunning(graph, kSpeaker));
  EXPECT_TRUE(DeviceIsRunning(graph, kVirtualSink));
}

TEST(ConsumerGraphTest, ACycleOfFiltersEnds) {
  ConsumerGraph graph = FilterInFrontOfTheMicrophone();
  graph.addStream(31, Kind::Filter);
  graph.addFlow(kVirtualSource, 31);
  graph.addFlow(31, kVirtualSource);
  graph.addFlow(31, kMicrophone);
  EXPECT_FALSE(DeviceIsRunning(graph, kMicrophone));
  EXPECT_FALSE(DeviceIsRunning(graph, kVirtualSource));

  graph.addStream(10, Kind::Program);
  graph.addFlow(31, 10);
  EXPECT_TRUE(DeviceIsRunning(graph, kMicrophone));
}

TEST(ConsumerGraphTest, FlowsToUnknownKeysAreIgnored) {
  ConsumerGraph graph = TwoDevices();
  graph.addFlow(kMicrophone, 77);
  graph.addFlow(78, kSpeaker);
  EXPECT_FALSE(DeviceIsRunning(graph, kMicrophone));
  EXPECT_FALSE(DeviceIsRunning(graph, kSpeaker));
  // Described later, the same key counts.
  graph.addStream(77, Kind::Program);
  EXPECT_TRUE(DeviceIsRunning(graph, kMicrophone));
}

TEST(ConsumerGraphTest, AVeryLongChainIsFollowedWithoutRecursion) {
  ConsumerGraph graph = TwoDevices();
  ConsumerGraph::NodeKey previous = kMicrophone;
  for (ConsumerGraph::NodeKey key = 1000; key < 21000; ++key) {
    graph.addStream(key, Kind::Filter);
    graph.addFlow(previous, key);
    previous = key;
  }
  EXPECT_FALSE(DeviceIsRunning(graph, kMicrophone));
  graph.addStream(9, Kind::Program);
  graph.addFlow(previous, 9);
  EXPECT_TRUE(DeviceIsRunning(graph, kMicrophone));
}

TEST(ConsumerGraphTest, AddingAFlowTwiceChangesNothing) {
  ConsumerGraph graph = FilterInFrontOfTheMicrophone();
  graph.addFlow(kMicrophone, 30);
  graph.addFlow(30, kVirtualSource);
  EXPECT_FALSE(DeviceIsRunning(graph, kMicrophone));
}

}  // namespace
}  // namespace harkwell
