// `harkwell watch --format` as a status bar runs it: every line of each format passes that
// format's JSON schema (checked by tests/cli/check_bar_lines.py with python3-jsonschema), and
// against a real sound server a recording (parecord) puts the microphone on the bar in the next
// line, and its name follows.
#include <gtest/gtest.h>
#include <signal.h>

#include <nlohmann/json.hpp>

#include "tests/cli/HarkwellRun.h"
#include "tests/support/PrivatePulseServer.h"

namespace harkwell::testing {
namespace {

using namespace std::chrono_literals;

constexpr auto kDeadline = 15s;
const std::string kSource = HARKWELL_SOURCE_DIR;
const std::string kChecker = kSource + "/tests/cli/check_bar_lines.py";
const std::string kSchemas = kSource + "/tests/cli/bar-schemas";
const std::string kScenario = kSource + "/examples/bars/microphone.json";

// Runs `command` with bash; stdout and stderr as they came.
ProgramResult RunShell(const std::string& command) {
  ProgramResult result;
  auto run = ChildProcess::launch({"/bin/bash", "-o", "pipefail", "-c", command});
  if (run == nullptr) return result;
  result.status = run->waitForExitCode(60s).value_or(-1);
  result.out = run->unreadOutput();
  result.err = run->errorOutput();
  return result;
}

std::string Quoted(const std::string& text) {
  return "'" + text + "'";
}

struct FormatCase {
  const char* format;
  const char* expectedCount;  // lines: idle, microphone, idle again after the hold
};

class BarSchema : public ::testing::TestWithParam<FormatCase> {};

TEST_P(BarSchema, EveryLineOfTheScenarioPassesTheFormatsSchema) {
  const auto& [format, expected] = GetParam();
  const auto result = RunShell(Quoted(HARKWELL_PROGRAM) + " watch --format " + format +
                               " --scenario " + Quoted(kScenario) + " --follow --duration 3.5 | " +
                               Quoted(kChecker) + " " + format + " " + Quoted(kSchemas));
  EXPECT_EQ(result.status, 0) << result.out << result.err;
  EXPECT_EQ(result.out, std::string(expected) + " " + format + " lines valid\n") << result.err;
}

INSTANTIATE_TEST_SUITE_P(EachFormat, BarSchema,
                         ::testing::Values(FormatCase{"waybar", "3"}, FormatCase{"i3bar", "5"},
                                           FormatCase{"i3status-rust", "3"}),
                         [](const ::testing::TestParamInfo<FormatCase>& param) {
                           std::string name = param.param.format;
                           std::erase(name, '-');
                           return name;
                         });

TEST(BarSchema, TheCheckRefusesALineOutsideTheFormat) {
  for (const auto& [format, line] : std::vector<std::pair<std::string, std::string>>{
           {"waybar", R"({"text":"x","colour":"red"})"},
           {"waybar", R"({"tooltip":"no text"})"},
           {"i3bar", "{\"version\":1}\n[\n[{\"short_text\":\"no full_text\"}]"},
           {"i3status-rust", R"({"text":"x","state":"Bad"})"}}) {
    SCOPED_TRACE(format + ": " + line);
    const auto result = RunShell("printf '%s\\n' " + Quoted(line) + " | " + Quoted(kChecker) + " " +
                                 format + " " + Quoted(kSchemas));
    EXPECT_EQ(result.status, 1) << result.out << result.err;
  }
}

TEST(HarkwellBarOnPulseAudio, ARecordingPutsTheMicrophoneOnTheBarInTheNextLine) {
  ASSERT_TRUE(PrivatePulseServer::isInstalled()) << "pulseaudio is missing (Debian: pulseaudio)";
  PrivatePulseServer server;
  const std::string failure = server.start();
  ASSERT_TRUE(failure.empty()) << failure;

  auto run = StartHarkwell({"watch", "--format", "waybar", "--audio", "pulse", "--video", "none"},
                           {{"PULSE_SERVER", server.address()}});
  ASSERT_NE(run, nullptr);
  const auto first = run->readLine(kDeadline);
  ASSERT_TRUE(first.has_value()) << run->errorOutput();
  EXPECT_EQ(nlohmann::json::parse(*first)["alt"], "idle") << *first;

  ChildProcess recorder;
  const auto recording = server.startRecorder(recorder, PrivatePulseServer::kNullSourceName);
  ASSERT_TRUE(recording.empty()) << recording;
  const auto next = run->readLine(kDeadline);
  ASSERT_TRUE(next.has_value()) << run->errorOutput();
  const auto line = nlohmann::json::parse(*next);
  EXPECT_EQ(line["class"], nlohmann::json::array({"microphone"})) << *next;
  EXPECT_NE(line["tooltip"].get<std::string>().find(PrivatePulseServer::kNullSourceDescription),
            std::string::npos)
      << *next;
  // Who records follows as the server reports the stream's client: parecord by name.
  const std::string named =
      std::string("Microphone: parecord on ") + PrivatePulseServer::kNullSourceDescription;
  std::optional<std::string> later = *next;
  while (later && nlohmann::json::parse(*later)["tooltip"] != named) {
    later = run->readLine(kDeadline);
  }
  EXPECT_TRUE(later.has_value()) << "no line names parecord\n" << run->errorOutput();

  run->sendSignal(SIGINT);
  EXPECT_EQ(run->waitForExitCode(kDeadline), 0) << run->errorOutput();
}

}  // namespace
}  // namespace harkwell::testing
