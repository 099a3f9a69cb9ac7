#!/usr/bin/env bash
# Type-checks the macOS shell on a machine without Apple's SDK: clang parses
# both Objective-C++ files under ARC against the minimal declarations in
# .ci/apple-sdk, with warnings as errors, since a wrong argument type or an
# unknown selector in Objective-C is only a warning by default.
#
# Usage: check-apple-shell.sh <generated dir> [file.mm...]
#   <generated dir> holds palvin/identifiers.h; the files default to the two
#   shell sources (tests/apple-shell-slips.sh passes altered copies).
# Exits 77 (CTest's "skipped") when no clang++ is installed.
set -euo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
generated="${1:?usage: $0 <generated dir>}"
[ -f "$generated/palvin/identifiers.h" ] || { echo "no palvin/identifiers.h under $generated" >&2; exit 2; }

clang="${CLANGXX:-}"
if [ -z "$clang" ]; then
  for candidate in clang++ clang++-16 clang++-15 clang++-14; do
    if command -v "$candidate" >/dev/null; then clang="$candidate"; break; fi
  done
fi
if [ -z "$clang" ]; then
  echo "clang++ not found: the macOS shell is not checked (install clang)" >&2
  exit 77
fi

flags=(
  -fsyntax-only -x objective-c++ -std=c++20
  -fobjc-arc -fblocks -fobjc-runtime=macosx-12.0
  -isystem "$root/.ci/apple-sdk" -I "$root/src" -I "$generated"
  # glibc's name for the field Darwin calls st_mtimespec (both a timespec).
  -Dst_mtimespec=st_mtim
  -Wall -Wextra -Wpedantic -Werror
  -Wundeclared-selector -Wobjc-method-access -Wnullable-to-nonnull-conversion
)

files=("${@:2}")
[ ${#files[@]} -gt 0 ] || files=("$root/src/platform/apple_platform.mm" "$root/src/platform/apple/FinderSync.mm")

status=0
for file in "${files[@]}"; do
  if "$clang" "${flags[@]}" "$file"; then
    echo "ok: $file"
  else
    echo "FAILED: $file" >&2
    status=1
  fi
done
exit $status
