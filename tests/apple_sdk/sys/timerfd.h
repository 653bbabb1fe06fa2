// macOS has no <sys/timerfd.h>: a source that the Apple build compiles must not include it.
#error "<sys/timerfd.h> is Linux-only and does not exist on macOS"
