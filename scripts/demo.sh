#!/usr/bin/env bash
# The main job: builds palvin-finder and shows what the extension offers for a
# few selections against the shipped sample catalogue.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh ci >/dev/null
tool=build/ci/tools/palvin-finder/palvin-finder
catalogue=examples/capabilities.json
for selection in "photo.png" "photo.png scan.JPG" "photo.png report.pdf" "clip.mov" "notes.txt"; do
  echo "\$ palvin-finder plan --capabilities $catalogue $selection"
  # shellcheck disable=SC2086
  "$tool" plan --capabilities "$catalogue" $selection
  echo
done
