#!/usr/bin/env bash
# Runs a command inside a private headless desktop: an Xvfb display, a tray host, and a PulseAudio
# daemon whose default source is a virtual microphone fed by whatever is played to its null sink.
# Everything started here is stopped here. Usage: scripts/with-harness.sh COMMAND [ARGS...]
set -uo pipefail

root=$(mktemp -d /tmp/voxaria-harness.XXXXXX)
export XDG_RUNTIME_DIR="$root/runtime"
mkdir -m 700 -p "$XDG_RUNTIME_DIR"
# PulseAudio keeps its cookie and state under HOME; keep the real user's folder out of it.
export HOME="$root/home"
mkdir -p "$HOME"
pids=()

cleanup() {
  for ((i = ${#pids[@]} - 1; i >= 0; i--)); do kill "${pids[i]}" 2>/dev/null; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null; done
  rm -rf "$root"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

log() { echo "harness: $*" >&2; }

start_x() {
  exec 5>"$root/display"
  Xvfb -displayfd 5 -screen 0 1920x1080x24 -nolisten tcp -noreset >"$root/xvfb.log" 2>&1 &
  pids+=($!)
  for _ in $(seq 100); do
    [ -s "$root/display" ] && break
    sleep 0.05
  done
  exec 5>&-
  [ -s "$root/display" ] || { log "Xvfb did not start"; cat "$root/xvfb.log" >&2; return 1; }
  export DISPLAY=":$(head -n1 "$root/display")"
  log "X display $DISPLAY"
}

start_tray() {
  command -v trayer >/dev/null || return 0
  trayer --edge top --align right --widthtype pixel --width 200 --height 24 >"$root/trayer.log" 2>&1 &
  pids+=($!)
}

start_pulse() {
  # Without the daemon (left out where PipeWire serves the desktop), the tests that need the
  # virtual microphone say they were skipped.
  if ! command -v pulseaudio >/dev/null; then
    log "no PulseAudio daemon here: no virtual microphone"
    return 0
  fi
  cat >"$root/pulse.pa" <<'PA'
load-module module-native-protocol-unix auth-anonymous=1
load-module module-null-sink sink_name=voxaria_speaker rate=48000 channels=2 sink_properties=device.description=Alto-falante-virtual
load-module module-remap-source master=voxaria_speaker.monitor source_name=voxaria_mic source_properties=device.description=Microfone-virtual
set-default-sink voxaria_speaker
set-default-source voxaria_mic
PA
  # A second socket for programs the tests run as another user (say, a compositor's): the runtime
  # folder is ours alone, this one anyone on the machine may reach.
  mkdir -m 755 "$root/pulse-shared"
  chmod 711 "$root"
  echo "load-module module-native-protocol-unix auth-anonymous=1 socket=$root/pulse-shared/native" >>"$root/pulse.pa"
  pulseaudio --daemonize=no --exit-idle-time=-1 --disallow-exit -n -F "$root/pulse.pa" \
    --log-target=file:"$root/pulse.log" >/dev/null 2>&1 &
  pids+=($!)
  for _ in $(seq 100); do
    pactl info >/dev/null 2>&1 && break
    sleep 0.05
  done
  pactl info >/dev/null 2>&1 || { log "PulseAudio did not start"; cat "$root/pulse.log" >&2; return 1; }
  # Without one recording kept attached, every new capture of the monitor starts 1-1.6 s late.
  parec --latency-msec=10 -d voxaria_speaker.monitor >/dev/null 2>&1 &
  pids+=($!)
  export VOXARIA_HARNESS_PULSE_SERVER="unix:$root/pulse-shared/native"
  log "PulseAudio with virtual microphone voxaria_mic"
}

start_x || exit 1
start_tray
start_pulse || exit 1
export VOXARIA_HARNESS=1
"$@"
