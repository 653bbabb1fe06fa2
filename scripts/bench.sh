#!/usr/bin/env bash
# Builds the optimised (release) preset, runs every benchmark program and ends with one table of
# ratios, each measurement beside its baseline from the same run:
#   scripts/bench.sh                  everything (about five minutes)
#   scripts/bench.sh --quick          shorter repetitions, for a smoke test
#   scripts/bench.sh [--quick] v4l2_bench ...   only the programs named, and only their rows
# Each program's own output goes to build/release/bench-results/<program>.log, its numbers to
# <program>.json beside it. Benchmarks that need what the machine lacks (pulseaudio or pactl for the
# PulseAudio ones; fuser or lsof for v4l2_bench, which builds its own fake camera node) skip, and
# the table says so.
set -euo pipefail
cd "$(dirname "$0")/.."

min_time=()
if [ "${1:-}" = "--quick" ]; then
  min_time=(--benchmark_min_time=0.05)
  shift
fi
programs=(observer_bench backend_bench controller_bench pulse_bench consumers_bench pipewire_bench
  v4l2_bench process_details_bench)
if [ $# -gt 0 ]; then programs=("$@"); fi

scripts/install-deps.sh
cmake --preset release >/dev/null
# The programs to run and the table that reads their results, and what they depend on.
cmake --build --preset release -j "$(nproc)" --target bench_table "${programs[@]}" >/dev/null

results=build/release/bench-results
rm -rf "$results"
mkdir -p "$results"
for program in "${programs[@]}"; do
  binary="build/release/bench/$program"
  [ -x "$binary" ] || continue
  echo "bench: $program"
  if ! "$binary" "${min_time[@]}" --benchmark_out="$results/$program.json" \
    --benchmark_out_format=json >"$results/$program.log" 2>&1; then
    echo "bench: $program failed; see $results/$program.log"
  fi
done
echo
# The table's rows come from bench/bench_table.cpp, the one list of measurement/baseline pairs.
if [ $# -eq 0 ]; then
  build/release/bench/bench_table "$results"
else
  files=()
  for program in "${programs[@]}"; do files+=("$results/$program.json"); done
  build/release/bench/bench_table "${files[@]}"
fi
