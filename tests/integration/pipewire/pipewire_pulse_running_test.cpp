// The PulseAudio service through pipewire-pulse, against a private PipeWire stack that each test
// starts: the same "running" cases as against the real pulseaudio daemon, then the ones only
// PipeWire's own clients can play (pw-record, a stream.monitor meter, pw-loopback, pw-cli nodes).
#include "tests/integration/pulseaudio/PulseRunningCases.h"
#include "tests/support/PrivatePipeWireStack.h"

namespace harkwell::running_cases {
namespace {

using testing::PrivatePipeWireStack;

constexpr const char* kMicrophone = "harkwell_test_mic";

// A PipeWire stack with a virtual microphone made by pw-cli, reached through pipewire-pulse.
class PipeWirePulseStack {
 public:
  static constexpr const char* kLabel = "pipewire-pulse";

  std::string start() {
    if (const std::string missing = PrivatePipeWireStack::missingPrograms(); !missing.empty()) {
      return "missing programs: " + missing;
    }
    if (std::string error = stack_.start(); !error.empty()) return error;
    return stack_.createVirtualMicrophone(kMicrophone, "Harkwell Test Microphone");
  }
  std::string restart() {
    stack_.killDaemon();
    // The microphone lived in the daemon: it is made again, as a session would.
    return start();
  }
  std::string address() const { return stack_.pulseAddress(); }
  std::string microphone() const { return kMicrophone; }
  std::map<std::string, std::string> clientEnvironment() const {
    return stack_.clientEnvironment();
  }
  std::string addBluetoothDevice(PulseTestClient&, const std::string& name) {
    return stack_.createVirtualMicrophone(name, "Bluetooth Headset", "device.api=bluez5");
  }
  std::string addBarrierDevice(PulseTestClient&, const std::string& name) {
    return stack_.createVirtualMicrophone(name, "Barrier");
  }
  std::string output() const { return stack_.output(); }
  PrivatePipeWireStack& stack() { return stack_; }

 private:
  PrivatePipeWireStack stack_;
};

INSTANTIATE_TYPED_TEST_SUITE_P(PipeWirePulse, PulseRunningTest, PipeWirePulseStack);

using PipeWirePulseRunningTest = PulseRunningTest<PipeWirePulseStack>;

TEST_F(PipeWirePulseRunningTest, PwRecordMakesTheMicrophoneRunningAndStoppingMakesItIdle) {
  PropertyProbe running(*service_, microphone_, kRunning, queue_);
  ASSERT_EQ(running.add(), kNoErr);
  ChildProcess recorder;
  ASSERT_EQ(server_.stack().startRecorder(recorder, kMicrophone), "");
  ASSERT_TRUE(running.waitForValue({1})) << server_.output();
  recorder.stop(SIGTERM, std::chrono::seconds(5));
  ASSERT_TRUE(running.waitForValue({0}));
}

TEST_F(PipeWirePulseRunningTest, APipeWireMonitorStreamNeverMakesTheMicrophoneRunning) {
  // What PipeWire's own volume controls open: a stream marked stream.monitor=true.
  PropertyProbe running(*service_, microphone_, kRunning, queue_);
  ASSERT_EQ(running.add(), kNoErr);
  ChildProcess meter;
  ASSERT_EQ(server_.stack().startRecorder(meter, kMicrophone, "stream.monitor=true"), "");
  ASSERT_TRUE(waitForServerState(kMicrophone, "RUNNING")) << server_.output();
  settle("barrier_monitor");
  EXPECT_EQ(running.calls().size(), 0u);
  EXPECT_EQ(microphoneRunning(), 0u);
}

TEST_F(PipeWirePulseRunningTest, APwLoopbackSourceMakesTheMicrophoneRunningOnlyWhileItIsRecorded) {
  PropertyProbe running(*service_, microphone_, kRunning, queue_);
  ASSERT_EQ(running.add(), kNoErr);
  ChildProcess loopback;
  ASSERT_EQ(server_.stack().startLoopbackSource(loopback, kMicrophone, "harkwell_filter", "Filter"),
            "");
  settle("barrier_loopback");
  ASSERT_TRUE(DeviceWithUID(*service_, "harkwell_filter"));
  EXPECT_EQ(running.calls().size(), 0u) << "a filter that feeds nobody uses nothing";
  EXPECT_EQ(microphoneRunning(), 0u);

  ChildProcess parecord;
  ASSERT_EQ(startParecord(parecord, "harkwell_filter"), "");
  ASSERT_TRUE(running.waitForValue({1})) << server_.output();
  parecord.stop(SIGTERM, std::chrono::seconds(5));
  ASSERT_TRUE(running.waitForValue({0}));
}

TEST_F(PipeWirePulseRunningTest, AMicrophoneMadeWithPwCliComesAndGoes) {
  PropertyProbe list(*service_, kAudioObjectSystemObject, kDevices, queue_);
  ASSERT_EQ(list.add(), kNoErr);
  ASSERT_EQ(server_.stack().createVirtualMicrophone("harkwell_second_mic", "Second"), "");
  ASSERT_TRUE(list.calls().waitUntil(
      [&](const auto&) { return DeviceWithUID(*service_, "harkwell_second_mic").has_value(); }));
  const ObjectID second = *DeviceWithUID(*service_, "harkwell_second_mic");
  EXPECT_EQ(second, StableDeviceIDHome(StableIDSpace::Audio, "harkwell_second_mic"));

  ASSERT_EQ(server_.stack().destroyNode("harkwell_second_mic"), "");
  ASSERT_TRUE(list.calls().waitUntil([&](const auto& values) {
    return !values.empty() &&
           std::find(values.back().begin(), values.back().end(), second) == values.back().end();
  }));
  EXPECT_FALSE(DeviceWithUID(*service_, "harkwell_second_mic"));
}

}  // namespace
}  // namespace harkwell::running_cases
