#!/usr/bin/env bash
# Builds the libFuzzer harnesses (fuzz preset: clang, ASan + UBSan), replays
# every saved regression input, then fuzzes each harness for a bounded time
# starting from its committed seed corpus. Exits non-zero when any harness
# crashes, leaks, hangs or breaks one of its invariants; the input that did
# it is kept under build/fuzz/artifacts/<harness>/.
#
# Usage: scripts/fuzz.sh [seconds-per-harness]       (default 60)
#   FUZZ_JOBS=n     harnesses fuzzed at the same time (default: 2 when the
#                   machine has 2 cores or more, else 1)
#   FUZZ_HARNESSES  space-separated subset to run (default: all)
set -u
here=$(cd "$(dirname "$0")/.." && pwd)
cd "$here"
seconds=${1:-60}
case "$seconds" in '' | *[!0-9]*) echo "fuzz: seconds must be a number" >&2; exit 2 ;; esac
harnesses=${FUZZ_HARNESSES:-"convert_fuzz string_fuzz config_fuzz regfile_fuzz object_fuzz"}
cores=$(nproc 2>/dev/null || echo 1)
jobs=${FUZZ_JOBS:-$([ "$cores" -ge 2 ] && echo 2 || echo 1)}
start=$(date +%s)

bash scripts/setup.sh --fuzz || exit 1
cmake --preset fuzz >/dev/null || { echo "fuzz: configure failed" >&2; exit 1; }
cmake --build --preset fuzz -j "$cores" || { echo "fuzz: build failed" >&2; exit 1; }
echo "fuzz: built in $(( $(date +%s) - start ))s"

bin=build/fuzz/fuzz
work=build/fuzz/corpus
artifacts=build/fuzz/artifacts
logs=build/fuzz/logs
mkdir -p "$work" "$artifacts" "$logs"
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}
common=(-timeout=30 -rss_limit_mb=2048 -print_final_stats=1)

failed=()

# Inputs that once broke a harness must pass before anything new is tried.
for h in $harnesses; do
  dir=fuzz/regressions/$h
  [ -d "$dir" ] || continue
  inputs=("$dir"/*)
  [ -e "${inputs[0]}" ] || continue
  if "$bin/$h" "${common[@]}" "${inputs[@]}" >"$logs/$h.replay.log" 2>&1; then
    echo "fuzz: $h: ${#inputs[@]} regression input(s) pass"
  else
    echo "fuzz: $h: a regression input fails again (log: $logs/$h.replay.log)"
    tail -n 30 "$logs/$h.replay.log"
    failed+=("$h(regression)")
  fi
done

# One harness: its own working corpus (the committed seeds stay as they are).
run_one() {
  local h=$1
  mkdir -p "$work/$h" "$artifacts/$h"
  "$bin/$h" "${common[@]}" -max_total_time="$seconds" -artifact_prefix="$artifacts/$h/" \
    "$work/$h" "fuzz/corpus/$h" >"$logs/$h.log" 2>&1
}

pending=($harnesses)
while [ ${#pending[@]} -gt 0 ]; do
  batch=("${pending[@]:0:$jobs}")
  pending=("${pending[@]:$jobs}")
  pids=()
  for h in "${batch[@]}"; do
    run_one "$h" &
    pids+=($!)
  done
  for i in "${!batch[@]}"; do
    h=${batch[$i]}
    if wait "${pids[$i]}"; then
      runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$logs/$h.log" | tail -n 1)
      echo "fuzz: $h: ${runs:-?} runs in ${seconds}s, no failure"
    else
      echo "fuzz: $h FAILED (log: $logs/$h.log, inputs: $artifacts/$h/)"
      grep -E 'ERROR|invariant broken|SUMMARY|Test unit written' "$logs/$h.log" | head -n 10
      failed+=("$h")
    fi
  done
done

echo "fuzz: finished in $(( $(date +%s) - start ))s"
if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzz: failed: ${failed[*]}"
  exit 1
fi
echo "fuzz: all harnesses passed: $harnesses"
