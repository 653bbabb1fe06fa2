// The manual page and the bash, zsh and fish completions of harkwell, all generated from the
// command line's own description (VisitCommandLineDefinition), so a new option reaches every one
// of them and none can drift from what the program accepts.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace CLI {
class App;
}

namespace harkwell::cli {

struct OptionDoc {
  std::vector<std::string> names;  // "-v", "--verbose"; a positional's one name ("action")
  std::string value;  // the value's name ("SECONDS", "none|pulse|simulated"); "" for a flag
  std::vector<std::string> choices;  // the words of a choice value
  std::string description;
  bool positional = false;

  bool takesValue() const { return !value.empty(); }
  // How a shell completes the value: a file, a folder, one of `choices`, or nothing.
  bool completesFile() const { return value == "FILE"; }
  bool completesFolder() const { return value == "DIR"; }
};

struct CommandDoc {
  std::string name;
  std::string description;
  std::vector<OptionDoc> options;  // positionals among them, in their order
};

struct ProgramDoc {
  std::string name;
  std::string description;
  std::vector<OptionDoc> options;  // the program's own: -h, --version, -v
  std::vector<CommandDoc> commands;
};

ProgramDoc DescribeProgram(const CLI::App& app);

// roff with the man macros, section 1.
std::string ManPage(const ProgramDoc& program, std::string_view version);
// Each defines the completion and registers it for `harkwell`.
std::string BashCompletion(const ProgramDoc& program);
std::string ZshCompletion(const ProgramDoc& program);
std::string FishCompletion(const ProgramDoc& program);

}  // namespace harkwell::cli
