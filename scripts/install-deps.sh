#!/usr/bin/env bash
# Installs the Debian packages the project builds, tests and runs with. Does nothing when they are
# all present already, so it is cheap to call before every build.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git
  libgtest-dev libgmock-dev libbenchmark-dev
  libpulse-dev pulseaudio pulseaudio-utils
  libsystemd-dev dbus-daemon dbus-bin
  python3 python3-jsonschema python3-gi gir1.2-glib-2.0 systemd libglib2.0-bin
  libpipewire-0.3-dev pipewire pipewire-bin pipewire-pulse wireplumber
  libcli11-dev nlohmann-json3-dev
  python3 python3-dev pybind11-dev python3-pytest
  psmisc lsof procps bsdutils
  groff-base zsh fish
  clang-14 clang-format-14 libclang-rt-14-dev
)

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" ||
    missing+=("$package")
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "Installing: ${missing[*]}"
sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then
  if ! command -v sudo >/dev/null; then
    echo "install-deps: these packages are missing and sudo is not installed; run this script" \
      "as root or install sudo" >&2
    exit 1
  fi
  sudo_cmd=(sudo)
fi
"${sudo_cmd[@]}" apt-get update -q
DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -q --no-install-recommends \
  "${missing[@]}"
