// The private PipeWire stack itself: it starts with its null sink, offers the PulseAudio protocol,
// links a recorder to a microphone made with pw-cli, and comes back after its daemon is killed.
// The services' suites build on all of it.
#include <gtest/gtest.h>

#include <string>

#include "tests/support/ChildProcess.h"
#include "tests/support/PipeWireGraphSnapshot.h"
#include "tests/support/PrivatePipeWireStack.h"
#include "tests/support/PulseTestClient.h"

namespace harkwell {
namespace {

using testing::ChildProcess;
using testing::PipeWireGraphSnapshot;
using testing::PrivatePipeWireStack;
using testing::PulseTestClient;
using testing::WaitForPipeWireGraph;

constexpr const char* kMicrophone = "harkwell_test_mic";

// Whether the node named `name` is in the state `state`.
auto NodeState(const std::string& name, const std::string& state) {
  return [=](const PipeWireGraphSnapshot& graph) {
    const auto* node = graph.nodeNamed(name);
    return node && node->state == state;
  };
}

TEST(PipeWireStack, StartsWithItsNullSinkAndAPulseAudioServer) {
  PrivatePipeWireStack stack;
  ASSERT_EQ(stack.start(), "");
  std::string error;
  auto graph = PipeWireGraphSnapshot::take(stack.remote(), std::chrono::seconds(5), &error);
  ASSERT_TRUE(graph) << error;
  const auto* sink = graph->nodeNamed(PrivatePipeWireStack::kNullSinkName);
  ASSERT_NE(sink, nullptr);
  EXPECT_EQ(sink->property("media.class"), "Audio/Sink");
  // WirePlumber's fallback sink stays away while the stack's own sink is there.
  EXPECT_EQ(graph->nodeNamed("auto_null"), nullptr);

  PulseTestClient pulse(stack.pulseAddress());
  EXPECT_TRUE(pulse.isConnected());
}

TEST(PipeWireStack, RecorderRunsAMicrophoneMadeWithPwCli) {
  PrivatePipeWireStack stack;
  ASSERT_EQ(stack.start(), "");
  ASSERT_EQ(stack.createVirtualMicrophone(kMicrophone, "Harkwell Test Microphone"), "");
  {
    ChildProcess recorder;
    ASSERT_EQ(stack.startRecorder(recorder, kMicrophone), "");
    EXPECT_EQ(WaitForPipeWireGraph(stack.remote(), NodeState(kMicrophone, "running")), "")
        << stack.output();
  }
  // The recorder is gone: the microphone is left alone again.
  EXPECT_EQ(WaitForPipeWireGraph(stack.remote(),
                                 [](const PipeWireGraphSnapshot& graph) {
                                   const auto* node = graph.nodeNamed(kMicrophone);
                                   return node && node->state != "running";
                                 }),
            "");
  ASSERT_EQ(stack.destroyNode(kMicrophone), "");
}

TEST(PipeWireStack, LoopbackHalvesShareALinkGroup) {
  PrivatePipeWireStack stack;
  ASSERT_EQ(stack.start(), "");
  ASSERT_EQ(stack.createVirtualMicrophone(kMicrophone, "Harkwell Test Microphone"), "");
  ChildProcess loopback;
  ASSERT_EQ(stack.startLoopbackSource(loopback, kMicrophone, "harkwell_test_filter", "Filter"), "");
  auto graph = PipeWireGraphSnapshot::take(stack.remote());
  ASSERT_TRUE(graph);
  const auto* source = graph->nodeNamed("harkwell_test_filter");
  ASSERT_NE(source, nullptr);
  const std::string group = source->property("node.link-group");
  EXPECT_FALSE(group.empty());
  const auto* capture = graph->find("Node", [&](const testing::PipeWireObject& node) {
    return node.id != source->id && node.property("node.link-group") == group;
  });
  EXPECT_NE(capture, nullptr);
}

TEST(PipeWireStack, ComesBackAfterItsDaemonIsKilled) {
  PrivatePipeWireStack stack;
  ASSERT_EQ(stack.start(), "");
  stack.killDaemon();
  EXPECT_FALSE(stack.isRunning());
  EXPECT_FALSE(PipeWireGraphSnapshot::take(stack.remote(), std::chrono::milliseconds(500)));
  ASSERT_EQ(stack.start(), "");
  EXPECT_EQ(stack.waitForNode(PrivatePipeWireStack::kNullSinkName), "");
}

}  // namespace
}  // namespace harkwell
