#!/usr/bin/env bash
# Builds the libFuzzer targets (fuzz/, clang with AddressSanitizer + UBSan) and runs each for a
# bounded time from its seed corpus in fuzz/corpus/<target>/.
#   scripts/fuzz.sh                 every target for 25 s (what CI runs)
#   scripts/fuzz.sh 3600            every target for an hour
#   scripts/fuzz.sh 600 scenario_parser_fuzzer   one target
# Inputs the fuzzer finds new coverage with go to build/fuzz/corpus/<target>/, never into the
# repository; a crash leaves its input in build/fuzz/crashes/ and fails the script.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${1:-25}"
shift || true
compiler="$(command -v clang++-14 || command -v clang++)"
build=build/fuzz

cmake -S fuzz -B "$build" -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  >/dev/null
cmake --build "$build" -j "$(nproc)" >/dev/null

if [ $# -gt 0 ]; then
  targets=("$@")
else
  mapfile -t targets < <(find "$build" -maxdepth 1 -name '*_fuzzer' -type f -executable \
    -printf '%f\n' | sort)
fi

mkdir -p "$build/crashes"
status=0
for target in "${targets[@]}"; do
  corpus="$build/corpus/$target"
  mkdir -p "$corpus"
  seeds=()
  if [ -d "fuzz/corpus/$target" ]; then seeds=("fuzz/corpus/$target"); fi
  options=()
  if [ -f "fuzz/$target.dict" ]; then options=(-dict="fuzz/$target.dict"); fi
  echo "fuzz: $target for ${seconds} s"
  # The seed corpus is read but not written; new inputs go to the scratch corpus first in the list.
  if ! ASAN_OPTIONS="detect_leaks=1:abort_on_error=1" UBSAN_OPTIONS="print_stacktrace=1" \
    "$build/$target" "${options[@]}" "$corpus" "${seeds[@]}" -max_total_time="$seconds" -timeout=20 \
    -rss_limit_mb=3072 -print_final_stats=1 -artifact_prefix="$build/crashes/$target-" \
    >"$build/$target.log" 2>&1; then
    echo "fuzz: $target FAILED; the end of its log ($build/$target.log):"
    tail -n 40 "$build/$target.log"
    status=1
  else
    grep -E '^stat::number_of_executed_units|^stat::new_units_added' "$build/$target.log" |
      sed "s/^/fuzz: $target /"
  fi
done
exit "$status"
