#!/usr/bin/env bash
# The main job: installs what is needed, builds the harkwell program (release preset) and watches
# the machine's microphones, speakers and cameras live for a few seconds.
#
# When no sound server answers (a fresh machine, a container, CI), it starts a private PulseAudio
# daemon on a private socket and, while the watch runs, plugs in a null microphone, records from
# it for two seconds and unplugs it again, so Connected, ChangedRunning true and false, and
# Disconnected show up as they happen. The daemon is stopped again on exit.
#
#   scripts/run.sh                  watch for 8 seconds
#   scripts/run.sh --json           any further options go to `harkwell watch`
#   HARKWELL_RUN_SECONDS=30 scripts/run.sh
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${HARKWELL_RUN_SECONDS:-8}"

scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)" --target harkwell
harkwell="$PWD/build/release/tools/harkwell"

if pactl info >/dev/null 2>&1; then
  echo "Watching with the sound server already running here for ${seconds} s."
  echo "Open a program that uses the microphone or the camera to see ChangedRunning."
  exec "$harkwell" watch --duration "$seconds" "$@"
fi

echo "No sound server answers here: starting a private PulseAudio."
folder="$(mktemp -d)"
daemon=""
recorder=""
cleanup() {
  [ -n "$recorder" ] && kill "$recorder" 2>/dev/null || true
  if [ -n "$daemon" ]; then
    kill "$daemon" 2>/dev/null || true
    wait "$daemon" 2>/dev/null || true
  fi
  rm -rf "$folder"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

mkdir -p "$folder/home" "$folder/runtime/pulse" "$folder/state" "$folder/config"
microphone="harkwell_demo_microphone"
socket="$folder/native"
# Its own HOME and runtime folders, no D-Bus and no autospawn, so it meets no other server.
env HOME="$folder/home" XDG_RUNTIME_DIR="$folder/runtime" XDG_CONFIG_HOME="$folder/config" \
  PULSE_RUNTIME_PATH="$folder/runtime/pulse" PULSE_STATE_PATH="$folder/state" \
  pulseaudio -n --daemonize=no --system=no --exit-idle-time=-1 --disallow-exit=yes \
  --use-pid-file=no --realtime=no --high-priority=no --log-target=stderr \
  -L "module-native-protocol-unix auth-anonymous=1 socket=$socket" \
  2>"$folder/pulseaudio.log" &
daemon=$!

export PULSE_SERVER="unix:$socket"
for _ in $(seq 100); do
  pactl info >/dev/null 2>&1 && break
  if ! kill -0 "$daemon" 2>/dev/null; then
    echo "pulseaudio did not start:" >&2
    cat "$folder/pulseaudio.log" >&2
    exit 1
  fi
  sleep 0.1
done
pactl info >/dev/null 2>&1 || { echo "pulseaudio did not answer:" >&2; cat "$folder/pulseaudio.log" >&2; exit 1; }

# The demonstration's timeline: plug the microphone in at 1 s, record from it from 2 s to 4 s,
# unplug it at 5 s.
(
  sleep 1
  module="$(pactl load-module module-null-source "source_name=$microphone" \
    'description="Demo Microphone (null)"')"
  sleep 1
  parec --device="$microphone" >/dev/null &
  recording=$!
  sleep 2
  kill "$recording" 2>/dev/null || true
  wait "$recording" 2>/dev/null || true
  sleep 1
  pactl unload-module "$module"
) &
recorder=$!

echo "Watching for ${seconds} s: a demo microphone is plugged in at 1 s, records from 2 s to 4 s"
echo "and is unplugged at 5 s."
"$harkwell" watch --duration "$seconds" "$@"
