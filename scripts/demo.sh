#!/usr/bin/env bash
# Sets up a fresh Debian 12 machine, builds Turnelo, generates the 1920x1080 demo scene and
# prints its summary.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$(nproc)"
demo="${TURNELO_DEMO_DIR:-$PWD/build/demo-scene}"
./build/tools/turnelo-gen-scene --out "$demo" --width 1920 --height 1080
./build/tools/turnelo-scene validate "$demo"
