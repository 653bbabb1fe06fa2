// The PulseAudio service's "running" cases against a real pulseaudio daemon that each test starts
// privately; the same cases run against pipewire-pulse in the PipeWire suites. The cases that only
// the real daemon can play (modules pipewire-pulse does not offer) follow them.
#include "tests/integration/pulseaudio/PulseRunningCases.h"
#include "tests/support/PrivatePulseServer.h"

namespace harkwell::running_cases {
namespace {

using testing::PrivatePulseServer;

// The real daemon, with its null source as the microphone.
class PulseAudioDaemon {
 public:
  static constexpr const char* kLabel = "pulseaudio";

  std::string start() { return server_.start(); }
  std::string restart() {
    server_.kill();
    return server_.start();
  }
  std::string address() const { return server_.address(); }
  std::string microphone() const { return PrivatePulseServer::kNullSourceName; }
  std::map<std::string, std::string> clientEnvironment() const {
    return {{"PULSE_SERVER", address()}, {"HOME", server_.folder() + "/home"}};
  }
  // A null sink that says what PulseAudio's own Bluetooth modules' sinks say of their API.
  std::string addBluetoothDevice(PulseTestClient& client, const std::string& name) {
    return client.loadModule("module-null-sink",
                             "sink_name=" + name + " sink_properties=device.api=bluez5")
               ? ""
               : "module-null-sink was refused";
  }
  std::string addBarrierDevice(PulseTestClient& client, const std::string& name) {
    return client.loadModule("module-null-source", "source_name=" + name)
               ? ""
               : "module-null-source was refused";
  }
  std::string output() const { return server_.output(); }

 private:
  PrivatePulseServer server_;
};

INSTANTIATE_TYPED_TEST_SUITE_P(PulseAudio, PulseRunningTest, PulseAudioDaemon);

using PulseAudioOnlyRunningTest = PulseRunningTest<PulseAudioDaemon>;

TEST_F(PulseAudioOnlyRunningTest, AVirtualSourceMakesTheMicrophoneRunningOnlyWhileItIsRecorded) {
  // module-virtual-source keeps recording its master whether or not anyone records from it (the
  // daemon runs without suspend-on-idle): the server calls the microphone RUNNING all along.
  PropertyProbe running(*service_, microphone_, kRunning, queue_);
  ASSERT_EQ(running.add(), kNoErr);
  ASSERT_TRUE(client().loadModule("module-virtual-source",
                                  "master=" + server_.microphone() + " source_name=virtual_mic"));
  ASSERT_TRUE(waitForServerState(server_.microphone(), "RUNNING"));
  settle("barrier_virtual");
  EXPECT_EQ(running.calls().size(), 0u);
  EXPECT_EQ(microphoneRunning(), 0u);

  ChildProcess parecord;
  ASSERT_EQ(startParecord(parecord, "virtual_mic"), "");
  ASSERT_TRUE(running.waitForValue({1}));
  parecord.stop(SIGTERM, std::chrono::seconds(5));
  ASSERT_TRUE(running.waitForValue({0}));
}

// The daemon makes a new stream whole before it answers, so when one recording takes over from
// another it announces the new stream and the old one's end in one burst, and the service hears of
// the end while the new stream's details are still on their way. (pipewire-pulse announces a
// stream only once the session manager has linked it, after the old one's end: there the
// microphone really is idle for that moment.)
TEST_F(PulseAudioOnlyRunningTest, ARecorderTakingOverFromAnotherNeverShowsTheMicrophoneIdle) {
  PropertyProbe running(*service_, microphone_, kRunning, queue_);
  ASSERT_EQ(running.add(), kNoErr);
  auto first = client().record(server_.microphone());
  ASSERT_TRUE(first);
  ASSERT_TRUE(running.waitForValue({1}));
  const std::size_t callsBefore = running.calls().size();

  auto second = client().replace(std::move(first), server_.microphone());
  ASSERT_TRUE(second);
  ASSERT_TRUE(waitForRecordings(server_.microphone(), 1));
  settle("barrier_handover");
  EXPECT_EQ(microphoneRunning(), 1u);
  EXPECT_EQ(running.calls().size(), callsBefore) << "the microphone never stopped running";

  second.reset();
  ASSERT_TRUE(running.waitForValue({0}));
}

TEST_F(PulseAudioOnlyRunningTest, ALoopbackIntoASinkWithoutHardwareUsesNeither) {
  ASSERT_TRUE(client().loadModule("module-loopback",
                                  "source=" + server_.microphone() + " sink=" + kNullSink));
  ASSERT_TRUE(waitForServerState(server_.microphone(), "RUNNING"));
  settle("barrier_loopback");
  EXPECT_EQ(microphoneRunning(), 0u);
  const auto sink = DeviceWithUID(*service_, kNullSink);
  ASSERT_TRUE(sink);
  EXPECT_EQ(UInt32Property(*service_, *sink, kRunning), 0u) << "the null microphone plays nothing";
}

}  // namespace
}  // namespace harkwell::running_cases
