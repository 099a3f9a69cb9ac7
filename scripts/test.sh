#!/usr/bin/env bash
# Runs every test: installs missing packages, builds with warnings as errors, runs CTest.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh ci
ctest --preset ci -j "$(nproc)"
