#!/usr/bin/env bash
# Runs every test: installs missing packages, builds with warnings as errors, checks the
# format, runs CTest.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh --tests
bash scripts/build.sh ci
# The layout is part of the review: every source follows .clang-format.
bash scripts/format.sh
ctest --preset ci -j "$(nproc)"
