#!/usr/bin/env bash
# Installs every Debian 12 package that building, testing and running Korvalen needs.
# Safe to run again: apt-get skips what is already there.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git
  clang-format clang-tidy
  nlohmann-json3-dev libicu-dev libhowardhinnant-date-dev tzdata
  libfmt-dev libcli11-dev libssl-dev libsimdjson-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  ffmpeg libavformat-dev libavcodec-dev libavutil-dev libswscale-dev libswresample-dev
  clang-16 libclang-rt-16-dev
  libsdl2-dev libx11-dev libxrandr-dev libxext-dev libsystemd-dev xvfb x11-apps x11-xserver-utils
  openbox i3-wm picom wmctrl x11-utils dbus-daemon python3-dbusmock
  libwayland-dev wayland-protocols librust-wayland-protocols-dev sway grim foot
  yt-dlp sqv libcurl4-openssl-dev gpg gpg-agent
  libwebkit2gtk-4.1-dev libgtk-layer-shell-dev
  fonts-dejavu-core
)

sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi

export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${packages[@]}" >/dev/null
echo "setup: ${#packages[@]} packages present"
