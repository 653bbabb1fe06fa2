// What the harkwell program prints: device objects and watch lines in JSON, the escaping of device
// texts for a terminal, the device table and the readable watch lines.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <regex>

#include "tools/harkwell/DeviceJson.h"
#include "tools/harkwell/DeviceTable.h"
#include "tools/harkwell/LineWriter.h"
#include "tools/harkwell/TerminalText.h"
#include "tools/harkwell/WatchPrinter.h"

namespace harkwell::cli {
namespace {

using namespace std::chrono_literals;

MediaDevice Microphone() {
  return MediaDevice{.deviceID = 100,
                     .mediaType = MediaType::Audio,
                     .deviceUID = "usb-mic",
                     .modelUID = "0d8c:0014",
                     .transportType = MediaDeviceTransportType::USB,
                     .name = "USB Microphone",
                     .inputSourceName = "Line In",
                     .inputChannelCount = 1,
                     .outputChannelCount = 0,
                     .isConnected = true,
                     .isRunning = true,
                     .unsupportedReason = std::nullopt};
}

MediaDevice Camera() {
  return MediaDevice{.deviceID = 7,
                     .mediaType = MediaType::Video,
                     .deviceUID = "cam",
                     .modelUID = std::nullopt,
                     .transportType = MediaDeviceTransportType::BuiltIn,
                     .name = "Cam",
                     .inputSourceName = std::nullopt,
                     .inputChannelCount = 0,
                     .outputChannelCount = 2,
                     .isConnected = false,
                     .isRunning = false,
                     .unsupportedReason = MediaDeviceUnsupportedReason::NoInputChannels};
}

// 2026-11-22T01:52:20.123456Z
const auto kSomeTime = std::chrono::system_clock::time_point(1795312340123456us);

TEST(DeviceJson, HasTheTwelveFieldsInTheirOrderUnderTheirNames) {
  const Json json = DeviceToJson(Microphone());
  std::vector<std::string> keys;
  for (const auto& [key, value] : json.items()) keys.push_back(key);
  EXPECT_EQ(keys, (std::vector<std::string>{"deviceID", "mediaType", "deviceUID", "modelUID",
                                            "transportType", "name", "inputSourceName",
                                            "inputChannelCount", "outputChannelCount",
                                            "isConnected", "isRunning", "unsupportedReason"}));
  EXPECT_EQ(DumpLine(json),
            R"({"deviceID":100,"mediaType":"Audio","deviceUID":"usb-mic","modelUID":"0d8c:0014",)"
            R"("transportType":"USB","name":"USB Microphone","inputSourceName":"Line In",)"
            R"("inputChannelCount":1,"outputChannelCount":0,"isConnected":true,"isRunning":true,)"
            R"("unsupportedReason":null})");
}

TEST(DeviceJson, WritesCaseNamesAndNullsForAbsentOptionals) {
  const Json json = DeviceToJson(Camera());
  EXPECT_EQ(json["mediaType"], "Video");
  EXPECT_EQ(json["transportType"], "BuiltIn");
  EXPECT_TRUE(json["modelUID"].is_null());
  EXPECT_TRUE(json["inputSourceName"].is_null());
  EXPECT_EQ(json["unsupportedReason"], "NoInputChannels");
  EXPECT_EQ(json["isConnected"], false);
  EXPECT_EQ(json["outputChannelCount"], 2);
}

TEST(DeviceJson, ReplacesInvalidUtf8InsteadOfFailing) {
  MediaDevice device = Camera();
  device.name = "bad \xff name";
  const std::string line = DumpLine(DeviceToJson(device));
  EXPECT_NE(line.find("bad \xef\xbf\xbd name"), std::string::npos) << line;
}

TEST(DeviceJson, EscapesControlsC1AndDirectionMarksAsTheTableDoes) {
  MediaDevice device = Camera();
  // ESC, DEL, U+009B (CSI), U+202E (right-to-left override), U+2066 (left-to-right isolate).
  device.name = "a\x1b[2Jb\x7f c\xc2\x9b d\xe2\x80\xae e\xe2\x81\xa6 f";
  const std::string line = DumpLine(DeviceToJson(device));
  EXPECT_NE(line.find(R"("name":"a\u001b[2Jb\u007F c\u009B d\u202E e\u2066 f")"), std::string::npos)
      << line;
  for (const char* raw : {"\x1b", "\x7f", "\xc2\x9b", "\xe2\x80\xae", "\xe2\x81\xa6"}) {
    EXPECT_EQ(line.find(raw), std::string::npos) << line;
  }
  EXPECT_EQ(nlohmann::json::parse(line)["name"], device.name) << "still the same text as JSON";
  const std::string table = RenderDeviceTable({device}, Painter(false), false);
  EXPECT_NE(table.find("\\u009B d\\u202E e\\u2066 f"), std::string::npos) << table;
}

TEST(WatchJson, TimestampsAreUtcIso8601WithMicroseconds) {
  EXPECT_EQ(UtcTimestamp(kSomeTime), "2026-11-22T01:52:20.123456Z");
  EXPECT_EQ(UtcTimestamp(std::chrono::system_clock::time_point{}), "1970-01-01T00:00:00.000000Z");
}

TEST(WatchJson, UpdatingAndEventLinesHaveTheirShape) {
  EXPECT_EQ(DumpLine(UpdatingLine(kSomeTime, false)),
            R"({"time":"2026-11-22T01:52:20.123456Z","type":"updating","finished":false})");
  const Json event = EventLine(kSomeTime, MediaDeviceEvent::ChangedRunning, Microphone());
  std::vector<std::string> keys;
  for (const auto& [key, value] : event.items()) keys.push_back(key);
  EXPECT_EQ(keys, (std::vector<std::string>{"time", "type", "event", "device"}));
  EXPECT_EQ(event["type"], "event");
  EXPECT_EQ(event["event"], "ChangedRunning");
  EXPECT_EQ(event["device"], DeviceToJson(Microphone()));
}

TEST(WatchJson, HogModeNamesTheOwner) {
  EXPECT_EQ(DumpLine(HogModeToJson(MediaDeviceHogMode::OtherProcess(12))),
            R"({"hogMode":"OtherProcess","pid":12})");
  EXPECT_EQ(DumpLine(HogModeToJson(MediaDeviceHogMode::NoProcess())),
            R"({"hogMode":"NoProcess","pid":null})");
  EXPECT_EQ(DumpLine(HogModeToJson(MediaDeviceHogMode::CurrentProcess())),
            R"({"hogMode":"CurrentProcess","pid":null})");
}

TEST(TerminalEscaping, EscapeSequencesAndControlsBecomeVisible) {
  EXPECT_EQ(EscapeForTerminal("\x1b]0;pwned\x07\x1b[2J"), "\\e]0;pwned\\x07\\e[2J");
  EXPECT_EQ(EscapeForTerminal("a\tb\nc\rd\x7f"), "a\\tb\\nc\\rd\\x7F");
  EXPECT_EQ(EscapeForTerminal(std::string("nul\0byte", 8)), "nul\\x00byte");
}

TEST(TerminalEscaping, C1ControlsAndDirectionOverridesBecomeVisible) {
  EXPECT_EQ(EscapeForTerminal("\xc2\x9b"
                              "31m"),
            "\\u009B31m");  // the one-character CSI
  EXPECT_EQ(EscapeForTerminal("abc\xe2\x80\xae"
                              "fed"),
            "abc\\u202Efed");
  EXPECT_EQ(EscapeForTerminal("\xe2\x81\xa6x\xe2\x81\xa9"), "\\u2066x\\u2069");
}

TEST(TerminalEscaping, InvalidUtf8BytesAndBackslashesAreEscaped) {
  EXPECT_EQ(EscapeForTerminal("\xff\xfe"), "\\xFF\\xFE");
  EXPECT_EQ(EscapeForTerminal("\xc3("), "\\xC3(");
  EXPECT_EQ(EscapeForTerminal("\xe0\x80\x80"), "\\xE0\\x80\\x80");  // overlong
  EXPECT_EQ(EscapeForTerminal("\xed\xa0\x80"), "\\xED\\xA0\\x80");  // a surrogate
  EXPECT_EQ(EscapeForTerminal("C:\\x1b"), "C:\\\\x1b");
}

TEST(TerminalEscaping, PrintableTextIsKept) {
  const std::string text =
      "Mikrofon \xe2\x80\x93 K\xc3\xbc"
      "che \xf0\x9f\x8e\xa4 (USB)";
  EXPECT_EQ(EscapeForTerminal(text), text);
  EXPECT_EQ(DisplayWidth(text), 24u);
}

TEST(DeviceTableRendering, AlignsColumnsAndMarksRunningDevices) {
  MediaDevice longName = Camera();
  longName.name = "A camera with a much longer name";
  const std::string table = RenderDeviceTable({Microphone(), longName}, Painter(false), true);
  std::vector<std::string> lines;
  std::size_t start = 0;
  for (std::size_t end; (end = table.find('\n', start)) != std::string::npos; start = end + 1) {
    lines.push_back(table.substr(start, end - start));
  }
  ASSERT_EQ(lines.size(), 4u) << table;
  EXPECT_EQ(lines[1].substr(0, 1), "*");
  EXPECT_EQ(lines[2].substr(0, 1), " ");
  EXPECT_EQ(lines[3], "* running");
  // Every column starts where its header starts.
  for (const char* header : {"NAME", "TRANSPORT", "SUPPORTED", "UID"}) {
    const auto column = lines[0].find(header);
    ASSERT_NE(column, std::string::npos) << header;
    EXPECT_NE(lines[1][column], ' ') << header;
    EXPECT_NE(lines[2][column], ' ') << header;
    EXPECT_EQ(lines[1][column - 1], ' ') << header;
    EXPECT_EQ(lines[2][column - 1], ' ') << header;
  }
  EXPECT_NE(lines[2].find("NoInputChannels"), std::string::npos);
  EXPECT_EQ(table.find('\x1b'), std::string::npos) << "no colour without a terminal";
  EXPECT_EQ(lines[1].back(), 'c') << "no padding after the last column";
}

TEST(DeviceTableRendering, EscapesDeviceTextsAndKeepsAlignment) {
  MediaDevice hostile = Microphone();
  hostile.name = "Evil\x1b[2J\x1b]0;owned\x07";
  hostile.deviceUID = "uid\nnext";
  const std::string table = RenderDeviceTable({hostile, Camera()}, Painter(false), true);
  EXPECT_EQ(table.find('\x1b'), std::string::npos) << table;
  EXPECT_EQ(table.find('\x07'), std::string::npos) << table;
  EXPECT_NE(table.find("Evil\\e[2J\\e]0;owned\\x07"), std::string::npos) << table;
  EXPECT_NE(table.find("uid\\nnext"), std::string::npos) << table;
  const auto lines = std::count(table.begin(), table.end(), '\n');
  EXPECT_EQ(lines, 4) << table;
}

TEST(DeviceTableRendering, ColoursOnlyWhenThePainterIsEnabled) {
  const std::string table = RenderDeviceTable({Microphone()}, Painter(true), true);
  EXPECT_NE(table.find("\x1b[1m"), std::string::npos);
  EXPECT_NE(table.find("\x1b[32m*"), std::string::npos);
  EXPECT_NE(table.find("\x1b[32mUSB Microphone"), std::string::npos);
}

TEST(DeviceTableRendering, IsEmptyWithoutDevices) {
  EXPECT_EQ(RenderDeviceTable({}, Painter(false), true), "");
}

TEST(DeviceTableRendering, ExplainsTheMarkOnlyWhenAskedAndSomethingRuns) {
  const std::string running = RenderDeviceTable({Microphone(), Camera()}, Painter(false), true);
  EXPECT_NE(running.find("\n* running\n"), std::string::npos) << running;
  const std::string forAScript = RenderDeviceTable({Microphone(), Camera()}, Painter(false), false);
  EXPECT_EQ(forAScript.find("* running"), std::string::npos) << forAScript;
  EXPECT_EQ(std::count(forAScript.begin(), forAScript.end(), '\n'), 3) << forAScript;
  const std::string idle = RenderDeviceTable({Camera()}, Painter(false), true);
  EXPECT_EQ(idle.find("running"), std::string::npos) << idle;
}

TEST(DeviceTableRendering, RightAlignsNumbers) {
  MediaDevice wide = Camera();
  wide.deviceID = 12345;
  wide.outputChannelCount = 10;
  const std::string table = RenderDeviceTable({Microphone(), wide}, Painter(false), false);
  EXPECT_EQ(
      table,
      "      ID  TYPE   NAME            TRANSPORT  IN  OUT  INPUT SOURCE  SUPPORTED        UID\n"
      "*    100  Audio  USB Microphone  USB         1    0  Line In       yes              "
      "usb-mic\n"
      "   12345  Video  Cam             BuiltIn     0   10  -             NoInputChannels  "
      "cam\n");
}

TEST(DeviceOrder, AudioBeforeVideoEachByID) {
  MediaDevice secondMicrophone = Microphone();
  secondMicrophone.deviceID = 3;
  MediaDevice secondCamera = Camera();
  secondCamera.deviceID = 2;
  std::vector<MediaDevice> devices{Camera(), Microphone(), secondCamera, secondMicrophone};
  SortForDisplay(devices);
  std::vector<std::pair<MediaType, std::uint32_t>> order;
  for (const auto& device : devices) order.emplace_back(device.mediaType, device.deviceID);
  EXPECT_EQ(order, (std::vector<std::pair<MediaType, std::uint32_t>>{{MediaType::Audio, 3},
                                                                     {MediaType::Audio, 100},
                                                                     {MediaType::Video, 2},
                                                                     {MediaType::Video, 7}}));
}

TEST(HumanWatchLines, ShowEventDeviceAndStateWithTextsEscaped) {
  MediaDevice device = Microphone();
  device.name = "Mic\x1b[31m";
  const std::string line =
      HumanEventLine(kSomeTime, MediaDeviceEvent::ChangedRunning, device, Painter(false));
  EXPECT_TRUE(std::regex_search(line, std::regex("^\\d\\d:\\d\\d:\\d\\d\\.123  ChangedRunning  ")))
      << line;
  EXPECT_NE(line.find("Audio   100  running  Mic\\e[31m  source: Line In"), std::string::npos)
      << line;
  const std::string camera =
      HumanEventLine(kSomeTime, MediaDeviceEvent::Disconnected, Camera(), Painter(false));
  EXPECT_NE(camera.find("Video     7  idle     Cam  unsupported: NoInputChannels"),
            std::string::npos)
      << camera;
  // Everything up to the name has the same width on every line.
  EXPECT_EQ(line.find("Mic"), camera.find("Cam"));
  EXPECT_NE(HumanUpdatingLine(kSomeTime, true, Painter(false)).find("devices updated"),
            std::string::npos);
}

TEST(WatchPrinterOutput, WritesOneCompleteJsonLinePerCall) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  {
    LineWriter writer(fds[1]);
    WatchPrinter printer(true, Painter(false), writer, [] { return kSomeTime; });
    EXPECT_TRUE(printer.printUpdating(false));
    EXPECT_TRUE(printer.printEvent(MediaDeviceEvent::Connected, Camera()));
    EXPECT_TRUE(printer.printUpdating(true));
  }
  close(fds[1]);
  std::string text;
  char buffer[4096];
  for (ssize_t n; (n = read(fds[0], buffer, sizeof buffer)) > 0;) text.append(buffer, n);
  close(fds[0]);
  const std::string expected =
      DumpLine(UpdatingLine(kSomeTime, false)) + "\n" +
      DumpLine(EventLine(kSomeTime, MediaDeviceEvent::Connected, Camera())) + "\n" +
      DumpLine(UpdatingLine(kSomeTime, true)) + "\n";
  EXPECT_EQ(text, expected);
}

TEST(WatchPrinterOutput, ReportsAClosedOutput) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  close(fds[0]);
  signal(SIGPIPE, SIG_IGN);
  LineWriter writer(fds[1]);
  WatchPrinter printer(false, Painter(false), writer);
  EXPECT_FALSE(printer.printUpdating(false));
  close(fds[1]);
}

}  // namespace
}  // namespace harkwell::cli
