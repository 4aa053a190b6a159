#!/usr/bin/env bash
# Sets up a fresh Debian 12 machine, checks the layout of the C++ files (scripts/format.sh), and runs
# every test (unit, GPU on lavapipe, integration), then
# the whole suite but the GPU tests again under AddressSanitizer and UndefinedBehaviorSanitizer, then
# each fuzz target for a bounded time (TURNELO_FUZZ_SECONDS, default 30). Any failure or finding
# fails the run.
set -euo pipefail
cd "$(dirname "$0")/.."
# Blender comes too: a test renders the demo room with the authoring pipeline's quick mode.
bash scripts/install-deps.sh --authoring

launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
fi
stage() { echo "== $1 ($(date -u +%H:%M:%S))"; }

stage "format"
bash scripts/format.sh --check

stage "build"
cmake --preset default "${launcher[@]}"
cmake --build build -j"$(nproc)"
# The GPU tests run on Mesa's software Vulkan device unless a real one is there. The desktop tests
# drive real window managers under Xvfb; on a loaded two-core machine one may miss a deadline, so a
# failed test gets one more run.
stage "tests"
(cd build && ctest --output-on-failure -j"$(nproc)" --timeout 900 --repeat until-pass:2)

# The GPU tests are not built here: they ran above, and the software device under the sanitizers
# would take most of the time. Nor is the package test, which ran above on the same sources.
stage "sanitizer build"
cmake --preset asan "${launcher[@]}"
cmake --build build-asan -j"$(nproc)"
stage "sanitizer tests"
ctest --preset asan -j"$(nproc)" --timeout 900 --repeat until-pass:2

stage "fuzzing"
bash scripts/fuzz.sh "${TURNELO_FUZZ_SECONDS:-30}"
stage "done"
