// The number of heap bytes the process has allocated and not yet freed, for tests that check
// that a long run keeps its memory flat. In-use bytes are steadier than the resident set size,
// which moves with the allocator's caching and the kernel's paging.
//
// Under AddressSanitizer or ThreadSanitizer the sanitizer's allocator answers (its count leaves
// out the quarantine and the shadow memory); otherwise glibc's mallinfo2(). Any thread may call.
#pragma once

#include <cstddef>

namespace harkwell::testing {

std::size_t HeapBytesInUse();

}  // namespace harkwell::testing
