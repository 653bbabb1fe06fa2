// Who uses a Linux audio device, read off the graph of where data flows, and whose process a
// client's properties name. No server: graphs and properties are built here.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <string>

#include "HarkwellFoundation/Platform/Linux/AudioDeviceConsumers.h"
#include "HarkwellFoundation/Platform/Linux/ConsumerProcessDetails.h"

namespace harkwell {
namespace {

using Direction = ConsumerGraph::DeviceDirection;
using Kind = ConsumerGraph::StreamKind;
using ConsumerKind = MediaDeviceConsumerKind;
using Properties = std::map<std::string, std::string>;

constexpr ConsumerGraph::NodeKey kMicrophone = 1;
constexpr ConsumerGraph::NodeKey kSpeaker = 2;
constexpr ConsumerGraph::NodeKey kFilterSource = 3;

// Describes stream `key` as a consumer whose process ID is the key, of the given kind.
struct Streams {
  std::map<ConsumerGraph::NodeKey, ConsumerKind> kinds;
  std::optional<MediaDeviceConsumer> operator()(ConsumerGraph::NodeKey key) const {
    auto found = kinds.find(key);
    if (found == kinds.end()) return std::nullopt;
    MediaDeviceConsumer consumer;
    consumer.processID = static_cast<std::int32_t>(key);
    consumer.kind = found->second;
    return consumer;
  }
};

std::vector<std::int32_t> ProcessIDs(const std::vector<MediaDeviceConsumer>& consumers) {
  std::vector<std::int32_t> ids;
  for (const auto& consumer : consumers) ids.push_back(consumer.processID);
  return ids;
}

ConsumerGraph TwoDevices() {
  ConsumerGraph graph;
  graph.addDevice(kMicrophone, Direction::Source, true);
  graph.addDevice(kSpeaker, Direction::Sink, true);
  return graph;
}

TEST(AudioDeviceConsumersTest, ASourcesConsumersAreTheStreamsItsDataEntersPausedOrNot) {
  ConsumerGraph graph = TwoDevices();
  graph.addStream(10, Kind::Program);
  graph.addStream(11, Kind::LevelMeter);
  graph.addStream(12, Kind::Paused);
  for (ConsumerGraph::NodeKey stream : {10, 11, 12}) graph.addFlow(kMicrophone, stream);
  const Streams streams{{{10, ConsumerKind::Application},
                         {11, ConsumerKind::LevelMeter},
                         {12, ConsumerKind::Application}}};
  const auto consumers = AudioDeviceConsumersIn(graph, kMicrophone, streams);
  EXPECT_EQ(ProcessIDs(consumers), (std::vector<std::int32_t>{10, 11, 12}));
  EXPECT_EQ(consumers[1].kind, ConsumerKind::LevelMeter);
  EXPECT_TRUE(AudioDeviceConsumersIn(graph, kSpeaker, streams).empty());
  EXPECT_TRUE(AudioDeviceConsumersIn(graph, 10, streams).empty()) << "a stream is no device";
}

TEST(AudioDeviceConsumersTest, AFilterFeedsTheProgramsAtTheEndsOfItsChain) {
  ConsumerGraph graph = TwoDevices();
  graph.addDevice(kFilterSource, Direction::Source, false);
  graph.addStream(20, Kind::Filter);
  graph.addStream(21, Kind::Program);
  graph.addStream(22, Kind::LevelMeter);
  graph.addFlow(kMicrophone, 20);
  graph.addFlow(20, kFilterSource);
  graph.addFlow(kFilterSource, 21);
  graph.addFlow(kFilterSource, 22);
  const Streams streams{{{20, ConsumerKind::Filter},
                         {21, ConsumerKind::Application},
                         {22, ConsumerKind::LevelMeter}}};
  const auto consumers = AudioDeviceConsumersIn(graph, kMicrophone, streams);
  ASSERT_EQ(ProcessIDs(consumers), (std::vector<std::int32_t>{20}));
  EXPECT_EQ(ProcessIDs(consumers[0].feeds), (std::vector<std::int32_t>{21}))
      << "a meter behind the filter takes nothing";
  EXPECT_EQ(ProcessIDs(AudioDeviceConsumersIn(graph, kFilterSource, streams)),
            (std::vector<std::int32_t>{21, 22}));
}

TEST(AudioDeviceConsumersTest, ASinksConsumersArePlayersAndMonitorsButNotItsOwnFilterHalf) {
  ConsumerGraph graph = TwoDevices();
  graph.addStream(30, Kind::Program);         // plays to the speaker
  graph.addStream(31, Kind::MonitorCapture);  // records its monitor
  graph.addStream(32, Kind::Filter);          // a filter sink's half the speaker would feed
  graph.addStream(33, Kind::Filter);          // a loopback playing into the speaker
  graph.addStream(34, Kind::Program);         // records the loopback's source
  graph.addFlow(30, kSpeaker);
  graph.addFlow(kSpeaker, 31);
  graph.addFlow(kSpeaker, 32);
  graph.addFlow(33, kSpeaker);
  graph.addFlow(34, 33);
  const Streams streams{{{30, ConsumerKind::Application},
                         {31, ConsumerKind::Monitor},
                         {32, ConsumerKind::Filter},
                         {33, ConsumerKind::Filter},
                         {34, ConsumerKind::Application}}};
  const auto consumers = AudioDeviceConsumersIn(graph, kSpeaker, streams);
  ASSERT_EQ(ProcessIDs(consumers), (std::vector<std::int32_t>{30, 33, 31}));
  EXPECT_EQ(ProcessIDs(consumers[1].feeds), (std::vector<std::int32_t>{34}));
}

TEST(AudioDeviceConsumersTest, TwoStreamsOfOneProcessAreOneConsumer) {
  ConsumerGraph graph = TwoDevices();
  graph.addStream(10, Kind::Program);
  graph.addStream(11, Kind::Program);
  graph.addFlow(kMicrophone, 10);
  graph.addFlow(kMicrophone, 11);
  const auto consumers = AudioDeviceConsumersIn(graph, kMicrophone, [](ConsumerGraph::NodeKey) {
    MediaDeviceConsumer consumer;
    consumer.processID = 7;
    return std::optional<MediaDeviceConsumer>(consumer);
  });
  EXPECT_EQ(ProcessIDs(consumers), (std::vector<std::int32_t>{7}));
}

TEST(AudioClientIdentityTest, TheSocketsProcessIsVerifiedAndBeatsTheClaim) {
  MediaDeviceConsumer consumer;
  const auto client = AudioClientIdentity::of(Properties{{"pipewire.sec.pid", "4321"},
                                                         {"application.process.id", "1"},
                                                         {"application.name", "Recorder"},
                                                         {"application.id", "org.example.Rec"}});
  ApplyAudioClientIdentity(consumer, client, ServerConnectionProcessIDs({client}));
  EXPECT_EQ(consumer.processID, 4321);
  EXPECT_TRUE(consumer.isProcessIDVerified);
  EXPECT_EQ(consumer.applicationName, "Recorder");
  EXPECT_EQ(consumer.applicationID, "org.example.Rec");
}

TEST(AudioClientIdentityTest, ABridgedClientOnTheBridgesOwnConnectionKeepsOnlyItsClaim) {
  const auto bridge = AudioClientIdentity::of(
      Properties{{"pipewire.sec.pid", "900"}, {"application.name", "pipewire"}});
  const auto bridged = AudioClientIdentity::of(Properties{{"pipewire.sec.pid", "900"},
                                                          {"client.api", "pipewire-pulse"},
                                                          {"application.process.id", "1"}});
  MediaDeviceConsumer consumer;
  ApplyAudioClientIdentity(consumer, bridged, ServerConnectionProcessIDs({bridge, bridged}));
  EXPECT_EQ(consumer.processID, 1);
  EXPECT_FALSE(consumer.isProcessIDVerified);

  // A bridge that passes on its client's own credentials is believed.
  const auto credited = AudioClientIdentity::of(
      Properties{{"pipewire.sec.pid", "1234"}, {"client.api", "pipewire-pulse"}});
  ApplyAudioClientIdentity(consumer, credited, ServerConnectionProcessIDs({bridge, credited}));
  EXPECT_EQ(consumer.processID, 1234);
  EXPECT_TRUE(consumer.isProcessIDVerified);
}

TEST(AudioClientIdentityTest, WithoutAClientTheStreamsOwnClaimIsUsedElseNone) {
  MediaDeviceConsumer consumer;
  const auto stream = AudioClientIdentity::of(
      Properties{{"application.process.id", "77"}, {"application.name", "Player"}});
  ApplyAudioClientIdentity(consumer, {}, {}, stream);
  EXPECT_EQ(consumer.processID, 77);
  EXPECT_FALSE(consumer.isProcessIDVerified);
  EXPECT_EQ(consumer.applicationName, "Player");

  const auto garbled = AudioClientIdentity::of(Properties{{"application.process.id", "77x"}});
  ApplyAudioClientIdentity(consumer, garbled, {});
  EXPECT_EQ(consumer.processID, -1);
  EXPECT_EQ(consumer.applicationName, std::nullopt);
}

TEST(ConsumerProcessDetailsTest, ALiveProcessIsReadAndAGoneOneLeftEmpty) {
  // A child that has exited and been reaped: its PID names no process any more.
  const pid_t child = fork();
  if (child == 0) _exit(0);
  ASSERT_GT(child, 0);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);

  std::vector<MediaDeviceConsumer> consumers(2);
  consumers[0].processID = getpid();
  consumers[1].processID = child;
  ConsumerProcessDetails details;
  details.fill(consumers);
  EXPECT_TRUE(consumers[0].executablePath.has_value());
  EXPECT_TRUE(consumers[0].processName.has_value());
  EXPECT_EQ(consumers[1].executablePath, std::nullopt);
  EXPECT_EQ(consumers[1].processName, std::nullopt);
  details.endRound();
  EXPECT_EQ(details.rememberedCount(), 2u);
  // A round that names neither forgets both.
  details.endRound();
  EXPECT_EQ(details.rememberedCount(), 0u);
}

}  // namespace
}  // namespace harkwell
