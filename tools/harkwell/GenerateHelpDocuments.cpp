// harkwell_help_documents OUTPUT_FOLDER: writes harkwell.1 (the manual page), harkwell.bash,
// _harkwell (zsh) and harkwell.fish, generated from harkwell's command line. The build runs it and
// the install puts the files where man and the shells look.
#include <fstream>
#include <iostream>

#include "tools/harkwell/CommandLine.h"
#include "tools/harkwell/HelpDocuments.h"

#ifndef HARKWELL_CLI_VERSION
#define HARKWELL_CLI_VERSION "unknown"
#endif

int main(int argc, char** argv) {
  using namespace harkwell::cli;
  if (argc != 2) {
    std::cerr << "usage: harkwell_help_documents OUTPUT_FOLDER\n";
    return 2;
  }
  ProgramDoc program;
  VisitCommandLineDefinition([&program](const CLI::App& app) { program = DescribeProgram(app); });
  const std::string folder = argv[1];
  const std::pair<const char*, std::string> files[] = {
      {"harkwell.1", ManPage(program, HARKWELL_CLI_VERSION)},
      {"harkwell.bash", BashCompletion(program)},
      {"_harkwell", ZshCompletion(program)},
      {"harkwell.fish", FishCompletion(program)},
  };
  for (const auto& [name, text] : files) {
    std::ofstream file(folder + "/" + name, std::ios::binary);
    file << text;
    if (!file.flush()) {
      std::cerr << "harkwell_help_documents: cannot write " << folder << "/" << name << "\n";
      return 1;
    }
  }
  return 0;
}
