// macOS has no <sys/sysmacros.h>: a source that the Apple build compiles must not include it.
#error "<sys/sysmacros.h> is Linux-only and does not exist on macOS"
