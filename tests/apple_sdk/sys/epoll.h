// macOS has no <sys/epoll.h>: a source that the Apple build compiles must not include it.
#error "<sys/epoll.h> is Linux-only and does not exist on macOS"
