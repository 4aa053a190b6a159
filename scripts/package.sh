#!/usr/bin/env bash
# Release build in build-release/ and its Debian package in build/, made by CPack from
# cmake/TurneloPackage.cmake.
set -euo pipefail

usage() {
  cat <<'TEXT'
Usage: scripts/package.sh [--help]

Builds a release of Turnelo in build-release/ (tests and benchmarks off, with Debian's
hardening flags) and writes the Debian package build/turnelo_<version>_<arch>.deb: the
programs turnelo, turnelo-scene, turnelo-defaults, turnelo-publish, turnelo-sync and
turnelo-gen-scene with their manual pages, the menu entry and icons, and the room in
scenes/room under /usr/share/turnelo/scenes/room. Sets up the machine first with
scripts/install-deps.sh (root or sudo). Install the package with:

  apt install ./build/turnelo_<version>_<arch>.deb
TEXT
}
case "${1:-}" in
  -h | --help) usage; exit 0 ;;
  "") ;;
  *) usage >&2; exit 2 ;;
esac

cd "$(dirname "$0")/.."
bash scripts/install-deps.sh

launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
fi
# The flags a Debian package is built with (stack protector, fortify, full RELRO), passed on every
# configure: CMake reads CXXFLAGS from the environment only when it first makes the cache.
eval "$(DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags --export=sh)"
# The manual pages' date: the last commit's, so that the same sources give the same pages.
SOURCE_DATE_EPOCH="${SOURCE_DATE_EPOCH:-$(git log -1 --format=%ct 2>/dev/null || date +%s)}"
export SOURCE_DATE_EPOCH

cmake -S . -B build-release -G Ninja "${launcher[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DTURNELO_RELEASE=ON -DTURNELO_TESTS=OFF -DTURNELO_BENCH=OFF \
  -DCMAKE_CXX_FLAGS="$CXXFLAGS $CPPFLAGS" -DCMAKE_EXE_LINKER_FLAGS="$LDFLAGS"
cmake --build build-release -j"$(nproc)"

rm -f build-release/turnelo_*.deb
cpack --config build-release/CPackConfig.cmake -B build-release
mkdir -p build
package="build/$(basename build-release/turnelo_*.deb)"
mv build-release/turnelo_*.deb "$package"
echo "Pacote: $package"
