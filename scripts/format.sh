#!/usr/bin/env bash
# Checks that every C, C++ and Objective-C++ file of ours follows .clang-format;
# with --fix, formats them in place. The stand-in Apple SDK keeps the layout of
# the documentation it was written from, so it is left out.
set -euo pipefail
cd "$(dirname "$0")/.."
command -v clang-format >/dev/null || bash scripts/deps.sh --tests
mapfile -t files < <(git ls-files -- '*.c' '*.cc' '*.cpp' '*.h' '*.hpp' '*.mm' ':!:.ci/apple-sdk/**')
if [ "${1:-}" = "--fix" ]; then
  clang-format -i "${files[@]}"
else
  clang-format --dry-run -Werror "${files[@]}"
fi
