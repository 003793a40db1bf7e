#!/usr/bin/env bash
# Installs the Debian 12 packages of a profile, skipping what is present.
# Usage: scripts/install-deps.sh [build|run|test]   (default: run)
#   build  what compiling Voxaria needs (no tests, no benchmarks), whisper-cli's Vulkan backend included
#   run    build, plus what the running program uses: yt-dlp for links, Qt's Portuguese
#          translations, the Wayland platform
#          plugin, emoji for the HUD
#   test   run, plus the test stack: GoogleTest, the headless desktop (Xvfb, a tray, sway, KWin), the
#          PulseAudio daemon of the test harness, speech and media tools, the package checkers, and
#          Mesa's software Vulkan device (lavapipe) that whisper-cli's GPU path is tested on
set -euo pipefail

profile=${1:-run}

build_packages=(
  build-essential pkg-config cmake ninja-build ccache
  qt6-base-dev qt6-base-private-dev qt6-multimedia-dev
  libx11-dev libxi-dev libxtst-dev libwayland-dev libxkbcommon-dev
  libavformat-dev libavcodec-dev libswresample-dev libavutil-dev libsoxr-dev libpulse-dev
  libvulkan-dev glslc spirv-headers
)
run_packages=(
  libqt6svg6 qt6-qpa-plugins qt6-wayland fonts-noto-color-emoji
  yt-dlp qt6-translations-l10n
)
test_packages=(
  libgtest-dev libgmock-dev python3 e2fsprogs clang-format clang-tidy
  xvfb xauth x11-utils x11-xserver-utils xdotool xclip imagemagick trayer xterm fonts-dejavu-core
  sway xwayland wtype wl-clipboard foot kwin-wayland dbus-daemon dbus-bin
  pulseaudio-utils espeak-ng sox ffmpeg
  dpkg-dev file lintian desktop-file-utils appstream
  mesa-vulkan-drivers
)

case "$profile" in
  build) packages=("${build_packages[@]}") ;;
  run) packages=("${build_packages[@]}" "${run_packages[@]}") ;;
  test) packages=("${build_packages[@]}" "${run_packages[@]}" "${test_packages[@]}") ;;
  *) echo "usage: $0 [build|run|test]" >&2; exit 2 ;;
esac

installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q 'install ok installed'; }

# The harness runs a PulseAudio daemon of its own. Where PipeWire serves the desktop (Debian 12's
# GNOME), the pulseaudio package would displace the user's sound server, so it is left out there
# and the tests that need the harness's microphone say they were skipped.
if [ "$profile" = test ]; then
  if installed pipewire-pulse; then
    echo "PipeWire serves this desktop: the pulseaudio daemon is not installed; tests that need the harness's microphone will be skipped." >&2
  else
    packages+=(pulseaudio)
  fi
fi

missing=()
for p in "${packages[@]}"; do
  installed "$p" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
echo "Installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
