#!/usr/bin/env bash
# Builds and runs every test suite in each preset (default: all of them).
# Usage: scripts/test.sh [preset ...]
set -eu
here=$(cd "$(dirname "$0")/.." && pwd)
cd "$here"
presets=("$@")
[ ${#presets[@]} -gt 0 ] || presets=(default asan tsan i386)

need_i386=0
for p in "${presets[@]}"; do [ "$p" = i386 ] && need_i386=1; done
if [ "$need_i386" = 1 ]; then bash scripts/setup.sh --i386; else bash scripts/setup.sh; fi

failed=()
for p in "${presets[@]}"; do
  echo "=== preset $p ==="
  start=$(date +%s)
  if cmake --preset "$p" >/dev/null && cmake --build --preset "$p" -j 2 && ctest --preset "$p"; then
    echo "=== preset $p passed in $(( $(date +%s) - start ))s ==="
  else
    echo "=== preset $p FAILED ==="
    failed+=("$p")
  fi
done
# Reliability checks, after the presets (all of them on a full run).
if [ $# -eq 0 ]; then
  for check in "fuzz.sh ${KSPL_FUZZ_SECONDS:-60}" "soak.sh ${KSPL_SOAK_SECONDS:-120}" "valgrind.sh"; do
    script=${check%% *}
    [ -f "scripts/$script" ] || continue
    echo "=== $check ==="
    start=$(date +%s)
    if bash scripts/$check; then
      echo "=== $script passed in $(( $(date +%s) - start ))s ==="
    else
      echo "=== $script FAILED ==="
      failed+=("$script")
    fi
  done
fi

if [ ${#failed[@]} -gt 0 ]; then
  echo "failed presets: ${failed[*]}"
  exit 1
fi
echo "all presets passed: ${presets[*]}"
