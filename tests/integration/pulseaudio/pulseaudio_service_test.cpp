// The PulseAudio service against a real pulseaudio daemon that each test starts on a private
// socket: start-up, devices coming and going, running state, server faults, and listeners.
#include <gtest/gtest.h>
#include <pthread.h>
#include <stdlib.h>

#include <chrono>
#include <future>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/Linux/PulseAudio/PulseAudioHardwareService.h"
#include "HarkwellFoundation/Platform/PlatformString.h"
#include "HarkwellFoundation/Platform/SystemLog.h"
#include "tests/support/AudioServiceReads.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/PrivatePulseServer.h"
#include "tests/support/PulseTestClient.h"
#include "tests/support/Waiting.h"

namespace harkwell {
namespace {

using namespace std::chrono_literals;
using testing::ChildProcess;
using testing::DrainQueue;
using testing::PrivatePulseServer;
using testing::PulseTestClient;
using testing::Recorder;

using testing::DeviceIDs;
using testing::DeviceWithUID;
using testing::Global;
using testing::Input;
using testing::kDevices;
using testing::kRunning;
using testing::LogLines;
using testing::Output;
using testing::PropertyProbe;
using testing::SizeOf;
using testing::StringProperty;
using testing::UInt32Property;

class PulseAudioServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!PrivatePulseServer::isInstalled()) {
      FAIL() << "the pulseaudio program is not installed (Debian package pulseaudio)";
    }
  }

  void startServer() {
    const std::string error = server_.start();
    ASSERT_EQ(error, "");
  }

  std::shared_ptr<PulseAudioHardwareService> makeService(
      std::chrono::milliseconds startupTimeout = 2000ms) {
    PulseAudioHardwareService::Options options;
    options.server = server_.address();
    options.startupTimeout = startupTimeout;
    return PulseAudioHardwareService::create(options);
  }

  // Starts the daemon and a service connected to it, and finds the null source.
  void startServerAndService() {
    startServer();
    ASSERT_FALSE(HasFatalFailure());
    service_ = makeService();
    ASSERT_TRUE(service_);
    const auto source = DeviceWithUID(*service_, PrivatePulseServer::kNullSourceName);
    ASSERT_TRUE(source);
    nullSource_ = *source;
  }

  PulseTestClient& client() {
    if (!client_) client_ = std::make_unique<PulseTestClient>(server_.address());
    return *client_;
  }

  // Loads a null source, and waits until the service lists it, its notifications queued on
  // `queue` before the call returns. Everything the server did before is then visible too: the
  // server reports changes in order, and the service applies them in order.
  void loadBarrierSource(AudioHardwareService& service, const std::shared_ptr<DispatchQueue>& queue,
                         const std::string& name) {
    PropertyProbe list(service, kAudioObjectSystemObject, kDevices, queue);
    ASSERT_EQ(list.add(), kNoErr);
    ASSERT_TRUE(client().loadModule("module-null-source", "source_name=" + name));
    ASSERT_TRUE(list.calls().waitUntil(
        [&](const auto&) { return DeviceWithUID(service, name).has_value(); }));
    DrainQueue(queue);
  }

  PrivatePulseServer server_;
  std::shared_ptr<PulseAudioHardwareService> service_;
  ObjectID nullSource_ = 0;
  std::unique_ptr<PulseTestClient> client_;
  std::shared_ptr<DispatchQueue> queue_ = DispatchQueue::createSerial("test.pulseaudio");
};

TEST_F(PulseAudioServiceTest, DevicesPresentAtStartAreListedByTheFirstRead) {
  ASSERT_NO_FATAL_FAILURE(startServerAndService());

  // Read at once: creating the service waited for the server's whole state.
  const std::vector<ObjectID> ids = DeviceIDs(*service_);
  ASSERT_EQ(ids.size(), 2u) << "the null sink's monitor is not a device";
  const auto sink = DeviceWithUID(*service_, PrivatePulseServer::kNullSinkName);
  ASSERT_TRUE(sink);

  EXPECT_EQ(StringProperty(*service_, nullSource_, kAudioObjectPropertyName),
            PrivatePulseServer::kNullSourceDescription);
  EXPECT_EQ(StringProperty(*service_, *sink, kAudioObjectPropertyName),
            PrivatePulseServer::kNullSinkDescription);
  EXPECT_EQ(StringProperty(*service_, nullSource_, kAudioDevicePropertyModelUID), std::nullopt);
  EXPECT_EQ(UInt32Property(*service_, nullSource_, Global(kAudioDevicePropertyTransportType)),
            kAudioDeviceTransportTypeVirtual);
  EXPECT_EQ(UInt32Property(*service_, *sink, Global(kAudioDevicePropertyTransportType)),
            kAudioDeviceTransportTypeVirtual);
  EXPECT_EQ(SizeOf(*service_, nullSource_, Input(kAudioDevicePropertyStreams)), 4u);
  EXPECT_EQ(SizeOf(*service_, nullSource_, Output(kAudioDevicePropertyStreams)), 0u);
  EXPECT_EQ(SizeOf(*service_, *sink, Input(kAudioDevicePropertyStreams)), 0u);
  EXPECT_EQ(SizeOf(*service_, *sink, Output(kAudioDevicePropertyStreams)), 4u);
  EXPECT_EQ(UInt32Property(*service_, nullSource_, kRunning), 0u);
  EXPECT_FALSE(service_->hasProperty(nullSource_, Input(kAudioDevicePropertyDataSource)));
  EXPECT_EQ(UInt32Property(*service_, nullSource_, Global(kAudioDevicePropertyHogMode)),
            std::nullopt);
  std::uint32_t size = 4;
  std::int32_t owner = 0;
  EXPECT_EQ(service_->getPropertyData(nullSource_, Global(kAudioDevicePropertyHogMode), 0, nullptr,
                                      &size, &owner),
            kAudioHardwareUnknownPropertyError);
}

TEST_F(PulseAudioServiceTest, NoServerAtStartLogsOneLineAndConnectsWhenOneStarts) {
  LogLines log;
  const auto started = std::chrono::steady_clock::now();
  auto service = makeService();
  ASSERT_TRUE(service);
  EXPECT_LT(std::chrono::steady_clock::now() - started, 2000ms) << "no server: no waiting";
  EXPECT_TRUE(DeviceIDs(*service).empty());
  EXPECT_EQ(
      log.texts(),
      std::vector<std::string>{"PulseAudio: no server answered (Connection refused); devices will "
                               "appear when one starts"})
      << "written before create() returns";

  PropertyProbe list(*service, kAudioObjectSystemObject, kDevices, queue_);
  ASSERT_EQ(list.add(), kNoErr);
  startServer();
  ASSERT_TRUE(list.calls().waitUntil(
      [](const auto& values) { return !values.empty() && values.back().size() == 2; }));
  EXPECT_EQ(
      log.waitForTexts(2),
      (std::vector<std::string>{"PulseAudio: no server answered (Connection refused); "
                                "devices will appear when one starts",
                                "PulseAudio: connected to the server at " + server_.address()}));
}

TEST_F(PulseAudioServiceTest, StartupWaitIsBoundedWhenTheServerDoesNotAnswer) {
  startServer();
  server_.pause();
  LogLines log;
  const auto started = std::chrono::steady_clock::now();
  auto service = makeService(300ms);
  const auto waited = std::chrono::steady_clock::now() - started;
  ASSERT_TRUE(service);
  EXPECT_GE(waited, 300ms);
  EXPECT_LT(waited, 2000ms);
  EXPECT_TRUE(DeviceIDs(*service).empty());
  EXPECT_EQ(log.texts(),
            std::vector<std::string>{
                "PulseAudio: the server did not answer within 300 ms; devices will appear when "
                "it does"})
      << "written before create() returns";

  PropertyProbe list(*service, kAudioObjectSystemObject, kDevices, queue_);
  ASSERT_EQ(list.add(), kNoErr);
  server_.resume();
  ASSERT_TRUE(list.calls().waitUntil(
      [](const auto& values) { return !values.empty() && values.back().size() == 2; }));
  const std::vector<std::string> texts = log.waitForTexts(2);
  ASSERT_EQ(texts.size(), 2u);
  EXPECT_EQ(texts.back(), "PulseAudio: connected to the server at " + server_.address());
}

TEST_F(PulseAudioServiceTest, ReadsAnswerFromTheMirrorWhileTheServerHangs) {
  ASSERT_NO_FATAL_FAILURE(startServerAndService());
  server_.pause();
  auto reads = std::async(std::launch::async, [&] {
    const auto source = DeviceWithUID(*service_, PrivatePulseServer::kNullSourceName);
    return source && UInt32Property(*service_, nullSource_, kRunning) == 0u;
  });
  ASSERT_EQ(reads.wait_for(5s), std::future_status::ready) << "a read waited for the server";
  EXPECT_TRUE(reads.get());
  server_.resume();
}

TEST_F(PulseAudioServiceTest, LoadingANullSourceAddsADeviceBeforeTheListenerRuns) {
  ASSERT_NO_FATAL_FAILURE(startServerAndService());
  const std::vector<ObjectID> before = DeviceIDs(*service_);
  PropertyProbe list(*service_, kAudioObjectSystemObject, kDevices, queue_);
  ASSERT_EQ(list.add(), kNoErr);

  ASSERT_TRUE(
      client().loadModule("module-null-source", "source_name=extra_source description=Extra"));

  ASSERT_TRUE(list.calls().waitForCount(1));
  const std::vector<std::uint32_t> seenByListener = list.calls().entries()[0];
  ASSERT_EQ(seenByListener.size(), before.size() + 1);
  const auto added = DeviceWithUID(*service_, "extra_source");
  ASSERT_TRUE(added);
  EXPECT_EQ(seenByListener.back(), *added);
  EXPECT_EQ(StringProperty(*service_, *added, kAudioObjectPropertyName), "Extra");
}

TEST_F(PulseAudioServiceTest, UnloadingTheModuleRemovesTheDevice) {
  ASSERT_NO_FATAL_FAILURE(startServerAndService());
  const auto module = client().loadModule("module-null-source", "source_name=extra_source");
  ASSERT_TRUE(module);
  PropertyProbe list(*service_, kAudioObjectSystemObject, kDevices, queue_);
  ASSERT_EQ(list.add(), kNoErr);
  ASSERT_TRUE(list.calls().waitUntil(
      [&](const auto&) { return DeviceWithUID(*service_, "extra_source").has_value(); }));
  const ObjectID extra = *DeviceWithUID(*service_, "extra_source");
  list.calls().clear();

  ASSERT_TRUE(client().unloadModule(*module));

  ASSERT_TRUE(list.calls().waitUntil(
      [&](const auto& values) { return !values.empty() && values.back().size() == 2; }));
  EXPECT_FALSE(DeviceWithUID(*service_, "extra_source"));
  std::uint32_t size = 0;
  EXPECT_EQ(
      service_->getPropertyDataSize(extra, Global(kAudioObjectPropertyName), 0, nullptr, &size),
      kAudioHardwareBadObjectError);
  EXPECT_FALSE(service_->hasProperty(extra, Global(kAudioObjectPropertyName)));
}

TEST_F(PulseAudioServiceTest, RecordingStreamMakesTheSourceRunningUntilItCloses) {
  ASSERT_NO_FATAL_FAILURE(startServerAndService());
  PropertyProbe running(*service_, nullSource_, kRunning, queue_);
  ASSERT_EQ(running.add(), kNoErr);

  auto recording = client().record(PrivatePulseServer::kNullSourceName);
  ASSERT_TRUE(recording);
  ASSERT_TRUE(running.waitForValue({1}));
  EXPECT_EQ(UInt32Property(*service_, nullSource_, kRunning), 1u);

  recording.reset();
  ASSERT_TRUE(running.waitForValue({0}));
  EXPECT_EQ(UInt32Property(*service_, nullSource_, kRunning), 0u);
}

TEST_F(PulseAudioServiceTest, ParecordMakesTheSourceRunningUntilItExits) {
  if (!ChildProcess::findProgram("parecord")) {
    FAIL() << "parecord is not installed (Debian package pulseaudio-utils)";
  }
  ASSERT_NO_FATAL_FAILURE(startServerAndService());
  PropertyProbe running(*service_, nullSource_, kRunning, queue_);
  ASSERT_EQ(running.add(), kNoErr);

  ChildProcess parecord;
  const std::string error = server_.startRecorder(parecord, PrivatePulseServer::kNullSourceName);
  ASSERT_EQ(error, "");
  ASSERT_TRUE(running.waitForValue({1}));

  parecord.stop(SIGTERM, 5s);
  ASSERT_TRUE(running.waitForValue({0}));
}

TEST_F(PulseAudioServiceTest, LevelMetersAndCorkedStreamsDoNotMakeTheSourceRunning) {
  ASSERT_NO_FATAL_FAILURE(startServerAndService());
  PropertyProbe running(*service_, nullSource_, kRunning, queue_);
  ASSERT_EQ(running.add(), kNoErr);

  auto meter = client().record(PrivatePulseServer::kNullSourceName, {.levelMeter = true});
  auto corked = client().record(PrivatePulseServer::kNullSourceName, {.startCorked = true});
  ASSERT_TRUE(meter && corked);
  // The server itself calls the source running: the meter's stream is live.
  EXPECT_EQ(client().sourceState(PrivatePulseServer::kNullSourceName), "RUNNING");
  loadBarrierSource(*service_, queue_, "barrier_source");

  EXPECT_EQ(running.calls().size(), 0u);
  EXPECT_EQ(UInt32Property(*service_, nullSource_, kRunning), 0u);

  // Uncorking the other stream is a real recording.
  ASSERT_TRUE(corked->setCorked(false));
  ASSERT_TRUE(running.waitForValue({1}));
}

TEST_F(PulseAudioServiceTest, SuspendingAnIdleSourceIsNoRunningChange) {
  ASSERT_NO_FATAL_FAILURE(startServerAndService());
  PropertyProbe running(*service_, nullSource_, kRunning, queue_);
  ASSERT_EQ(running.add(), kNoErr);
  ASSERT_EQ(client().sourceState(PrivatePulseServer::kNullSourceName), "IDLE");

  ASSERT_TRUE(client().suspendSource(PrivatePulseServer::kNullSourceName, true));
  ASSERT_EQ(client().sourceState(PrivatePulseServer::kNullSourceName), "SUSPENDED");
  loadBarrierSource(*service_, queue_, "barrier_source");

  EXPECT_EQ(running.calls().size(), 0u);
}

TEST_F(PulseAudioServiceTest, KilledServerTakesEveryDeviceAndARestartBringsThemBack) {
  ASSERT_NO_FATAL_FAILURE(startServerAndService());
  const std::vector<ObjectID> before = DeviceIDs(*service_);
  ASSERT_EQ(before.size(), 2u);
  PropertyProbe list(*service_, kAudioObjectSystemObject, kDevices, queue_);
  ASSERT_EQ(list.add(), kNoErr);
  LogLines log;

  server_.kill();
  ASSERT_TRUE(list.waitForValue({}));
  EXPECT_TRUE(DeviceIDs(*service_).empty());

  startServer();
  ASSERT_TRUE(list.waitForValue(before));
  EXPECT_EQ(DeviceIDs(*service_), before) << "devices that come back keep their IDs";
  EXPECT_EQ(
      log.waitForTexts(2),
      (std::vector<std::string>{"PulseAudio: lost the server (Connection terminated); reconnecting",
                                "PulseAudio: connected to the server at " + server_.address()}));
}

TEST_F(PulseAudioServiceTest, LogLinesAreWrittenByTheCreatorOrTheLogQueueNeverByLibpulsesThread) {
  LogLines log;
  auto service = makeService();
  ASSERT_TRUE(service);
  PropertyProbe list(*service, kAudioObjectSystemObject, kDevices, queue_);
  ASSERT_EQ(list.add(), kNoErr);
  startServer();
  ASSERT_TRUE(list.calls().waitUntil(
      [](const auto& values) { return !values.empty() && values.back().size() == 2; }));
  server_.kill();
  ASSERT_TRUE(list.waitForValue({}));

  const std::vector<std::string> texts = log.waitForTexts(3);
  ASSERT_EQ(texts.size(), 3u) << "no server, connected, lost";
  const std::vector<LogLines::Line> lines = log.lines();
  EXPECT_EQ(lines[0].thread, std::this_thread::get_id()) << lines[0].text;
  for (const LogLines::Line& line : lines) {
    // libpulse's loop thread is named this; it holds libpulse's lock whenever it runs our code.
    EXPECT_NE(line.threadName, "harkwell-pulse") << line.text;
  }
}

TEST_F(PulseAudioServiceTest, ALogSinkMayWaitForAnotherThreadToDestroyTheService) {
  ASSERT_NO_FATAL_FAILURE(startServerAndService());
  // Destroying the service takes libpulse's lock: a sink called with that lock held would wait
  // for the destroying thread while that thread waits for the lock.
  Recorder<bool> destroyed;
  LogSink previous = InstallLogSink([&](std::string_view line) {
    if (!line.starts_with("PulseAudio: lost the server")) return;
    auto destroying = std::async(std::launch::async, [&] { service_.reset(); });
    destroyed.append(destroying.wait_for(testing::kDefaultDeadline) == std::future_status::ready);
  });

  server_.kill();
  const bool called = destroyed.waitForCount(1, 2 * testing::kDefaultDeadline);
  InstallLogSink(std::move(previous));
  ASSERT_TRUE(called) << "the sink was not called";
  EXPECT_EQ(destroyed.entries(), std::vector<bool>{true}) << "the destroying thread was stuck";
  EXPECT_FALSE(service_);
}

TEST_F(PulseAudioServiceTest, RemovedListenerIsNotCalled) {
  ASSERT_NO_FATAL_FAILURE(startServerAndService());
  PropertyProbe list(*service_, kAudioObjectSystemObject, kDevices, queue_);
  ASSERT_EQ(list.add(), kNoErr);
  ASSERT_EQ(service_->listenerCount(), 1u);
  EXPECT_EQ(list.remove(), kNoErr) << "a new block around the same closure finds it";
  EXPECT_EQ(service_->listenerCount(), 0u);

  loadBarrierSource(*service_, queue_, "barrier_source");
  EXPECT_EQ(list.calls().size(), 0u);
}

TEST_F(PulseAudioServiceTest, ListenersNeedAPresentObject) {
  ASSERT_NO_FATAL_FAILURE(startServerAndService());
  PropertyProbe absent(*service_, 99999, kRunning, queue_);
  EXPECT_EQ(absent.add(), kAudioHardwareBadObjectError);
  auto closure =
      std::make_shared<const PropertyListener>([](std::uint32_t, const PropertyAddress*) {});
  EXPECT_EQ(service_->removePropertyListenerBlock(99999, kRunning, queue_,
                                                  PlatformListenerBlock::copy(closure)),
            kAudioHardwareBadObjectError);
  EXPECT_EQ(service_->removePropertyListenerBlock(kAudioObjectSystemObject, kDevices, queue_,
                                                  PlatformListenerBlock::copy(closure)),
            kAudioHardwareIllegalOperationError);
}

TEST_F(PulseAudioServiceTest, DefaultServiceFindsTheServerThroughPulseServer) {
  startServer();
  setenv("PULSE_SERVER", server_.address().c_str(), 1);
  auto service = MakeDefaultAudioHardwareService();
  unsetenv("PULSE_SERVER");
  ASSERT_TRUE(std::dynamic_pointer_cast<PulseAudioHardwareService>(service));
  EXPECT_EQ(DeviceIDs(*service).size(), 2u);
  EXPECT_TRUE(DeviceWithUID(*service, PrivatePulseServer::kNullSourceName));
}

}  // namespace
}  // namespace harkwell
