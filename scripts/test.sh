#!/usr/bin/env bash
# Builds the project and runs its whole test suite.
#   scripts/test.sh                 the debug build (the README's test command)
#   scripts/test.sh asan|tsan       the same suite under AddressSanitizer+UBSan or ThreadSanitizer
set -euo pipefail
cd "$(dirname "$0")/.."

preset="${1:-debug}"
scripts/install-deps.sh

jobs="$(nproc)"
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" -j "$jobs"
ctest --preset "$preset" -j "$jobs" --timeout 300
