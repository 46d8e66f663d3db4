#!/usr/bin/env bash
# Long soak of the library under ThreadSanitizer: builds the tsan preset's
# kspl_soak and runs it for the given number of seconds (default 120).
#
#   scripts/soak.sh [seconds] [extra kspl_soak options...]
#
# Exit status: kspl_soak's (0 when every check held and ThreadSanitizer
# reported nothing). The seed is printed in the summary line; pass
# --seed N to repeat a run's choices.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-120}"
shift || true
cmake --preset tsan >/dev/null
cmake --build --preset tsan -j"${JOBS:-2}" --target kspl_soak >/dev/null
export TSAN_OPTIONS="${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}"
exec build/tsan/tests/kspl_soak --seconds "$seconds" "$@"
