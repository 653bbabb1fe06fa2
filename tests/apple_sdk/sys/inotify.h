// macOS has no <sys/inotify.h>: a source that the Apple build compiles must not include it.
#error "<sys/inotify.h> is Linux-only and does not exist on macOS"
