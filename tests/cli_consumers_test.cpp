// What the harkwell program prints about who uses a device: the texts and JSON of one consumer,
// and, on the simulated services, the `list` table and JSON and the `watch` lines for every kind
// of consumer (application, level meter, monitor, filter with what it feeds, media server).
#include <gtest/gtest.h>
#include <unistd.h>

#include "HarkwellFoundation/Controller/MediaDeviceController.h"
#include "HarkwellFoundation/Platform/AudioHardwareConstants.h"
#include "HarkwellFoundation/Platform/VideoHardwareConstants.h"
#include "tests/support/SimulatedServicesFixture.h"
#include "tools/harkwell/Commands.h"
#include "tools/harkwell/ConsumerJson.h"
#include "tools/harkwell/ConsumerText.h"
#include "tools/harkwell/DeviceTable.h"
#include "tools/harkwell/LineWriter.h"
#include "tools/harkwell/MainLoopWait.h"
#include "tools/harkwell/WatchPrinter.h"

namespace harkwell::cli {
namespace {

using namespace std::chrono_literals;
using Kind = MediaDeviceConsumerKind;
using Sandbox = MediaDeviceConsumerSandbox;

// 2026-11-22T01:52:20.123456Z
const auto kSomeTime = std::chrono::system_clock::time_point(1795312340123456us);

MediaDeviceConsumer Recorder() {
  return {.processID = 4242,
          .isProcessIDVerified = true,
          .executablePath = "/usr/bin/arecord",
          .processName = "arecord",
          .applicationName = "Voice Recorder"};
}

MediaDeviceConsumer Meter() {
  return {.processID = 900,
          .isProcessIDVerified = true,
          .processName = "pavucontrol",
          .applicationName = "Volume Control",
          .kind = Kind::LevelMeter};
}

MediaDeviceConsumer EchoCanceller() {
  return {.processID = 17,
          .isProcessIDVerified = true,
          .executablePath = "/usr/bin/pipewire",
          .processName = "pipewire",
          .applicationName = "Echo-Cancel Source",
          .kind = Kind::Filter,
          .feeds = {{.processID = 5120,
                     .applicationName = "Meeting",
                     .applicationID = "org.example.Meeting",
                     .sandbox = Sandbox::Flatpak,
                     .sandboxApplicationID = "org.example.Meeting"}}};
}

MediaDeviceConsumer SpeakerCapture() {
  return {.processID = 3001,
          .isProcessIDVerified = true,
          .executablePath = "/usr/bin/obs",
          .processName = "obs",
          .kind = Kind::Monitor};
}

// A media server holding the camera, serving a snap; and a process that had gone before its
// details were read, known only by its ID.
MediaDeviceConsumer CameraServer() {
  return {.processID = 1200,
          .isProcessIDVerified = true,
          .executablePath = "/usr/bin/pipewire",
          .processName = "pipewire",
          .kind = Kind::MediaServer,
          .feeds = {{.processID = 1300,
                     .isProcessIDVerified = true,
                     .executablePath = "/snap/cheese/12/usr/bin/cheese",
                     .processName = "cheese",
                     .applicationName = "Cheese",
                     .sandbox = Sandbox::Snap,
                     .sandboxApplicationID = "cheese"}}};
}
MediaDeviceConsumer Gone() {
  return {.processID = 6000, .isProcessIDVerified = true};
}

// --- One consumer --------------------------------------------------------------------------------

TEST(ConsumerText, NamesTheApplicationThenTheProcessThenTheExecutable) {
  EXPECT_EQ(ConsumerDisplayName(Recorder()), "Voice Recorder");
  EXPECT_EQ(ConsumerDisplayName({.processName = "arecord"}), "arecord");
  EXPECT_EQ(ConsumerDisplayName({.processName = "arecord", .applicationName = ""}), "arecord")
      << "an empty announced name says nothing";
  EXPECT_EQ(ConsumerDisplayName({.executablePath = "/usr/bin/arecord"}), "/usr/bin/arecord");
  EXPECT_EQ(ConsumerDisplayName(Gone()), "unknown process");
}

TEST(ConsumerText, SaysWhetherTheProcessIDWasVerified) {
  EXPECT_EQ(ConsumerProcessText(Recorder()), "pid 4242");
  EXPECT_EQ(ConsumerProcessText({.processID = 5120}), "claimed pid 5120");
  EXPECT_EQ(ConsumerProcessText({}), "pid unknown");
}

TEST(ConsumerText, EscapesWhatTheConsumerAnnounced) {
  const MediaDeviceConsumer liar{.processID = 1,
                                 .executablePath = "/tmp/a\x1b]0;x\x07",
                                 .applicationName = "Rec\xe2\x80\xaeorder",
                                 .sandbox = Sandbox::Flatpak,
                                 .sandboxApplicationID = "id\n"};
  EXPECT_EQ(ConsumerDisplayName(liar), "Rec\\u202Eorder");
  const auto lines = ConsumerTableLines({{liar}}, 0);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0],
            "Rec\\u202Eorder  claimed pid 1  Application  /tmp/a\\e]0;x\\x07  Flatpak id\\n\n");
  EXPECT_EQ(ConsumersSummary({liar}), "used by Rec\\u202Eorder (claimed pid 1)");
}

TEST(ConsumerText, SummaryNamesKindsBesideApplicationsAndWhatFiltersFeed) {
  EXPECT_EQ(ConsumersSummary({}), "used by nobody");
  EXPECT_EQ(ConsumersSummary(
                {Recorder(), Meter(), EchoCanceller(), SpeakerCapture(), CameraServer(), Gone()}),
            "used by Voice Recorder (pid 4242), Volume Control (pid 900, LevelMeter), "
            "Echo-Cancel Source (pid 17, Filter) -> [Meeting (claimed pid 5120)], "
            "obs (pid 3001, Monitor), pipewire (pid 1200, MediaServer) -> [Cheese (pid 1300)], "
            "unknown process (pid 6000)");
  const MediaDeviceConsumer twoFeeds{
      .processID = 17, .kind = Kind::Filter, .feeds = {Recorder(), {.processID = 2}}};
  EXPECT_EQ(ConsumersSummary({twoFeeds}),
            "used by unknown process (claimed pid 17, Filter) -> [Voice Recorder (pid 4242), "
            "unknown process (claimed pid 2)]");
}

TEST(ConsumerJson, HasEveryFieldInItsOrderUnderItsName) {
  EXPECT_EQ(
      DumpLine(ConsumerToJson(EchoCanceller())),
      R"({"processID":17,"isProcessIDVerified":true,"executablePath":"/usr/bin/pipewire",)"
      R"("processName":"pipewire","applicationName":"Echo-Cancel Source","applicationID":null,)"
      R"("sandbox":"None","sandboxApplicationID":null,"kind":"Filter","feeds":[)"
      R"({"processID":5120,"isProcessIDVerified":false,"executablePath":null,"processName":null,)"
      R"("applicationName":"Meeting","applicationID":"org.example.Meeting","sandbox":"Flatpak",)"
      R"("sandboxApplicationID":"org.example.Meeting","kind":"Application","feeds":[]}]})");
}

TEST(ConsumerJson, ADeviceNobodyUsesIsListedAsBefore) {
  const MediaDevice device{.deviceID = 5, .deviceUID = "m", .name = "M"};
  EXPECT_EQ(ListedDeviceToJson(device, {}), DeviceToJson(device));
  const Json used = ListedDeviceToJson(device, {Gone()});
  EXPECT_EQ(used.size(), 13u);
  EXPECT_EQ(used["consumers"], ConsumersToJson({Gone()}));
}

// --- Through the program's output on the simulated services --------------------------------------

class ConsumersOutputTest : public testing::SimulatedServicesTest {
 protected:
  void SetUp() override {
    SimulatedServicesTest::SetUp();
    audio->addDevice({.deviceID = 100,
                      .name = "USB Microphone",
                      .deviceUID = "usb-mic",
                      .modelUID = "0d8c:0014",
                      .transportType = kAudioDeviceTransportTypeUSB,
                      .inputStreamCount = 1,
                      .isRunning = true,
                      .consumers = {Recorder(), Meter(), EchoCanceller()}});
    audio->addDevice({.deviceID = 102,
                      .name = "Speakers",
                      .deviceUID = "speakers",
                      .modelUID = "builtin:speakers",
                      .transportType = kAudioDeviceTransportTypeBuiltIn,
                      .inputStreamCount = 0,
                      .outputStreamCount = 1,
                      .consumers = {SpeakerCapture()}});
    audio->addDevice({.deviceID = 104,
                      .name = "Line In",
                      .deviceUID = "line-in",
                      .modelUID = "builtin:line",
                      .transportType = kAudioDeviceTransportTypeBuiltIn});
    video->addDevice({.deviceID = 200,
                      .name = "HD Webcam",
                      .deviceUID = "cam",
                      .modelUID = "046d:0825",
                      .transportType = kVideoTransportTypeUSB,
                      .isRunning = true,
                      .consumers = {CameraServer(), Gone()}});
  }

  // What `list` shows, as RunList puts it together.
  std::string listTable() {
    auto devices = ConnectedDevicesNow();
    SortForDisplay(devices);
    return RenderDeviceTable(devices, Painter(false), false, ConsumersOfDevicesNow(devices));
  }
  std::string listJson() {
    auto devices = ConnectedDevicesNow();
    SortForDisplay(devices);
    const auto consumers = ConsumersOfDevicesNow(devices);
    Json array = Json::array();
    for (std::size_t i = 0; i < devices.size(); ++i) {
      array.push_back(ListedDeviceToJson(devices[i], consumers[i]));
    }
    return DumpLine(array);
  }

  // Runs a controller as `watch` does, with `change` made once the discovery has been printed,
  // and returns every line printed.
  std::string watch(bool json, const std::function<void()>& change) {
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    {
      LineWriter writer(fds[1]);
      WatchPrinter printer(json, Painter(false), writer, [] { return kSomeTime; });
      auto queue = DispatchQueue::createSerial("cli-consumers-test");
      auto controller = MediaDeviceController::create(queue);
      controller->setUpdatingDevicesHandler(
          [&](bool finished) { printer.printUpdating(finished); });
      controller->setDeviceEventHandler([&](MediaDeviceEvent event, const MediaDevice& device) {
        printer.printEvent(event, device);
      });
      controller->setDeviceConsumersHandler(
          [&](const MediaDevice& device, const std::vector<MediaDeviceConsumer>& consumers) {
            printer.printConsumers(device, consumers);
          });
      controller->setObserveDevices(true);
      WaitForQueueServingMainLoop(*queue);
      change();
      WaitForQueueServingMainLoop(*queue);
      controller->setObserveDevices(false);
      controller->setDeviceConsumersHandler(nullptr);
      controller->setDeviceEventHandler(nullptr);
      controller->setUpdatingDevicesHandler(nullptr);
      WaitForQueueServingMainLoop(*queue);
    }
    close(fds[1]);
    std::string text;
    char buffer[4096];
    for (ssize_t n; (n = read(fds[0], buffer, sizeof buffer)) > 0;) text.append(buffer, n);
    close(fds[0]);
    return text;
  }
};

TEST_F(ConsumersOutputTest, ListShowsEveryKindUnderItsDeviceWithWhatFiltersFeed) {
  EXPECT_EQ(listTable(),
            "    ID  TYPE   NAME            TRANSPORT  IN  OUT  INPUT SOURCE  SUPPORTED        "
            "UID\n"
            "*  100  Audio  USB Microphone  USB         1    0  -             yes              "
            "usb-mic\n"
            "        Voice Recorder      pid 4242          Application  /usr/bin/arecord\n"
            "        Volume Control      pid 900           LevelMeter   pavucontrol\n"
            "        Echo-Cancel Source  pid 17            Filter       /usr/bin/pipewire\n"
            "          -> Meeting        claimed pid 5120  Application  Flatpak "
            "org.example.Meeting\n"
            "   102  Audio  Speakers        BuiltIn     0    1  -             NoInputChannels  "
            "speakers\n"
            "        obs                 pid 3001          Monitor      /usr/bin/obs\n"
            "   104  Audio  Line In         BuiltIn     1    0  -             yes              "
            "line-in\n"
            "*  200  Video  HD Webcam       USB         1    0  -             yes              "
            "cam\n"
            "        pipewire            pid 1200          MediaServer  /usr/bin/pipewire\n"
            "          -> Cheese         pid 1300          Application  "
            "/snap/cheese/12/usr/bin/cheese  Snap cheese\n"
            "        unknown process     pid 6000          Application\n");
}

TEST_F(ConsumersOutputTest, ListWithoutConsumersPrintsTheTableAsBefore) {
  for (const ObjectID id : {100u, 102u}) audio->setDeviceConsumers(id, {});
  video->setDeviceConsumers(200, {});
  auto devices = ConnectedDevicesNow();
  SortForDisplay(devices);
  EXPECT_EQ(listTable(), RenderDeviceTable(devices, Painter(false), false));
}

TEST_F(ConsumersOutputTest, ListJsonCarriesEveryConsumerBesideTheDeviceFields) {
  const std::string json = listJson();
  const auto parsed = Json::parse(json);
  ASSERT_EQ(parsed.size(), 4u);
  EXPECT_EQ(parsed[0]["consumers"], ConsumersToJson({Recorder(), Meter(), EchoCanceller()}));
  EXPECT_EQ(parsed[1]["consumers"][0]["kind"], "Monitor");
  EXPECT_FALSE(parsed[2].contains("consumers")) << "nobody uses the line input";
  EXPECT_EQ(parsed[3]["consumers"][0]["kind"], "MediaServer");
  EXPECT_EQ(parsed[3]["consumers"][0]["feeds"][0]["sandbox"], "Snap");
  EXPECT_EQ(parsed[3]["consumers"][1],
            Json::parse(R"({"processID":6000,"isProcessIDVerified":true,"executablePath":null,)"
                        R"("processName":null,"applicationName":null,"applicationID":null,)"
                        R"("sandbox":"None","sandboxApplicationID":null,"kind":"Application",)"
                        R"("feeds":[]})"));
  std::vector<std::string> keys;
  for (const auto& [key, value] : parsed[3].items()) keys.push_back(key);
  EXPECT_EQ(keys.back(), "consumers") << "after the twelve fields of the device";
}

TEST_F(ConsumersOutputTest, WatchPrintsALineEachTimeADevicesConsumersChange) {
  const std::string text = watch(false, [this] {
    audio->setDeviceConsumers(104, {{.processID = 7000, .processName = "parecord"}});
    video->setDeviceConsumers(200, {});
  });
  // Everything but the local time of day.
  std::string withoutTimes;
  for (std::size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos;
       start = end + 1) {
    withoutTimes += text.substr(start + 14, end - start - 14) + "\n";
  }
  EXPECT_EQ(withoutTimes,
            "updating devices\n"
            "InitialDiscovery    Audio   104  idle     Line In\n"
            "InitialDiscovery    Audio   102  idle     Speakers  unsupported: NoInputChannels\n"
            "Consumers           Audio   102  idle     Speakers  unsupported: NoInputChannels  "
            "used by obs (pid 3001, Monitor)\n"
            "InitialDiscovery    Audio   100  running  USB Microphone\n"
            "Consumers           Audio   100  running  USB Microphone  used by Voice Recorder "
            "(pid 4242), Volume Control (pid 900, LevelMeter), Echo-Cancel Source (pid 17, "
            "Filter) -> [Meeting (claimed pid 5120)]\n"
            "InitialDiscovery    Video   200  running  HD Webcam\n"
            "Consumers           Video   200  running  HD Webcam  used by pipewire (pid 1200, "
            "MediaServer) -> [Cheese (pid 1300)], unknown process (pid 6000)\n"
            "devices updated\n"
            "Consumers           Audio   104  idle     Line In  used by parecord (claimed pid "
            "7000)\n"
            "Consumers           Video   200  running  HD Webcam  used by nobody\n");
}

TEST_F(ConsumersOutputTest, WatchJsonPrintsTheConsumersBesideTheDevice) {
  const std::string text = watch(true, [this] { audio->setDeviceConsumers(102, {}); });
  std::vector<Json> consumerLines;
  for (std::size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos;
       start = end + 1) {
    auto line = Json::parse(text.substr(start, end - start));
    if (line["type"] == "consumers") consumerLines.push_back(std::move(line));
  }
  ASSERT_EQ(consumerLines.size(), 4u) << text;
  std::vector<std::string> keys;
  for (const auto& [key, value] : consumerLines[0].items()) keys.push_back(key);
  EXPECT_EQ(keys, (std::vector<std::string>{"time", "type", "device", "consumers"}));
  EXPECT_EQ(consumerLines[0]["time"], "2026-11-22T01:52:20.123456Z");
  EXPECT_EQ(consumerLines[0]["device"]["deviceID"], 102);
  EXPECT_EQ(consumerLines[0]["consumers"][0]["kind"], "Monitor");
  EXPECT_EQ(consumerLines[1]["device"]["deviceID"], 100);
  EXPECT_EQ(consumerLines[1]["consumers"].size(), 3u);
  EXPECT_EQ(consumerLines[2]["device"]["deviceID"], 200);
  EXPECT_EQ(consumerLines[3]["device"]["deviceID"], 102);
  EXPECT_EQ(consumerLines[3]["consumers"], Json::array());
}

TEST_F(ConsumersOutputTest, WatchPrintsNoConsumerLinesWhenNobodyUsesAnything) {
  for (const ObjectID id : {100u, 102u}) audio->setDeviceConsumers(id, {});
  video->setDeviceConsumers(200, {});
  const std::string text = watch(false, [this] { audio->setDeviceRunning(104, true); });
  EXPECT_EQ(text.find("Consumers"), std::string::npos) << text;
  EXPECT_NE(text.find("ChangedRunning      Audio   104  running  Line In"), std::string::npos)
      << text;
}

}  // namespace
}  // namespace harkwell::cli
