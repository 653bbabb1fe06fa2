#!/usr/bin/env bash
# Installs the library and the harkwell program into a temporary prefix, then builds
# examples/library against that prefix twice, once with find_package and once with pkg-config,
# and runs each build (on simulated devices) and the installed program once.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"
jobs="$(nproc)"

echo "== building and installing into $prefix"
cmake -S . -B "$work/build" -DCMAKE_BUILD_TYPE=Release -DHARKWELL_WARNINGS_AS_ERRORS=ON \
  -DHARKWELL_BUILD_TESTS=OFF -DHARKWELL_BUILD_BENCHMARKS=OFF -DHARKWELL_BUILD_TOOLS=ON \
  -DCMAKE_INSTALL_PREFIX="$prefix" \
  >/dev/null
cmake --build "$work/build" -j "$jobs" >/dev/null
cmake --install "$work/build" >/dev/null

for wanted in bin/harkwell include/HarkwellFoundation/HarkwellFoundation.h \
  include/HarkwellFoundation/Controller/MediaDeviceController.h; do
  [ -e "$prefix/$wanted" ] || { echo "missing from the install: $wanted" >&2; exit 1; }
done
libdir="$(dirname "$(find "$prefix" -name HarkwellFoundation.pc -print -quit)")/.."
[ -f "$libdir/cmake/HarkwellFoundation/HarkwellFoundationConfig.cmake" ] ||
  { echo "missing from the install: the CMake package" >&2; exit 1; }

echo "== the installed program"
"$prefix/bin/harkwell" list --scenario examples/scenario.json

echo "== examples/library with find_package(HarkwellFoundation)"
cmake -S examples/library -B "$work/library-cmake" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/library-cmake" >/dev/null
"$work/library-cmake/device-watch" --simulated --duration 1

echo "== examples/library with pkg-config"
export PKG_CONFIG_PATH="$libdir/pkgconfig${PKG_CONFIG_PATH:+:$PKG_CONFIG_PATH}"
read -r -a flags <<<"$(pkg-config --cflags --libs HarkwellFoundation)"
c++ -std=c++20 examples/library/device_watch.cpp "${flags[@]}" -o "$work/library-pkg-config"
"$work/library-pkg-config" --simulated --duration 1

echo "install check: passed"
