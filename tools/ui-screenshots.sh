#!/bin/sh
# Pictures of the popover (idle and playing), each settings tab and each onboarding step, taken
# on a private X server and session bus, with the software Vulkan device (the welcome picture is a real render).
#   tools/ui-screenshots.sh [BUILD_DIR] [OUT_DIR]
set -eu
build=${1:-build}
out=${2:-$build/ui-screenshots}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$build/tools/turnelo-gen-scene" --out "$work/scene" --width 960 --height 540 --framings wide,mid,close >"$work/gen.log" 2>&1 || { cat "$work/gen.log"; exit 1; }
icd=$(ls /usr/share/vulkan/icd.d/lvp_icd*.json 2>/dev/null | head -n1 || true)
mkdir -p "$out"
HOME="$work/home" XDG_CONFIG_HOME="$work/config" XDG_STATE_HOME="$work/state" \
  VK_ICD_FILENAMES="${VK_ICD_FILENAMES:-$icd}" QT_QPA_PLATFORM=xcb \
  dbus-run-session -- xvfb-run -a -s "-screen 0 1280x800x24" "$build/tools/turnelo-ui-shots" --out "$out" --scene "$work/scene"
