#include "tests/cli/HarkwellRun.h"

#include <stdlib.h>

#include <filesystem>
#include <fstream>

namespace harkwell::testing {

ProgramResult RunHarkwell(const std::vector<std::string>& arguments,
                          const std::map<std::string, std::string>& environment,
                          std::chrono::milliseconds deadline) {
  ProgramResult result;
  auto run = StartHarkwell(arguments, environment);
  if (!run) return result;
  result.status = run->waitForExitCode(deadline).value_or(-1);
  result.out = run->unreadOutput();
  result.err = run->errorOutput();
  return result;
}

std::unique_ptr<ChildProcess> StartHarkwell(const std::vector<std::string>& arguments,
                                            const std::map<std::string, std::string>& environment) {
  std::vector<std::string> argv{HARKWELL_PROGRAM};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  return ChildProcess::launch(argv, {.environment = environment});
}

TemporaryFile::TemporaryFile(const std::string& text, const std::string& name) {
  std::string pattern = (std::filesystem::temp_directory_path() / "harkwell-cli-XXXXXX").string();
  if (mkdtemp(pattern.data()) != nullptr) folder_ = pattern;
  path_ = folder_ + "/" + name;
  std::ofstream(path_, std::ios::binary) << text;
}

TemporaryFile::~TemporaryFile() {
  std::error_code ignored;
  if (!folder_.empty()) std::filesystem::remove_all(folder_, ignored);
}

}  // namespace harkwell::testing
