#include "tests/reliability/LeakCheck.h"

#if defined(__SANITIZE_ADDRESS__)
#define HARKWELL_LEAK_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define HARKWELL_LEAK_SANITIZER 1
#endif
#endif

#ifdef HARKWELL_LEAK_SANITIZER
#include <sanitizer/lsan_interface.h>
#endif

namespace harkwell::testing {

bool LeakCheckAvailable() {
#ifdef HARKWELL_LEAK_SANITIZER
  return true;
#else
  return false;
#endif
}

bool LeaksFoundNow() {
#ifdef HARKWELL_LEAK_SANITIZER
  return __lsan_do_recoverable_leak_check() != 0;
#else
  return false;
#endif
}

}  // namespace harkwell::testing
