#!/usr/bin/env bash
# Installs every Debian package that building, running and testing Turnelo needs.
# Idempotent; run as root or through sudo. `--authoring` adds Blender and the Python modules of the
# room's authoring pipeline (tools/blender).
set -euo pipefail

AUTHORING=0
for arg in "$@"; do
  case "$arg" in
    --authoring) AUTHORING=1 ;;
    *) echo "uso: $0 [--authoring]" >&2; exit 2 ;;
  esac
done

SUDO=""
if [ "$(id -u)" -ne 0 ]; then
  SUDO="sudo"
fi

PACKAGES=(
  build-essential cmake ninja-build pkg-config git ccache
  qt6-base-dev qt6-base-dev-tools libqt6opengl6-dev
  libopenexr-dev libarchive-dev
  libvulkan-dev glslang-tools mesa-vulkan-drivers vulkan-tools vulkan-validationlayers
  libx11-dev libx11-xcb-dev libxext-dev libxfixes-dev libxss-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev clang-format
  xvfb xauth dbus dbus-x11
  nginx-light curl
  xfconf libxfconf-0-3 libglib2.0-bin
  mpv mpv-mpris
  python3-dbusmock
  openbox xfwm4 xfdesktop4 i3-wm xcompmgr xdotool x11-utils x11-apps x11-xserver-utils imagemagick
  kwin-x11 kwin-wayland plasma-workspace plasma-desktop
  desktop-file-utils trayer
  help2man lintian
  libwayland-dev libwayland-bin wayland-protocols plasma-wayland-protocols qt6-wayland sway swaybg grim foot weston
)
if [ "$AUTHORING" -eq 1 ]; then
  PACKAGES+=(blender python3-numpy python3-openimageio)
fi

missing=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if [ ${#missing[@]} -gt 0 ]; then
  echo "Instalando pacotes: ${missing[*]}"
  $SUDO apt-get update
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y --no-install-recommends "${missing[@]}"
fi
