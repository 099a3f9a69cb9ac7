#!/usr/bin/env bash
# The whole test suite under AddressSanitizer and UndefinedBehaviorSanitizer,
# then the tests that run threads (the log and its stress run, the store with
# the log's queue, the sender and the request queue's parallel files, the
# controller while the log's worker writes) under
# ThreadSanitizer. Any report fails the run.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs="$(nproc)"
bash scripts/deps.sh --tests

export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:strict_string_checks=1:detect_stack_use_after_return=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"

echo "== AddressSanitizer + UndefinedBehaviorSanitizer: every test"
cmake --preset asan >/dev/null
cmake --build --preset asan -j "$jobs"
# The Apple checks compile for macOS with a toolchain of their own; nothing of
# theirs runs instrumented.
ctest --preset asan -j "$jobs" -LE apple

# Not host-app-test: the host app's threads besides the request queue's are
# libvips' own, synchronised inside uninstrumented libraries (GLib, zlib, orc)
# where TSan sees the accesses but not the locks, so it reports races there.
# The queue's threads run under TSan in requests-test.
threaded=(log-test capabilities-test requests-test finder-sync-test)

echo "== ThreadSanitizer: ${threaded[*]}"
cmake --preset tsan >/dev/null
cmake --build --preset tsan -j "$jobs" --target "${threaded[@]}"
pattern="^($(IFS='|'; echo "${threaded[*]}"))\$"
ctest --preset tsan -j "$jobs" -R "$pattern"
