#!/usr/bin/env bash
# The main job: builds palvin-finder and runs its demo, a guided walk through
# the extension on the sample catalogue embedded in the tool.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh ci >/dev/null
exec build/ci/palvin-finder demo "$@"
