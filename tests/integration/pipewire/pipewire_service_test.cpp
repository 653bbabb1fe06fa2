// The PipeWire service against a private PipeWire stack that each test starts: discovery, removal,
// running state as programs record (and as meters and filters do not), transport, daemon faults,
// log lines and listeners.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/Linux/PipeWire/PipeWireHardwareService.h"
#include "HarkwellFoundation/Platform/Linux/PulseAudio/PulseAudioHardwareService.h"
#include "HarkwellFoundation/Platform/Linux/StableDeviceID.h"
#include "tests/support/AudioServiceReads.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/PipeWireGraphSnapshot.h"
#include "tests/support/PrivatePipeWireStack.h"
#include "tests/support/PulseTestClient.h"
#include "tests/support/Waiting.h"

namespace harkwell {
namespace {

using namespace std::chrono_literals;
using namespace testing;

constexpr const char* kMicrophone = "harkwell_test_mic";
constexpr const char* kMicrophoneDescription = "Harkwell Test Microphone";
constexpr const char* kFilterOutput = "harkwell_test_filter";

class PipeWireServiceTest : public ::testing::Test {
 protected:
  void startStack() { ASSERT_EQ(stack_.start(), ""); }

  std::shared_ptr<PipeWireHardwareService> makeService(
      std::chrono::milliseconds startupTimeout = 2000ms) {
    PipeWireHardwareService::Options options;
    options.remote = stack_.remote();
    options.startupTimeout = startupTimeout;
    return PipeWireHardwareService::create(options);
  }

  // Starts the stack with a virtual microphone, and a service connected to it.
  void startStackAndService() {
    ASSERT_NO_FATAL_FAILURE(startStack());
    ASSERT_EQ(stack_.createVirtualMicrophone(kMicrophone, kMicrophoneDescription), "");
    service_ = makeService();
    ASSERT_TRUE(service_);
    const auto microphone = DeviceWithUID(*service_, kMicrophone);
    ASSERT_TRUE(microphone);
    microphone_ = *microphone;
  }

  // Makes a node and waits until the service lists it, its notifications queued on `queue_`
  // before the call returns. Everything the daemon did before is then visible too: the daemon
  // reports changes in order, and the service applies them in order.
  void addBarrierNode(const std::string& name) {
    PropertyProbe list(*service_, kAudioObjectSystemObject, kDevices, queue_);
    ASSERT_EQ(list.add(), kNoErr);
    ASSERT_EQ(stack_.createVirtualMicrophone(name, "Barrier"), "");
    ASSERT_TRUE(list.calls().waitUntil(
        [&](const auto&) { return DeviceWithUID(*service_, name).has_value(); }));
    DrainQueue(queue_);
  }

  // Waits until the daemon's graph has the node named `name` in state `state`.
  void waitForNodeState(const std::string& name, const std::string& state) {
    ASSERT_EQ(WaitForPipeWireGraph(stack_.remote(),
                                   [&](const PipeWireGraphSnapshot& graph) {
                                     const auto* node = graph.nodeNamed(name);
                                     return node && node->state == state;
                                   }),
              "")
        << stack_.output();
  }

  // Waits until some node whose properties hold `key`=`value` is running.
  void waitForStreamRunning(const std::string& key, const std::string& value) {
    ASSERT_EQ(WaitForPipeWireGraph(stack_.remote(),
                                   [&](const PipeWireGraphSnapshot& graph) {
                                     return graph.find("Node", [&](const PipeWireObject& node) {
                                       return node.property(key) == value &&
                                              node.state == "running";
                                     }) != nullptr;
                                   }),
              "")
        << stack_.output();
  }

  PrivatePipeWireStack stack_;
  std::shared_ptr<PipeWireHardwareService> service_;
  ObjectID microphone_ = 0;
  std::shared_ptr<DispatchQueue> queue_ = DispatchQueue::createSerial("test.pipewire");
};

TEST_F(PipeWireServiceTest, DevicesPresentAtStartAreListedByTheFirstRead) {
  ASSERT_NO_FATAL_FAILURE(startStackAndService());

  // Read at once: creating the service waited for the daemon's whole graph.
  const auto sink = DeviceWithUID(*service_, PrivatePipeWireStack::kNullSinkName);
  ASSERT_TRUE(sink);
  EXPECT_EQ(DeviceIDs(*service_).size(), 2u) << "streams and drivers are not devices";
  EXPECT_EQ(microphone_, StableDeviceIDHome(StableIDSpace::Audio, kMicrophone));

  EXPECT_EQ(StringProperty(*service_, microphone_, kAudioObjectPropertyName),
            kMicrophoneDescription);
  EXPECT_EQ(StringProperty(*service_, *sink, kAudioObjectPropertyName),
            PrivatePipeWireStack::kNullSinkDescription);
  EXPECT_EQ(StringProperty(*service_, microphone_, kAudioDevicePropertyDeviceUID), kMicrophone);
  EXPECT_EQ(StringProperty(*service_, microphone_, kAudioDevicePropertyModelUID), std::nullopt);
  EXPECT_EQ(UInt32Property(*service_, microphone_, Global(kAudioDevicePropertyTransportType)),
            kAudioDeviceTransportTypeVirtual);
  EXPECT_EQ(UInt32Property(*service_, *sink, Global(kAudioDevicePropertyTransportType)),
            kAudioDeviceTransportTypeVirtual);
  EXPECT_EQ(SizeOf(*service_, microphone_, Input(kAudioDevicePropertyStreams)), 4u);
  EXPECT_EQ(SizeOf(*service_, microphone_, Output(kAudioDevicePropertyStreams)), 0u);
  EXPECT_EQ(SizeOf(*service_, *sink, Input(kAudioDevicePropertyStreams)), 0u);
  EXPECT_EQ(SizeOf(*service_, *sink, Output(kAudioDevicePropertyStreams)), 4u);
  EXPECT_EQ(UInt32Property(*service_, microphone_, kRunning), 0u);
  EXPECT_FALSE(service_->hasProperty(microphone_, Input(kAudioDevicePropertyDataSource)));
  std::uint32_t size = 4;
  std::int32_t owner = 0;
  EXPECT_EQ(service_->getPropertyData(microphone_, Global(kAudioDevicePropertyHogMode), 0, nullptr,
                                      &size, &owner),
            kAudioHardwareUnknownPropertyError);
}

TEST_F(PipeWireServiceTest, ReadsAnswerFromTheMirrorWhileTheDaemonHangs) {
  ASSERT_NO_FATAL_FAILURE(startStackAndService());
  stack_.pauseDaemon();
  auto reads = std::async(std::launch::async, [&] {
    return DeviceIDs(*service_).size() == 2u &&
           StringProperty(*service_, microphone_, kAudioObjectPropertyName) ==
               kMicrophoneDescription &&
           UInt32Property(*service_, microphone_, kRunning) == 0u;
  });
  // A read that waited on the frozen daemon would never finish.
  const bool finished = reads.wait_for(5s) == std::future_status::ready;
  stack_.resumeDaemon();
  ASSERT_TRUE(finished) << "a read waited for the daemon";
  EXPECT_TRUE(reads.get());
}

TEST_F(PipeWireServiceTest, VirtualMicrophoneIsDiscoveredAndItsRemovalTakesItAway) {
  ASSERT_NO_FATAL_FAILURE(startStack());
  service_ = makeService();
  ASSERT_TRUE(service_);
  ASSERT_EQ(DeviceIDs(*service_).size(), 1u);
  PropertyProbe list(*service_, kAudioObjectSystemObject, kDevices, queue_);
  ASSERT_EQ(list.add(), kNoErr);

  ASSERT_EQ(stack_.createVirtualMicrophone(kMicrophone, kMicrophoneDescription), "");
  const ObjectID expected = StableDeviceIDHome(StableIDSpace::Audio, kMicrophone);
  ASSERT_TRUE(list.calls().waitUntil([&](const auto& values) {
    return !values.empty() && std::count(values.back().begin(), values.back().end(), expected);
  }));
  // The listener read the list after the mirror had the new device: its name is there too.
  EXPECT_EQ(StringProperty(*service_, expected, kAudioObjectPropertyName), kMicrophoneDescription);

  ASSERT_EQ(stack_.destroyNode(kMicrophone), "");
  ASSERT_TRUE(list.calls().waitUntil([&](const auto& values) {
    return !values.empty() && !std::count(values.back().begin(), values.back().end(), expected);
  }));
  EXPECT_FALSE(DeviceWithUID(*service_, kMicrophone));
  EXPECT_EQ(StringProperty(*service_, expected, kAudioObjectPropertyName), std::nullopt);
}

TEST_F(PipeWireServiceTest, PwRecordMakesTheMicrophoneRunningAndStoppingMakesItIdle) {
  ASSERT_NO_FATAL_FAILURE(startStackAndService());
  PropertyProbe running(*service_, microphone_, kRunning, queue_);
  ASSERT_EQ(running.add(), kNoErr);
  {
    ChildProcess recorder;
    ASSERT_EQ(stack_.startRecorder(recorder, kMicrophone), "");
    ASSERT_TRUE(running.waitForValue({1})) << stack_.output();
    EXPECT_EQ(UInt32Property(*service_, microphone_, kRunning), 1u);
  }
  ASSERT_TRUE(running.waitForValue({0}));
  EXPECT_EQ(running.calls().entries(), (std::vector<std::vector<std::uint32_t>>{{1}, {0}}))
      << "one call per real change";
}

TEST_F(PipeWireServiceTest, TwoRecordersKeepTheMicrophoneRunningUntilTheLastStops) {
  ASSERT_NO_FATAL_FAILURE(startStackAndService());
  PropertyProbe running(*service_, microphone_, kRunning, queue_);
  ASSERT_EQ(running.add(), kNoErr);
  ChildProcess first;
  ChildProcess second;
  ASSERT_EQ(stack_.startRecorder(first, kMicrophone), "");
  ASSERT_TRUE(running.waitForValue({1}));
  ASSERT_EQ(stack_.startRecorder(second, kMicrophone), "");
  ASSERT_NO_FATAL_FAILURE(waitForStreamRunning("application.name", "pw-record"));
  ASSERT_EQ(WaitForPipeWireGraph(stack_.remote(),
                                 [](const PipeWireGraphSnapshot& graph) {
                                   std::size_t recorders = 0;
                                   for (const auto& object : graph.objects) {
                                     recorders +=
                                         object.type == "Node" &&
                                         object.property("application.name") == "pw-record" &&
                                         object.state == "running";
                                   }
                                   return recorders == 2;
                                 }),
            "");

  first.stop(SIGTERM, 5s);
  ASSERT_NO_FATAL_FAILURE(addBarrierNode("harkwell_barrier"));
  EXPECT_EQ(UInt32Property(*service_, microphone_, kRunning), 1u) << "the second still records";
  EXPECT_EQ(running.calls().entries(), (std::vector<std::vector<std::uint32_t>>{{1}}));

  second.stop(SIGTERM, 5s);
  ASSERT_TRUE(running.waitForValue({0}));
}

TEST_F(PipeWireServiceTest, MonitorStreamNeverMakesTheMicrophoneRunning) {
  ASSERT_NO_FATAL_FAILURE(startStackAndService());
  PropertyProbe running(*service_, microphone_, kRunning, queue_);
  ASSERT_EQ(running.add(), kNoErr);
  ChildProcess meter;
  ASSERT_EQ(stack_.startRecorder(meter, kMicrophone, "stream.monitor=true"), "");
  // The daemon runs the microphone for the meter; the service still calls it idle.
  ASSERT_NO_FATAL_FAILURE(waitForNodeState(kMicrophone, "running"));
  ASSERT_NO_FATAL_FAILURE(waitForStreamRunning("stream.monitor", "true"));
  ASSERT_NO_FATAL_FAILURE(addBarrierNode("harkwell_barrier"));
  EXPECT_EQ(UInt32Property(*service_, microphone_, kRunning), 0u);
  EXPECT_EQ(running.calls().size(), 0u) << "nothing changed, nothing queued";

  // A real recorder beside the meter does count.
  ChildProcess recorder;
  ASSERT_EQ(stack_.startRecorder(recorder, kMicrophone), "");
  ASSERT_TRUE(running.waitForValue({1}));
  recorder.stop(SIGTERM, 5s);
  ASSERT_TRUE(running.waitForValue({0})) << "the meter alone is left";
}

TEST_F(PipeWireServiceTest, PulseAudioLevelMeterNeverMakesTheMicrophoneRunning) {
  ASSERT_NO_FATAL_FAILURE(startStackAndService());
  PropertyProbe running(*service_, microphone_, kRunning, queue_);
  ASSERT_EQ(running.add(), kNoErr);
  // What a volume control opens through pipewire-pulse: a peak-detecting stream, which reaches
  // the graph as a stream with stream.monitor and resample.peaks.
  PulseTestClient pulse(stack_.pulseAddress());
  ASSERT_TRUE(pulse.isConnected());
  PulseTestClient::RecordingOptions meterOptions;
  meterOptions.levelMeter = true;
  auto meter = pulse.record(kMicrophone, meterOptions);
  ASSERT_NE(meter, nullptr);
  ASSERT_NO_FATAL_FAILURE(waitForNodeState(kMicrophone, "running"));
  ASSERT_NO_FATAL_FAILURE(addBarrierNode("harkwell_barrier"));
  EXPECT_EQ(UInt32Property(*service_, microphone_, kRunning), 0u);
  EXPECT_EQ(running.calls().size(), 0u);
}

TEST_F(PipeWireServiceTest, CorkedPulseAudioStreamRunsTheMicrophoneOnlyWhileUncorked) {
  ASSERT_NO_FATAL_FAILURE(startStackAndService());
  PulseTestClient pulse(stack_.pulseAddress());
  ASSERT_TRUE(pulse.isConnected());
  PulseTestClient::RecordingOptions corkedOptions;
  corkedOptions.startCorked = true;
  auto corked = pulse.record(kMicrophone, corkedOptions);
  ASSERT_NE(corked, nullptr);
  // pipewire-pulse starts a stream opened corked and then pauses it, so the graph may run it for
  // a moment; what counts is the state once the stream is paused, or running.
  const auto streamState = [&](bool running) {
    return [this, running](const PipeWireGraphSnapshot& graph) {
      const PipeWireObject* stream = graph.find("Node", [](const PipeWireObject& node) {
        return node.property("media.class") == "Stream/Input/Audio";
      });
      if (!stream) return false;
      const bool linked = graph.find("Link", [&](const PipeWireObject& link) {
        return link.property("link.input.node") == std::to_string(stream->id);
      }) != nullptr;
      return linked && (stream->state == "running") == running;
    };
  };
  ASSERT_TRUE(corked->setCorked(false));
  ASSERT_EQ(WaitForPipeWireGraph(stack_.remote(), streamState(true)), "");
  ASSERT_NO_FATAL_FAILURE(addBarrierNode("harkwell_barrier"));
  EXPECT_EQ(UInt32Property(*service_, microphone_, kRunning), 1u);

  ASSERT_TRUE(corked->setCorked(true));
  ASSERT_EQ(WaitForPipeWireGraph(stack_.remote(), streamState(false)), "");
  ASSERT_NO_FATAL_FAILURE(addBarrierNode("harkwell_barrier_2"));
  EXPECT_EQ(UInt32Property(*service_, microphone_, kRunning), 0u);
}

TEST_F(PipeWireServiceTest, LoopbackRunsTheMicrophoneOnlyWhileItsOutputIsRecorded) {
  ASSERT_NO_FATAL_FAILURE(startStackAndService());
  PropertyProbe running(*service_, microphone_, kRunning, queue_);
  ASSERT_EQ(running.add(), kNoErr);
  ChildProcess loopback;
  ASSERT_EQ(stack_.startLoopbackSource(loopback, kMicrophone, kFilterOutput, "Harkwell Filter"),
            "");
  // The loopback takes from the microphone all the time...
  ASSERT_NO_FATAL_FAILURE(waitForNodeState(kMicrophone, "running"));
  ASSERT_NO_FATAL_FAILURE(addBarrierNode("harkwell_barrier"));
  // ...but nobody uses what it offers.
  EXPECT_EQ(UInt32Property(*service_, microphone_, kRunning), 0u);
  EXPECT_EQ(running.calls().size(), 0u);
  const auto filter = DeviceWithUID(*service_, kFilterOutput);
  ASSERT_TRUE(filter) << "the filter's output is a device of its own";
  EXPECT_EQ(UInt32Property(*service_, *filter, kRunning), 0u);
  EXPECT_EQ(UInt32Property(*service_, *filter, Global(kAudioDevicePropertyTransportType)),
            kAudioDeviceTransportTypeVirtual);

  {
    ChildProcess recorder;
    ASSERT_EQ(stack_.startRecorder(recorder, kFilterOutput), "");
    ASSERT_TRUE(running.waitForValue({1})) << stack_.output();
    EXPECT_EQ(UInt32Property(*service_, *filter, kRunning), 1u);
  }
  ASSERT_TRUE(running.waitForValue({0}));
  EXPECT_EQ(UInt32Property(*service_, *filter, kRunning), 0u);
}

TEST_F(PipeWireServiceTest, Bluez5NodeIsBluetooth) {
  ASSERT_NO_FATAL_FAILURE(startStackAndService());
  PropertyProbe list(*service_, kAudioObjectSystemObject, kDevices, queue_);
  ASSERT_EQ(list.add(), kNoErr);
  ASSERT_EQ(stack_.createVirtualMicrophone("harkwell_test_headset", "Headset", "device.api=bluez5"),
            "");
  ASSERT_TRUE(list.calls().waitUntil(
      [&](const auto&) { return DeviceWithUID(*service_, "harkwell_test_headset").has_value(); }));
  const ObjectID headset = *DeviceWithUID(*service_, "harkwell_test_headset");
  EXPECT_EQ(UInt32Property(*service_, headset, Global(kAudioDevicePropertyTransportType)),
            kAudioDeviceTransportTypeBluetooth);
}

TEST_F(PipeWireServiceTest, KilledDaemonTakesEveryDeviceAndARestartBringsThemBackWithTheirIDs) {
  ASSERT_NO_FATAL_FAILURE(startStackAndService());
  const std::vector<ObjectID> before = DeviceIDs(*service_);
  ASSERT_EQ(before.size(), 2u);
  PropertyProbe list(*service_, kAudioObjectSystemObject, kDevices, queue_);
  ASSERT_EQ(list.add(), kNoErr);
  LogLines log;

  stack_.killDaemon();
  ASSERT_TRUE(list.waitForValue({}));
  EXPECT_TRUE(DeviceIDs(*service_).empty());

  startStack();
  // The sink comes from the daemon's configuration; the microphone is made again, as a program
  // that made it would.
  ASSERT_EQ(stack_.createVirtualMicrophone(kMicrophone, kMicrophoneDescription), "");
  ASSERT_TRUE(list.waitForValue(before));
  EXPECT_EQ(DeviceIDs(*service_), before) << "devices that come back keep their IDs";
  const std::vector<std::string> texts = log.waitForTexts(2);
  ASSERT_EQ(texts.size(), 2u);
  EXPECT_EQ(texts[0], "PipeWire: lost the daemon (Broken pipe: connection error); reconnecting");
  EXPECT_EQ(texts[1], "PipeWire: connected to the daemon at " + stack_.remote());
}

TEST_F(PipeWireServiceTest, NoDaemonAtStartLogsOneLineAndConnectsWhenOneStarts) {
  LogLines log;
  const auto started = std::chrono::steady_clock::now();
  auto service = makeService();
  ASSERT_TRUE(service);
  EXPECT_LT(std::chrono::steady_clock::now() - started, 2000ms) << "no daemon: no waiting";
  EXPECT_TRUE(DeviceIDs(*service).empty());
  EXPECT_EQ(log.texts(),
            std::vector<std::string>{"PipeWire: no daemon answered at " + stack_.remote() +
                                     " (nothing listens on its socket); devices will "
                                     "appear when one starts"})
      << "written before create() returns";

  PropertyProbe list(*service, kAudioObjectSystemObject, kDevices, queue_);
  ASSERT_EQ(list.add(), kNoErr);
  startStack();
  ASSERT_TRUE(list.calls().waitUntil(
      [](const auto& values) { return !values.empty() && values.back().size() == 1; }));
  EXPECT_EQ(log.waitForTexts(2).back(), "PipeWire: connected to the daemon at " + stack_.remote());
}

TEST_F(PipeWireServiceTest, LogLinesAreWrittenByTheCreatorOrTheLogQueueNeverByPipeWiresThread) {
  LogLines log;
  auto service = makeService();
  ASSERT_TRUE(service);
  PropertyProbe list(*service, kAudioObjectSystemObject, kDevices, queue_);
  ASSERT_EQ(list.add(), kNoErr);
  startStack();
  ASSERT_TRUE(list.calls().waitUntil(
      [](const auto& values) { return !values.empty() && values.back().size() == 1; }));
  stack_.killDaemon();
  ASSERT_TRUE(list.waitForValue({}));

  const std::vector<std::string> texts = log.waitForTexts(3);
  ASSERT_EQ(texts.size(), 3u) << "no daemon, connected, lost";
  const std::vector<LogLines::Line> lines = log.lines();
  EXPECT_EQ(lines[0].thread, std::this_thread::get_id()) << lines[0].text;
  for (const LogLines::Line& line : lines) {
    // libpipewire's loop thread is named this; it holds the loop lock whenever it runs our code.
    EXPECT_NE(line.threadName, "harkwell-pipewi") << line.text;
  }
}

// Nodes and clients that vanish as soon as they appear: the service binds each one as the daemon
// destroys it, and the daemon answers the requests about it with errors that it sends through
// the core. Those concern the object, not the connection.
TEST_F(PipeWireServiceTest, ObjectsVanishingWhileTheyAreBoundLeaveTheConnectionUp) {
  ASSERT_NO_FATAL_FAILURE(startStackAndService());
  LogLines log;
  for (int i = 0; i < 20; ++i) {
    // Without object.linger the node goes with the pw-cli that made it.
    ASSERT_EQ(stack_.runToEnd({"pw-cli", "create-node", "adapter",
                               "{ factory.name=support.null-audio-sink "
                               "media.class=Audio/Source/Virtual node.name=harkwell_fleeting_" +
                                   std::to_string(i) + " }"},
                              "pw-cli-fleeting"),
              "");
  }
  ASSERT_NO_FATAL_FAILURE(addBarrierNode("harkwell_barrier"));
  EXPECT_EQ(log.texts(), std::vector<std::string>{}) << "the connection was never lost";
  EXPECT_EQ(DeviceIDs(*service_).size(), 3u) << "the sink, the microphone and the barrier";
}

TEST_F(PipeWireServiceTest, ListenersNeedAPresentObjectAndRemovedOnesAreNotCalled) {
  ASSERT_NO_FATAL_FAILURE(startStackAndService());
  PropertyProbe absent(*service_, 99999, kRunning, queue_);
  EXPECT_EQ(absent.add(), kAudioHardwareBadObjectError);

  PropertyProbe list(*service_, kAudioObjectSystemObject, kDevices, queue_);
  ASSERT_EQ(list.add(), kNoErr);
  ASSERT_EQ(service_->listenerCount(), 1u);
  EXPECT_EQ(list.remove(), kNoErr) << "a new block around the same closure finds it";
  EXPECT_EQ(service_->listenerCount(), 0u);
  ASSERT_NO_FATAL_FAILURE(addBarrierNode("harkwell_barrier"));
  EXPECT_EQ(list.calls().size(), 0u);
}

TEST_F(PipeWireServiceTest, DefaultServiceIsPipeWireWhenItsDaemonAnswers) {
  ASSERT_NO_FATAL_FAILURE(startStack());
  ASSERT_EQ(stack_.createVirtualMicrophone(kMicrophone, kMicrophoneDescription), "");
  setenv("PIPEWIRE_REMOTE", stack_.remote().c_str(), 1);
  auto service = MakeDefaultAudioHardwareService();
  ASSERT_TRUE(std::dynamic_pointer_cast<PipeWireHardwareService>(service));
  EXPECT_TRUE(DeviceWithUID(*service, kMicrophone));

  // PULSE_SERVER alone names a server someone chose: PulseAudio it is, here through
  // pipewire-pulse, which shows the same microphone under the same UID, and so the same ID.
  unsetenv("PIPEWIRE_REMOTE");
  setenv("PULSE_SERVER", stack_.pulseAddress().c_str(), 1);
  auto pulse = MakeDefaultAudioHardwareService();
  unsetenv("PULSE_SERVER");
  ASSERT_TRUE(std::dynamic_pointer_cast<PulseAudioHardwareService>(pulse));
  ASSERT_TRUE(DeviceWithUID(*pulse, kMicrophone));
  EXPECT_EQ(DeviceWithUID(*pulse, kMicrophone), DeviceWithUID(*service, kMicrophone));
}

TEST_F(PipeWireServiceTest, DefaultServiceIsPulseAudioWhenNoPipeWireDaemonAnswers) {
  setenv("PIPEWIRE_REMOTE", stack_.remote().c_str(), 1);
  auto service = MakeDefaultAudioHardwareService();
  unsetenv("PIPEWIRE_REMOTE");
  EXPECT_TRUE(std::dynamic_pointer_cast<PulseAudioHardwareService>(service));
}

}  // namespace
}  // namespace harkwell
