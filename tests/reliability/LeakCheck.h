// An explicit LeakSanitizer pass for tests that must end without leaks, so a leak fails the test
// that caused it instead of only the process's exit. Without LeakSanitizer (debug and
// ThreadSanitizer builds) there is nothing to check and it reports no leak. Main thread only.
#pragma once

namespace harkwell::testing {

// Whether this build runs LeakSanitizer at all.
bool LeakCheckAvailable();
// Runs a leak check now; true when it found unreachable allocations (and printed them).
bool LeaksFoundNow();

}  // namespace harkwell::testing
