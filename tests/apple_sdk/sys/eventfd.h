// macOS has no <sys/eventfd.h>: a source that the Apple build compiles must not include it.
#error "<sys/eventfd.h> is Linux-only and does not exist on macOS"
