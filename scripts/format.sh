#!/usr/bin/env bash
# Lays out every C++ file of the repository by .clang-format (Debian's clang-format 14).
# `--check` changes nothing and fails when a file is laid out otherwise.
set -euo pipefail
cd "$(dirname "$0")/.."
mapfile -t files < <(git ls-files '*.cpp' '*.h')
if [ "${1:-}" = "--check" ]; then
  clang-format --dry-run --Werror "${files[@]}"
else
  clang-format -i "${files[@]}"
fi
