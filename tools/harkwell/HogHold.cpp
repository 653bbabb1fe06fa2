#include "tools/harkwell/HogHold.h"

#include <signal.h>

#include <cstdio>

#include "tools/harkwell/QueueBarrier.h"
#include "tools/harkwell/Seconds.h"
#include "tools/harkwell/TerminalText.h"

namespace harkwell::cli {

void HoldWhileAsked(const Options& options, const MediaDevice& device, CommandContext& context,
                    const StopSignals* signals) {
  const std::string name = EscapeForTerminal(device.name);
  if (!options.hold || signals == nullptr) {
    context.err.writeLine("harkwell: the hold on " + name +
                          " ends when harkwell exits, which is now (--hold keeps it)");
    return;
  }
  const StopRequest stop;
  // Nothing is queued while holding; the loop only needs a barrier to wait for.
  QueueBarrier barrier(DispatchQueue::createSerial("com.harkwell.cli.hold"));
  std::optional<std::chrono::steady_clock::time_point> deadline;
  if (options.durationSeconds) {
    deadline = std::chrono::steady_clock::now() + SecondsToDuration(*options.durationSeconds);
  }
  std::string length;
  if (options.durationSeconds) {
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, " for %g s", *options.durationSeconds);
    length = seconds;
  }
  context.err.writeLine("harkwell: holding " + name + length + "; press Ctrl-C to let go");
  // A closed stdout ends the hold in the loop's poll rather than killing the program.
  signal(SIGPIPE, SIG_IGN);
  RunWatchLoop(WatchLoopSettings{.signals = *signals,
                                 .stop = stop,
                                 .outputFd = context.out.fd(),
                                 .deadline = deadline,
                                 .scenario = nullptr,
                                 .barrier = barrier,
                                 .endAfterScenario = false});
  device.disableHogMode();
}

}  // namespace harkwell::cli
