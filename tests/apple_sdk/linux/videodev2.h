// macOS has no <linux/videodev2.h>: a source that the Apple build compiles must not include it.
#error "<linux/videodev2.h> is Linux-only and does not exist on macOS"
