#include "tests/reliability/HeapInUse.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define HARKWELL_SANITIZER_ALLOCATOR 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define HARKWELL_SANITIZER_ALLOCATOR 1
#endif
#endif

#ifdef HARKWELL_SANITIZER_ALLOCATOR
// Exported by the ASan and TSan runtimes of both GCC and clang; GCC ships no header for it.
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();
#elif defined(__APPLE__)
#include <malloc/malloc.h>
#else
#include <malloc.h>
#endif

namespace harkwell::testing {

std::size_t HeapBytesInUse() {
#ifdef HARKWELL_SANITIZER_ALLOCATOR
  return __sanitizer_get_current_allocated_bytes();
#elif defined(__APPLE__)
  // Bytes in use across every malloc zone.
  malloc_statistics_t statistics{};
  malloc_zone_statistics(nullptr, &statistics);
  return statistics.size_in_use;
#else
  // Bytes in chunks handed out from the arenas plus those in separately mapped large chunks.
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
#endif
}

}  // namespace harkwell::testing
