#!/usr/bin/env bash
# Configures and builds one preset (default: ci) after installing what is missing.
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-ci}"
bash scripts/deps.sh
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" -j "$(nproc)"
