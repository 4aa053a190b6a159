#!/usr/bin/env bash
# Sets up a fresh Debian 12 machine and runs every test (unit, GPU on lavapipe, integration).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$(nproc)"
# The GPU tests run on Mesa's software Vulkan device unless a real one is there.
cd build
ctest --output-on-failure -j"$(nproc)" --timeout 600
