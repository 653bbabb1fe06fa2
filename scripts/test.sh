#!/usr/bin/env bash
# Builds the project and runs its whole test suite.
#   scripts/test.sh                 the debug build (the README's test command)
#   scripts/test.sh asan|tsan       the same suite under AddressSanitizer+UBSan or ThreadSanitizer
set -euo pipefail
cd "$(dirname "$0")/.."

preset="${1:-debug}"
scripts/install-deps.sh

jobs="$(nproc)"
# The Python module is built wherever it can be; on Linux, where install-deps.sh provides what it
# needs, its absence is an error rather than a suite quietly left out.
python_module=()
if [ "$(uname -s)" = Linux ]; then
  python_module=(-DHARKWELL_BUILD_PYTHON=ON)
fi
cmake --preset "$preset" "${python_module[@]}" >/dev/null
cmake --build --preset "$preset" -j "$jobs"
ctest --preset "$preset" -j "$jobs" --timeout 300
