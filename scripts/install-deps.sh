#!/usr/bin/env bash
# Installs the Debian 12 packages Voxaria needs to build, run and test, skipping what is present.
set -euo pipefail

packages=(
  build-essential pkg-config cmake ninja-build ccache e2fsprogs libgtest-dev libgmock-dev
  qt6-base-dev qt6-base-private-dev qt6-multimedia-dev libqt6svg6 qt6-qpa-plugins
  libx11-dev libxi-dev libxtst-dev
  libavformat-dev libavcodec-dev libswresample-dev libavutil-dev libsoxr-dev libpulse-dev
  libpocketsphinx-dev pocketsphinx-en-us pocketsphinx-testdata
  xvfb xauth x11-utils xdotool xclip imagemagick trayer xterm fonts-dejavu-core fonts-noto-color-emoji
  sway xwayland wtype wl-clipboard foot x11-xserver-utils qt6-wayland libwayland-dev libxkbcommon-dev
  pulseaudio pulseaudio-utils espeak-ng sox ffmpeg yt-dlp python3
  dpkg-dev file lintian desktop-file-utils appstream
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
echo "Installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
