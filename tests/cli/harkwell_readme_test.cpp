// The README as a new user meets it: the project is installed into a fresh prefix, and every
// command of the README's `console` blocks is run as written, in order, from a folder that holds
// the repository's examples, with the installed `harkwell` on the PATH and the prefix in
// CMAKE_PREFIX_PATH and PKG_CONFIG_PATH. Each must end, succeed and print what the README shows
// below it. The library example the README quotes must be the file in examples/, and the
// scenario the README shows must play to its end.
//
// Where the Python package is built, the README's `python3` finds the installed package through
// PYTHONPATH.
//
// In a README block, "..." on a line of its own stands for any number of lines (build output, a
// machine's own model identifier), times of day (12:34:56.789) match any time, and a last line
// "[exit status N]" says the command ends with status N rather than 0.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "tests/cli/HarkwellRun.h"

namespace harkwell::testing {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

// Building the example under a sanitizer takes a while on a busy machine.
constexpr auto kCommandDeadline = 300s;

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::string Joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const auto& line : lines) text += line + "\n";
  return text;
}

// One fenced block of the README: its language and its lines, and the README line it starts on.
struct Block {
  std::string language;
  std::vector<std::string> lines;
  int firstLine = 0;
  std::string precededBy;  // the README line just before the opening fence
};

std::vector<Block> FencedBlocks(const std::string& readme) {
  std::vector<Block> blocks;
  const auto lines = Lines(readme);
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (lines[i].rfind("```", 0) != 0) continue;
    Block block{.language = lines[i].substr(3),
                .lines = {},
                .firstLine = static_cast<int>(i) + 2,
                .precededBy = i > 0 ? lines[i - 1] : ""};
    for (++i; i < lines.size() && lines[i] != "```"; ++i) block.lines.push_back(lines[i]);
    blocks.push_back(std::move(block));
  }
  return blocks;
}

struct ConsoleCommand {
  std::string command;
  std::vector<std::string> expected;
  int status = 0;
  int line = 0;
};

// "$ command" lines, each with the lines below it up to the next command.
std::vector<ConsoleCommand> ConsoleCommands(const std::vector<Block>& blocks) {
  std::vector<ConsoleCommand> commands;
  for (const auto& block : blocks) {
    if (block.language != "console") continue;
    for (std::size_t i = 0; i < block.lines.size(); ++i) {
      const auto& line = block.lines[i];
      if (line.rfind("$ ", 0) == 0) {
        commands.push_back({line.substr(2), {}, 0, block.firstLine + static_cast<int>(i)});
      } else if (!commands.empty()) {
        commands.back().expected.push_back(line);
      }
    }
  }
  static const std::regex kStatus(R"(\[exit status (\d+)\])");
  for (auto& command : commands) {
    std::smatch status;
    if (!command.expected.empty() && std::regex_match(command.expected.back(), status, kStatus)) {
      command.status = std::stoi(status[1]);
      command.expected.pop_back();
    }
  }
  return commands;
}

std::string WithoutTimesOfDay(const std::string& line) {
  static const std::regex kTime(R"(\b\d\d:\d\d:\d\d\.\d\d\d\b)");
  return std::regex_replace(line, kTime, "HH:MM:SS.mmm");
}

bool LinesMatch(const std::vector<std::string>& expected, std::size_t e,
                const std::vector<std::string>& actual, std::size_t a) {
  if (e == expected.size()) return a == actual.size();
  if (expected[e] == "...") {
    for (std::size_t next = a; next <= actual.size(); ++next) {
      if (LinesMatch(expected, e + 1, actual, next)) return true;
    }
    return false;
  }
  return a < actual.size() && WithoutTimesOfDay(expected[e]) == WithoutTimesOfDay(actual[a]) &&
         LinesMatch(expected, e + 1, actual, a + 1);
}

TEST(ReadmeOutputMatching, DotsStandForAnyLinesAndTimesForAnyTime) {
  EXPECT_TRUE(LinesMatch({"a", "...", "z"}, 0, {"a", "b", "c", "z"}, 0));
  EXPECT_TRUE(LinesMatch({"a", "...", "z"}, 0, {"a", "z"}, 0));
  EXPECT_FALSE(LinesMatch({"a", "...", "z"}, 0, {"a", "b"}, 0));
  EXPECT_TRUE(LinesMatch({"..."}, 0, {}, 0));
  EXPECT_TRUE(LinesMatch({"01:02:03.456  x"}, 0, {"23:59:59.999  x"}, 0));
  EXPECT_FALSE(LinesMatch({"x"}, 0, {"x", "y"}, 0));
}

class Readme : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    std::string pattern = (fs::temp_directory_path() / "harkwell-readme-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    work_ = new fs::path(pattern);
    const fs::path prefix = *work_ / "prefix";
    const auto install = RunCommand(std::string("'") + HARKWELL_CMAKE + "' --install '" +
                                        HARKWELL_BUILD_DIR + "' --prefix '" + prefix.string() + "'",
                                    *work_, {});
    ASSERT_EQ(install.status, 0) << install.out << install.err;

    // The compiler the README's commands reach as `c++` (and CMake as CXX) is this build's, with
    // this build's flags, so a sanitizer build links its installed library.
    const fs::path bin = *work_ / "bin";
    fs::create_directories(bin);
    {
      std::ofstream wrapper(bin / "c++");
      wrapper << "#!/bin/sh\nexec '" << HARKWELL_CXX << "' " << HARKWELL_CXX_FLAGS << " \"$@\"\n";
    }
    fs::permissions(bin / "c++", fs::perms::owner_all);
#ifdef HARKWELL_PYTHON_INSTALL_DIR
    // The `python3` they reach is the interpreter the module was built for, with a sanitizer
    // build's runtime preloaded (the interpreter itself is not built with it).
    {
      std::ofstream wrapper(bin / "python3");
      wrapper << "#!/bin/sh\n";
      if (std::string(HARKWELL_PYTHON_PRELOAD).empty()) {
        wrapper << "exec '" << HARKWELL_PYTHON << "' \"$@\"\n";
      } else {
        wrapper << "LD_PRELOAD='" << HARKWELL_PYTHON_PRELOAD
                << "' ASAN_OPTIONS=detect_leaks=0 PYTHONMALLOC=malloc exec '" << HARKWELL_PYTHON
                << "' \"$@\"\n";
      }
    }
    fs::permissions(bin / "python3", fs::perms::owner_all);
#endif

    fs::path pkgconfig;
    for (const auto& entry : fs::recursive_directory_iterator(prefix)) {
      if (entry.path().filename() == "HarkwellFoundation.pc")
        pkgconfig = entry.path().parent_path();
    }
    ASSERT_FALSE(pkgconfig.empty()) << "no HarkwellFoundation.pc in the install";

    // A new user's clone, as far as the README's commands read it.
    clone_ = new fs::path(*work_ / "clone");
    fs::create_directories(*clone_);
    fs::copy(fs::path(HARKWELL_SOURCE_DIR) / "examples", *clone_ / "examples",
             fs::copy_options::recursive);

    environment_ = new std::map<std::string, std::string>{
        {"PATH", bin.string() + ":" + (prefix / "bin").string() + ":" + getenv("PATH")},
        {"CXX", (bin / "c++").string()},
        {"CMAKE_PREFIX_PATH", prefix.string()},
        {"PKG_CONFIG_PATH", pkgconfig.string()},
    };
#ifdef HARKWELL_PYTHON_INSTALL_DIR
    (*environment_)["PYTHONPATH"] = (prefix / HARKWELL_PYTHON_INSTALL_DIR).string();
#endif
  }

  static void TearDownTestSuite() {
    std::error_code ignored;
    if (work_ != nullptr) fs::remove_all(*work_, ignored);
    delete work_;
    delete clone_;
    delete environment_;
    work_ = clone_ = nullptr;
    environment_ = nullptr;
  }

  // Runs `command` with bash in `folder`, stderr merged into stdout as a terminal shows them.
  static ProgramResult RunCommand(const std::string& command, const fs::path& folder,
                                  const std::map<std::string, std::string>& environment) {
    ProgramResult result;
    auto run = ChildProcess::launch(
        {"/bin/bash", "-c", "cd '" + folder.string() + "' && { " + command + "\n} 2>&1"},
        {.environment = environment});
    if (run == nullptr) return result;
    const auto status = run->waitForExitCode(kCommandDeadline);
    result.status = status.value_or(-1);
    result.out = run->unreadOutput();
    result.err = run->errorOutput();
    return result;
  }

  static std::vector<Block> ReadmeBlocks() {
    return FencedBlocks(ReadFile(fs::path(HARKWELL_SOURCE_DIR) / "README.md"));
  }

  static inline fs::path* work_ = nullptr;
  static inline fs::path* clone_ = nullptr;
  static inline std::map<std::string, std::string>* environment_ = nullptr;
};

TEST_F(Readme, EveryConsoleCommandEndsAndPrintsWhatTheReadmeShows) {
  const auto commands = ConsoleCommands(ReadmeBlocks());
  ASSERT_GE(commands.size(), 4u) << "the README shows how to run harkwell";
  for (const auto& command : commands) {
    SCOPED_TRACE("README.md:" + std::to_string(command.line) + ": $ " + command.command);
    const auto result = RunCommand(command.command, *clone_, *environment_);
    ASSERT_NE(result.status, -1) << "did not end within " << kCommandDeadline.count() << " s:\n"
                                 << result.out;
    EXPECT_EQ(result.status, command.status) << result.out;
    EXPECT_TRUE(LinesMatch(command.expected, 0, Lines(result.out), 0))
        << "the README shows:\n"
        << Joined(command.expected) << "it printed:\n"
        << result.out;
  }
}

// A block right after "<!-- path -->" quotes that file of the repository in full.
TEST_F(Readme, EveryExampleItQuotesIsTheFileItNames) {
  static const std::regex kQuoted(R"(<!-- (\S+) -->)");
  const auto blocks = ReadmeBlocks();
  std::vector<std::string> quoted;
  for (const auto& block : blocks) {
    std::smatch path;
    if (!std::regex_match(block.precededBy, path, kQuoted)) continue;
    quoted.push_back(path[1]);
    SCOPED_TRACE("README.md:" + std::to_string(block.firstLine) + ": " + quoted.back());
    EXPECT_EQ(Joined(block.lines), ReadFile(fs::path(HARKWELL_SOURCE_DIR) / quoted.back()));
  }
  EXPECT_NE(std::find(quoted.begin(), quoted.end(), "examples/library/device_watch.cpp"),
            quoted.end())
      << "the README quotes the library example";
#ifdef HARKWELL_PYTHON_INSTALL_DIR
  EXPECT_NE(std::find(quoted.begin(), quoted.end(), "examples/python/watch_devices.py"),
            quoted.end())
      << "the README quotes the Python example";
#endif
}

TEST_F(Readme, TheInstallHasTheManualPageAndTheCompletionsItMentions) {
  const fs::path prefix = *work_ / "prefix";
  for (const char* file :
       {"share/man/man1/harkwell.1", "share/bash-completion/completions/harkwell",
        "share/zsh/site-functions/_harkwell", "share/fish/vendor_completions.d/harkwell.fish"}) {
    EXPECT_TRUE(fs::is_regular_file(prefix / file)) << file;
  }
}

TEST_F(Readme, TheInstallHasTheBusFilesItMentions) {
  const fs::path prefix = *work_ / "prefix";
  for (const char* file : {"share/dbus-1/interfaces/org.harkwell.Devices1.xml",
                           "share/dbus-1/services/org.harkwell.Devices1.service",
                           "lib/systemd/user/harkwell.service"}) {
    EXPECT_TRUE(fs::is_regular_file(prefix / file)) << file;
  }
}

// The status-bar lines the README shows, as the commands print them, pass their format's schema.
TEST_F(Readme, TheStatusBarLinesItShowsPassTheirFormatsSchema) {
  static const std::regex kFormat(R"(--format (\S+))");
  std::size_t checked = 0;
  for (const auto& command : ConsoleCommands(ReadmeBlocks())) {
    std::smatch format;
    if (!std::regex_search(command.command, format, kFormat)) continue;
    SCOPED_TRACE("README.md:" + std::to_string(command.line) + ": $ " + command.command);
    const std::string source = HARKWELL_SOURCE_DIR;
    const auto result =
        RunCommand(command.command + " | '" + source + "/tests/cli/check_bar_lines.py' " +
                       format[1].str() + " '" + source + "/tests/cli/bar-schemas'",
                   *clone_, *environment_);
    EXPECT_EQ(result.status, 0) << result.out;
    EXPECT_NE(result.out.find("lines valid"), std::string::npos) << result.out;
    ++checked;
  }
  EXPECT_GE(checked, 2u) << "the README shows waybar and i3status-rust lines";
}

TEST_F(Readme, TheScenarioItShowsPlaysToItsEnd) {
  const auto blocks = ReadmeBlocks();
  const auto block = std::find_if(blocks.begin(), blocks.end(), [](const Block& b) {
    return b.language == "json" && Joined(b.lines).find("\"steps\"") != std::string::npos;
  });
  ASSERT_NE(block, blocks.end()) << "no scenario in the README";
  const TemporaryFile scenario(Joined(block->lines));
  const auto result =
      RunCommand("harkwell watch --scenario '" + scenario.path() + "'", *clone_, *environment_);
  ASSERT_EQ(result.status, 0) << result.out;
  EXPECT_NE(result.out.find("Disconnected"), std::string::npos) << result.out;
}

}  // namespace
}  // namespace harkwell::testing
