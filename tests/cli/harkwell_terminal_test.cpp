// The harkwell program on a real terminal: run under `script`, which gives it a pseudo-terminal
// as its stdout, against the same program with a pipe as its stdout.
#include <gtest/gtest.h>

#include "tests/cli/HarkwellRun.h"

namespace harkwell::testing {
namespace {

using namespace std::chrono_literals;

const char* const kScript = "/usr/bin/script";

// A running microphone whose name tries to clear the screen and retitle the terminal window.
const char* const kHostileScenario = R"({"audio": [
  {"deviceID": 100, "deviceUID": "evil", "modelUID": "1:2", "isRunning": true,
   "name": "Evil\u001b[2J\u001b]0;owned\u0007 Mic"}]})";
const char* const kEscapedName = "Evil\\e[2J\\e]0;owned\\x07 Mic";

std::string ShellQuoted(const std::string& text) {
  std::string quoted = "'";
  for (const char c : text) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

// Runs harkwell with `arguments` on a pseudo-terminal and returns what the terminal received.
ProgramResult RunOnTerminal(const std::vector<std::string>& arguments,
                            std::map<std::string, std::string> environment = {}) {
  std::string command = ShellQuoted(HARKWELL_PROGRAM);
  for (const auto& argument : arguments) command += " " + ShellQuoted(argument);
  environment.emplace("TERM", "xterm-256color");
  environment.emplace("NO_COLOR", "");
  ProgramResult result;
  auto run =
      ChildProcess::launch({kScript, "--quiet", "--return", "--command", command, "/dev/null"},
                           {.environment = environment});
  if (!run) return result;
  result.status = run->waitForExitCode(30s).value_or(-1);
  result.out = run->unreadOutput();
  result.err = run->errorOutput();
  return result;
}

class HarkwellTerminal : public ::testing::Test {
 protected:
  void SetUp() override {
    if (access(kScript, X_OK) != 0) FAIL() << kScript << " is missing (Debian: bsdutils)";
  }
};

TEST_F(HarkwellTerminal, ColoursAppearOnATerminal) {
  const TemporaryFile scenario(kHostileScenario);
  const auto result = RunOnTerminal({"list", "--scenario", scenario.path()});
  ASSERT_EQ(result.status, 0) << result.out << result.err;
  EXPECT_NE(result.out.find("\x1b[1mTYPE"), std::string::npos) << result.out;
  EXPECT_NE(result.out.find("\x1b[32m*"), std::string::npos) << result.out;
}

TEST_F(HarkwellTerminal, TheRunningMarkIsExplainedOnATerminalOnly) {
  const TemporaryFile scenario(kHostileScenario);
  const auto terminal = RunOnTerminal({"list", "--scenario", scenario.path()}, {{"NO_COLOR", "1"}});
  ASSERT_EQ(terminal.status, 0) << terminal.out;
  EXPECT_NE(terminal.out.find("* running"), std::string::npos) << terminal.out;
  const auto pipe = RunHarkwell({"list", "--scenario", scenario.path()});
  ASSERT_EQ(pipe.status, 0) << pipe.err;
  EXPECT_EQ(pipe.out.find("* running"), std::string::npos) << pipe.out;
}

TEST_F(HarkwellTerminal, NoColoursInAPipe) {
  const TemporaryFile scenario(kHostileScenario);
  const auto result = RunHarkwell({"list", "--scenario", scenario.path()});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out.find('\x1b'), std::string::npos) << result.out;
  EXPECT_NE(result.out.find(kEscapedName), std::string::npos) << result.out;
}

TEST_F(HarkwellTerminal, NoColourWhenNoColorIsSet) {
  const TemporaryFile scenario(kHostileScenario);
  const auto result = RunOnTerminal({"list", "--scenario", scenario.path()}, {{"NO_COLOR", "1"}});
  ASSERT_EQ(result.status, 0) << result.out;
  EXPECT_EQ(result.out.find('\x1b'), std::string::npos) << result.out;
}

TEST_F(HarkwellTerminal, AnEscapeSequenceInADeviceNameIsPrintedEscaped) {
  const TemporaryFile scenario(kHostileScenario);
  for (const auto& arguments : std::vector<std::vector<std::string>>{
           {"list", "--scenario", scenario.path()},
           {"watch", "--duration", "0.2", "--scenario", scenario.path()},
           {"hog", "status", "evil", "--scenario", scenario.path()}}) {
    const auto result = RunOnTerminal(arguments);
    ASSERT_EQ(result.status, 0) << arguments[0] << ": " << result.out;
    EXPECT_NE(result.out.find(kEscapedName), std::string::npos)
        << arguments[0] << ": " << result.out;
    EXPECT_EQ(result.out.find("\x1b[2J"), std::string::npos) << arguments[0];
    EXPECT_EQ(result.out.find("\x1b]0;"), std::string::npos) << arguments[0];
    EXPECT_EQ(result.out.find('\x07'), std::string::npos) << arguments[0];
  }
}

}  // namespace
}  // namespace harkwell::testing
