#!/usr/bin/env bash
# Checks the macOS build on a machine without the macOS SDK: clang compiles every source that the
# Apple build compiles in syntax-only mode (-fsyntax-only: parsed and type-checked, nothing is
# generated, linked or run), with __APPLE__ defined, against the declaration headers in
# tests/apple_sdk (see the README there). Exits non-zero on any error or warning.
#
# What is checked:
#   - every file in HarkwellFoundation/Platform/Apple (.cpp as C++, .mm as Objective-C++, .h on
#     its own);
#   - every other library source that the Apple build compiles: all of HarkwellFoundation's .cpp
#     files except HarkwellFoundation/Platform/Linux/, HarkwellFoundation/Platform/Posix/ and the
#     Linux variants (*Linux.cpp), so
#     the Apple branches of shared headers (PlatformString.h) are compiled by their users;
#   - every library header with an __APPLE__ branch, on its own;
#   - the harkwell program's sources, tools/harkwell/*.cpp;
#   - the macOS-only test suites, tests/apple_*_test.cpp.
#
# The host's C and C++ library headers stand in for Apple's libc and libc++ (with __linux__
# undefined), so a glibc-only function goes unnoticed; tests/apple_sdk does make the common
# Linux-only headers (<sys/epoll.h>, <sys/inotify.h>, <linux/videodev2.h>, ...) an error.
#
# Usage: scripts/check-apple-sources.sh [-v] [--library-only]
#   -v              name every file checked
#   --library-only  leave out the harkwell program's sources
#   CLANGXX=...     the compiler (default clang++-14, else clang++)
set -uo pipefail
cd "$(dirname "$0")/.."

verbose=0
with_tools=1
for argument in "$@"; do
  case "$argument" in
    -v) verbose=1 ;;
    --library-only) with_tools=0 ;;
    *)
      echo "check-apple-sources: unknown option $argument" >&2
      exit 2
      ;;
  esac
done

clang=${CLANGXX:-}
if [[ -z "$clang" ]]; then
  for candidate in clang++-14 clang++; do
    if command -v "$candidate" >/dev/null; then
      clang=$candidate
      break
    fi
  done
fi
if [[ -z "$clang" ]]; then
  echo "check-apple-sources: no clang++ found (install clang-14)" >&2
  exit 2
fi

# The project's warnings (cmake/HarkwellWarnings.cmake), as errors.
flags=(-fsyntax-only -fblocks -std=c++20 -D__APPLE__ -U__linux__ -U__linux -Ulinux -U__gnu_linux__
  -isystem tests/apple_sdk -I .
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast -Woverloaded-virtual
  -Wno-missing-field-initializers -Werror)

files=()
while IFS= read -r file; do files+=("$file"); done < <(
  {
    find HarkwellFoundation/Platform/Apple -type f \( -name '*.cpp' -o -name '*.mm' -o -name '*.h' \)
    find HarkwellFoundation -type f -name '*.cpp' \
      -not -path 'HarkwellFoundation/Platform/Linux/*' -not -path 'HarkwellFoundation/Platform/Posix/*' \
      -not -name '*Linux.cpp'
    grep -rl --include='*.h' '__APPLE__' HarkwellFoundation
    if ((with_tools)); then find tools/harkwell -type f -name '*.cpp'; fi
    find tests -maxdepth 1 -type f -name 'apple_*_test.cpp'
  } | sort -u)

failed=0
for file in "${files[@]}"; do
  case "$file" in
    *.mm) language=(-x objective-c++) ;;
    *.h) language=(-x c++-header) ;;
    *) language=() ;;
  esac
  if output=$("$clang" "${language[@]}" "${flags[@]}" "$file" 2>&1); then
    ((verbose)) && echo "ok      $file"
  else
    echo "FAILED  $file"
    echo "$output"
    failed=$((failed + 1))
  fi
done

if ((failed)); then
  echo "check-apple-sources: $failed of ${#files[@]} files failed" >&2
  exit 1
fi
echo "check-apple-sources: ${#files[@]} files pass"
