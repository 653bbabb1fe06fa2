// harkwell's manual page and shell completions, as the build generated them from the command line:
// every command and option is in each of them, the manual page renders without a warning, each
// script is valid for its shell, and the bash and fish completions offer the right words.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "tests/cli/HarkwellRun.h"
#include "tools/harkwell/CommandLine.h"
#include "tools/harkwell/HelpDocuments.h"

namespace harkwell::testing {
namespace {

using namespace std::chrono_literals;
using cli::ProgramDoc;

std::string Generated(const std::string& name) {
  std::ifstream in(std::string(HARKWELL_HELP_DOCUMENTS_DIR) + "/" + name, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

ProgramDoc Program() {
  ProgramDoc program;
  cli::VisitCommandLineDefinition(
      [&program](const CLI::App& app) { program = cli::DescribeProgram(app); });
  return program;
}

// Runs `program` with `arguments`; stdout and stderr together, and the exit status.
ProgramResult RunTool(const std::string& program, const std::vector<std::string>& arguments) {
  ProgramResult result;
  std::vector<std::string> argv{program};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  auto run = ChildProcess::launch(argv);
  if (!run) return result;
  result.status = run->waitForExitCode(30s).value_or(-1);
  result.out = run->unreadOutput();
  result.err = run->errorOutput();
  return result;
}

std::string RoffName(const std::string& name) {
  std::string out;
  for (const char c : name) out += c == '-' ? std::string("\\-") : std::string(1, c);
  return out;
}

TEST(HelpDocuments, DescribeEveryCommandAndOptionTheProgramTakes) {
  const ProgramDoc program = Program();
  std::vector<std::string> commands;
  for (const auto& command : program.commands) commands.push_back(command.name);
  EXPECT_EQ(commands, (std::vector<std::string>{"list", "watch", "hog", "model", "serve"}));
  const std::string man = Generated("harkwell.1");
  const std::string bash = Generated("harkwell.bash");
  const std::string zsh = Generated("_harkwell");
  const std::string fish = Generated("harkwell.fish");
  for (const auto& command : program.commands) {
    EXPECT_NE(man.find(".SS " + command.name + "\n"), std::string::npos) << command.name;
    EXPECT_NE(bash.find("    " + command.name + ")\n"), std::string::npos) << command.name;
    EXPECT_NE(zsh.find("'" + command.name + ":"), std::string::npos) << command.name;
    EXPECT_NE(fish.find("-a " + command.name + " "), std::string::npos) << command.name;
    for (const auto& option : command.options) {
      for (const auto& name : option.names) {
        const std::string where = command.name + " " + name;
        EXPECT_NE(man.find(option.positional ? option.value : RoffName(name)), std::string::npos)
            << where;
        EXPECT_NE(zsh.find(option.positional ? ":" + name + ":" : name), std::string::npos)
            << where;
        if (option.positional) continue;
        EXPECT_NE(bash.find(name), std::string::npos) << where;
        const std::string fishName =
            name.rfind("--", 0) == 0 ? "-l " + name.substr(2) : "-s " + name.substr(1);
        EXPECT_NE(fish.find(fishName), std::string::npos) << where;
      }
    }
  }
  const auto model = std::find_if(program.commands.begin(), program.commands.end(),
                                  [](const auto& command) { return command.name == "model"; });
  ASSERT_NE(model, program.commands.end());
  for (const auto& option : model->options) {
    EXPECT_NE(option.names.back(), "--audio") << "model takes no device options";
  }
}

TEST(HelpDocuments, TheManualPageRendersWithoutAWarning) {
  const std::string page = std::string(HARKWELL_HELP_DOCUMENTS_DIR) + "/harkwell.1";
  const auto result = RunTool("/usr/bin/groff", {"-man", "-Tutf8", "-ww", "-z", page});
  ASSERT_EQ(result.status, 0) << "groff (Debian: groff-base): " << result.err;
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out, "");
}

// What the bash completion offers for the words typed so far (the last one being completed).
std::string BashOffers(const std::vector<std::string>& words) {
  std::string command =
      "source '" + std::string(HARKWELL_HELP_DOCUMENTS_DIR) + "/harkwell.bash'; COMP_WORDS=(";
  for (const auto& word : words) command += "'" + word + "' ";
  command +=
      "); COMP_CWORD=" + std::to_string(words.size() - 1) + "; _harkwell; echo \"${COMPREPLY[*]}\"";
  const auto result = RunTool("/bin/bash", {"-c", command});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.err, "");
  return result.out;
}

TEST(HelpDocuments, TheBashCompletionOffersCommandsOptionsAndChoices) {
  EXPECT_EQ(BashOffers({"harkwell", ""}), "list watch hog model serve\n");
  EXPECT_EQ(BashOffers({"harkwell", "w"}), "watch\n");
  EXPECT_EQ(BashOffers({"harkwell", "list", "--au"}), "--audio\n");
  EXPECT_EQ(BashOffers({"harkwell", "watch", "--audio", ""}), "none pipewire pulse simulated\n");
  EXPECT_EQ(BashOffers({"harkwell", "list", "--video", "v"}), "v4l2\n");
  EXPECT_EQ(BashOffers({"harkwell", "hog", ""}), "off on status\n");
  EXPECT_EQ(BashOffers({"harkwell", "hog", "--scenario", "x.json", "o"}), "off on\n");
  EXPECT_EQ(BashOffers({"harkwell", "hog", "on", ""}), "\n") << "the device is not guessed";
  EXPECT_EQ(BashOffers({"harkwell", "model", "--"}), "--help --json --verbose\n");
}

TEST(HelpDocuments, TheZshCompletionIsValidZsh) {
  ASSERT_EQ(access("/usr/bin/zsh", X_OK), 0) << "zsh is missing (Debian: zsh)";
  const auto result =
      RunTool("/usr/bin/zsh", {"-n", std::string(HARKWELL_HELP_DOCUMENTS_DIR) + "/_harkwell"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.err, "");
}

TEST(HelpDocuments, TheFishCompletionOffersChoices) {
  ASSERT_EQ(access("/usr/bin/fish", X_OK), 0) << "fish is missing (Debian: fish)";
  const std::string script = std::string(HARKWELL_HELP_DOCUMENTS_DIR) + "/harkwell.fish";
  auto result = RunTool("/usr/bin/fish", {"-n", script});
  EXPECT_EQ(result.status, 0) << result.err;
  result = RunTool(
      "/usr/bin/fish",
      {"--no-config", "-c", "source '" + script + "'; complete -C 'harkwell list --audio '"});
  EXPECT_EQ(result.status, 0) << result.err;
  const std::string description =
      "\tAudio devices: pipewire, pulse, simulated or none (default: pipewire when a PipeWire "
      "daemon answers, else pulse)\n";
  EXPECT_EQ(result.out, "none" + description + "pipewire" + description + "pulse" + description +
                            "simulated" + description);
}

}  // namespace
}  // namespace harkwell::testing
