#!/usr/bin/env bash
# Fails when a C++ file tracked by git differs from what clang-format makes of it.
set -euo pipefail
cd "$(dirname "$0")/.."

formatter="$(command -v clang-format-14 || command -v clang-format)"
mapfile -t files < <(git ls-files '*.h' '*.cpp' '*.mm' | grep -v '^tests/apple_sdk/')
if [ ${#files[@]} -eq 0 ]; then exit 0; fi
"$formatter" --dry-run --Werror "${files[@]}"
echo "format: ${#files[@]} files clean"
