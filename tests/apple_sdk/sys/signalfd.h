// macOS has no <sys/signalfd.h>: a source that the Apple build compiles must not include it.
#error "<sys/signalfd.h> is Linux-only and does not exist on macOS"
