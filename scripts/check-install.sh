#!/usr/bin/env bash
# Installs the library into temporary prefixes, once static (with the harkwell program) and once
# shared (BUILD_SHARED_LIBS=ON, the library alone), and for each prefix:
#   - checks that it holds only public headers (no internal/ folder, no platform implementation)
#     and that each installed header compiles on its own;
#   - for the shared library, checks its soname and that internal symbols stay hidden;
#   - builds examples/library against it twice, once with find_package and once with pkg-config,
#     and runs each build on simulated devices (and the installed program once);
#   - imports the installed Python package, where the build has one, and reads an event with it.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
jobs="$(nproc)"
source_dir="$PWD"

# install_library <name> <cmake arguments...>: builds and installs into $work/<name>/prefix.
install_library() {
  local name=$1
  shift
  local prefix="$work/$name/prefix"
  echo "== $name: building and installing into $prefix"
  cmake -S . -B "$work/$name/build" -DCMAKE_BUILD_TYPE=Release -DHARKWELL_WARNINGS_AS_ERRORS=ON \
    -DHARKWELL_BUILD_TESTS=OFF -DHARKWELL_BUILD_BENCHMARKS=OFF -DCMAKE_INSTALL_PREFIX="$prefix" \
    "$@" >/dev/null
  cmake --build "$work/$name/build" -j "$jobs" >/dev/null
  cmake --install "$work/$name/build" >/dev/null
}

# check_headers <prefix>: only public headers, each one compiling alone.
check_headers() {
  local include="$1/include"
  for wanted in HarkwellFoundation/HarkwellFoundation.h HarkwellFoundation/HarkwellFoundationExport.h \
    HarkwellFoundation/Controller/MediaDeviceController.h \
    HarkwellFoundation/Platform/Simulated/SimulatedHardwareServices.h; do
    [ -e "$include/$wanted" ] || { echo "missing from the install: $wanted" >&2; exit 1; }
  done
  local private
  private="$(find "$include" \( -name internal -o -name Linux -o -name Posix -o -name Apple \) -print)"
  if [ -n "$private" ]; then
    echo "private headers were installed:" >&2
    echo "$private" >&2
    exit 1
  fi
  local header
  while IFS= read -r header; do
    printf '#include "%s"\n' "${header#"$include/"}" |
      c++ -std=c++20 -fsyntax-only -Wall -Wextra -Werror -x c++ -I "$include" - ||
      { echo "an installed header does not compile on its own: $header" >&2; exit 1; }
  done < <(find "$include" -name '*.h')
  echo "headers: $(find "$include" -name '*.h' | wc -l) public headers, each compiles alone"
}

# check_example <name>: examples/library against $work/<name>/prefix, both ways.
check_example() {
  local name=$1
  local prefix="$work/$name/prefix"
  local libdir
  libdir="$(dirname "$(find "$prefix" -name HarkwellFoundation.pc -print -quit)")/.."
  [ -f "$libdir/cmake/HarkwellFoundation/HarkwellFoundationConfig.cmake" ] ||
    { echo "missing from the install: the CMake package" >&2; exit 1; }

  echo "== $name: examples/library with find_package(HarkwellFoundation)"
  cmake -S examples/library -B "$work/$name/library-cmake" -DCMAKE_PREFIX_PATH="$prefix" \
    >/dev/null
  cmake --build "$work/$name/library-cmake" >/dev/null
  "$work/$name/library-cmake/device-watch" --simulated --duration 1

  echo "== $name: examples/library with pkg-config"
  local flags
  read -r -a flags <<<"$(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags --libs \
    HarkwellFoundation)"
  c++ -std=c++20 examples/library/device_watch.cpp "${flags[@]}" \
    -o "$work/$name/library-pkg-config"
  LD_LIBRARY_PATH="$libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}" \
    "$work/$name/library-pkg-config" --simulated --duration 1
}

install_library static -DHARKWELL_BUILD_TOOLS=ON
check_headers "$work/static/prefix"
[ -e "$work/static/prefix/bin/harkwell" ] || { echo "missing from the install: bin/harkwell" >&2; exit 1; }
echo "== static: the installed program"
"$work/static/prefix/bin/harkwell" list --scenario "$source_dir/examples/scenario.json"
check_example static
# The Python package, where the build has it: importable from the prefix alone.
package="$(find "$work/static/prefix" -path '*-packages/harkwell/__init__.py' -print -quit)"
if [ -n "$package" ]; then
  echo "== static: the installed Python package"
  python="$(sed -n 's/^Python3_EXECUTABLE:[A-Z]*=//p' "$work/static/build/CMakeCache.txt")"
  PYTHONPATH="$(dirname "$(dirname "$package")")" "$python" -c \
    'import harkwell; audio, _ = harkwell.use_simulated_services(); audio.add_device(100, "Mic", "mic", model_uid="m"); print(next(iter(harkwell.MediaDeviceController().events(timeout=10))).event)'
fi

# check_bus_files <prefix>: `harkwell serve`'s interface description, user unit and activation
# file, each naming the installed program.
check_bus_files() {
  local prefix=$1
  local interfaces="$prefix/share/dbus-1/interfaces/org.harkwell.Devices1.xml"
  local activation="$prefix/share/dbus-1/services/org.harkwell.Devices1.service"
  local unit="$prefix/lib/systemd/user/harkwell.service"
  for file in "$interfaces" "$activation" "$unit"; do
    [ -f "$file" ] || { echo "missing from the install: ${file#"$prefix/"}" >&2; exit 1; }
  done
  python3 -c 'import sys, xml.etree.ElementTree as tree; tree.parse(sys.argv[1])' "$interfaces" ||
    { echo "not well-formed XML: $interfaces" >&2; exit 1; }
  grep -qx "Exec=$prefix/bin/harkwell serve" "$activation" ||
    { echo "the activation file does not start the installed harkwell serve" >&2; exit 1; }
  grep -qx "ExecStart=$prefix/bin/harkwell serve" "$unit" ||
    { echo "the user unit does not start the installed harkwell serve" >&2; exit 1; }
  grep -qx "SystemdService=harkwell.service" "$activation" ||
    { echo "the activation file does not name the user unit" >&2; exit 1; }
  echo "bus files: interfaces, activation file and user unit name $prefix/bin/harkwell serve"
}
check_bus_files "$work/static/prefix"

install_library shared -DBUILD_SHARED_LIBS=ON -DHARKWELL_BUILD_TOOLS=OFF
check_headers "$work/shared/prefix"
library="$(find "$work/shared/prefix" -name 'libHarkwellFoundation.so.*.*' -print -quit)"
[ -n "$library" ] || { echo "missing from the install: the shared library" >&2; exit 1; }
soname="$(objdump -p "$library" | awk '$1 == "SONAME" {print $2}')"
echo "shared library: $(basename "$library"), soname $soname"
[[ "$soname" == libHarkwellFoundation.so.* ]] || { echo "no versioned soname" >&2; exit 1; }
# The public API is exported; the pieces behind it are not.
exported="$(nm -D -C --defined-only "$library")"
grep -q 'harkwell::MediaDeviceController::create' <<<"$exported" ||
  { echo "the shared library does not export the public API" >&2; exit 1; }
if grep -E 'harkwell::(PropertyListenerRegistry|HardwarePropertyReader|PulseAudio)' <<<"$exported"; then
  echo "the shared library exports internal symbols (above)" >&2
  exit 1
fi
check_example shared

echo "install check: passed"
