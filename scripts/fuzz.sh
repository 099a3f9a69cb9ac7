#!/usr/bin/env bash
# Builds the libFuzzer targets (the "fuzz" preset) and runs each one for a
# bounded time from its committed seed corpus. Fails on the first crash, leak,
# hang or failed property; prints the executions of every target at the end.
#   FUZZ_SECONDS   seconds per target (default 60)
#   FUZZ_TARGETS   space-separated subset of the targets (default all)
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${FUZZ_SECONDS:-60}"
all_targets="capabilities-decode-fuzz capabilities-roundtrip-fuzz capabilities-plan-fuzz request-decode-fuzz request-roundtrip-fuzz result-decode-fuzz"
read -r -a targets <<<"${FUZZ_TARGETS:-$all_targets}"

bash scripts/deps.sh --tests
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$(nproc)" --target "${targets[@]}"

out=build/fuzz/runs
rm -rf "$out"
mkdir -p "$out"

summary=()
failed=0
for target in "${targets[@]}"; do
  case "$target" in
    request-*) max_len=4096; dict=fuzz/request.dict ;;
    result-*) max_len=4096; dict=fuzz/result.dict ;;
    *) max_len=8192; dict=fuzz/capabilities.dict ;;
  esac
  # New inputs go to a scratch corpus; the committed seeds are only read.
  scratch="$out/$target.corpus"
  mkdir -p "$scratch"
  log="$out/$target.log"
  echo "== $target: ${seconds}s, max_len $max_len"
  status=0
  "build/fuzz/fuzz/$target" -max_total_time="$seconds" -max_len="$max_len" -dict="$dict" \
    -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$out/$target-" \
    "$scratch" "fuzz/corpus/$target" >"$log" 2>&1 || status=$?
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  rate=$(sed -n 's/.*exec\/s: \([0-9]*\).*/\1/p' "$log" | tail -1)
  corpus=$(find "$scratch" -type f | wc -l)
  if [ "$status" -ne 0 ]; then
    failed=$((failed + 1))
    echo "FAILED ($status): $target; the input is in $out, the log follows" >&2
    tail -n 40 "$log" >&2
    summary+=("$(printf '%-28s FAILED (exit %s)' "$target" "$status")")
  else
    summary+=("$(printf '%-28s %12s execs in %ss (%s exec/s), %s new corpus inputs' \
      "$target" "${execs:-?}" "$seconds" "${rate:-?}" "$corpus")")
  fi
done

echo
echo "Fuzzing summary:"
printf '  %s\n' "${summary[@]}"
echo "fuzz: $((${#targets[@]} - failed)) passed, $failed failed"
[ "$failed" -eq 0 ]
