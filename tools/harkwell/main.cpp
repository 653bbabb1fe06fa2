// harkwell: lists and watches the computer's microphones, speakers and cameras.
#include <unistd.h>

#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "HarkwellFoundation/Platform/SystemLog.h"
#include "tools/harkwell/Commands.h"
#include "tools/harkwell/LogLines.h"

int main(int argc, char** argv) {
  using namespace harkwell::cli;
  LineWriter out(STDOUT_FILENO);
  LineWriter err(STDERR_FILENO);

  std::ostringstream usageOut;
  std::ostringstream usageErr;
  const auto parsed =
      ParseCommandLine(std::vector<std::string>(argv + 1, argv + argc), usageOut, usageErr);
  out.write(usageOut.str());
  err.write(usageErr.str());
  if (!parsed.options) return parsed.exitCode;
  const Options& options = *parsed.options;

  // The library's log lines go to stderr only, never into the output a program may be parsing.
  harkwell::InstallLogSink([&err, verbose = options.verbose](std::string_view line) {
    if (verbose || !IsExpectedConditionLine(line)) err.writeLine(StderrLogLine(line));
  });

  CommandContext context{out, err, Painter(ShouldUseColour(STDOUT_FILENO))};
  int status = 1;
  switch (options.command) {
    case Command::List:
      status = RunList(options, context);
      break;
    case Command::Watch:
      status = RunWatch(options, context);
      break;
    case Command::Hog:
      status = RunHog(options, context);
      break;
    case Command::Model:
      status = RunModel(options, context);
      break;
    case Command::Serve:
      status = RunServe(options, context);
      break;
  }
  harkwell::InstallLogSink(nullptr);
  return status;
}
