#!/usr/bin/env bash
# Runs the default build's test executables under valgrind's memcheck:
# invalid reads and writes, uses of uninitialised values, mismatched frees
# and leaks (definite and possible) all fail the run.
#
#   scripts/valgrind.sh            every suite, then the pure-C client
#   scripts/valgrind.sh sync_test  only the named suites
#
# Each executable runs as one process (ctest runs every test alone; that
# would mean hundreds of valgrind start-ups). Forked children are checked
# for memory errors but not for leaks and say nothing
# (--child-silent-after-fork): a child ends with _exit and keeps what the
# parent had, including what other threads of the parent owned. Leaks are
# therefore read from the parent's log rather than from its exit status.
# scripts/valgrind.supp holds the few reports that belong to the system
# libraries, each with its reason.
#
# Left out, each for the reason given:
#   Runtime.EnvironmentListIsLoadedOnFirstUse (orlm_test): the runtime reads
#     its component list once per process; it needs a process of its own.
#   Recorder.BuildingAFailureMakesNoSystemCall (orlm_test): counts system
#     calls under a seccomp filter, and valgrind's own core makes some.
#   TrackedMemory.ForeignPointersAreRefusedWithoutStrayReads (memory_test):
#     hands the library pointers into plain malloc blocks on purpose; the
#     header check in front of them reads the allocator's bytes, which is
#     what memcheck reports. The sanitizer builds run it.
# Timing under valgrind: threads run one at a time, about 20-50 times
# slower, so suites that wait use generous bounds already; none is left out
# for time.
set -uo pipefail
cd "$(dirname "$0")/.."

declare -A FILTER=(
    [orlm_test]='-Runtime.EnvironmentListIsLoadedOnFirstUse:Recorder.BuildingAFailureMakesNoSystemCall'
    [memory_test]='-TrackedMemory.ForeignPointersAreRefusedWithoutStrayReads'
)

cmake --preset default >/dev/null || exit 1
cmake --build --preset default -j"${JOBS:-2}" >/dev/null || exit 1

tests=("$@")
if [ ${#tests[@]} -eq 0 ]; then
    for src in tests/*_test.cpp; do tests+=("$(basename "$src" .cpp)"); done
    tests+=(c_acceptance)
fi

logs=build/default/valgrind
mkdir -p "$logs"
failed=()
start=$(date +%s)
for t in "${tests[@]}"; do
    args=()
    if [ "$t" = c_acceptance ]; then
        args=("$PWD/build/default/core/kspl.so")
    elif [ -n "${FILTER[$t]:-}" ]; then
        args=("--gtest_filter=${FILTER[$t]}")
    fi
    t0=$(date +%s)
    (cd build/default/tests &&
        valgrind --quiet --error-exitcode=99 --leak-check=full \
            --errors-for-leak-kinds=none --show-leak-kinds=definite,possible \
            --child-silent-after-fork=yes --num-callers=30 \
            --suppressions="$OLDPWD/scripts/valgrind.supp" \
            --log-file="$OLDPWD/$logs/$t.log" "./$t" "${args[@]}" >"$OLDPWD/$logs/$t.out" 2>&1)
    rc=$?
    if [ $rc -eq 0 ] && grep -q 'lost in loss record' "$logs/$t.log"; then rc=98; fi
    if [ $rc -eq 0 ]; then
        echo "ok      $t ($(( $(date +%s) - t0 )) s)"
    else
        why="test failures"
        [ $rc -eq 99 ] && why="memcheck errors"
        [ $rc -eq 98 ] && why="leaks"
        echo "FAILED  $t ($why, exit $rc; see $logs/$t.log and $t.out)"
        failed+=("$t")
    fi
done
echo "valgrind: ${#tests[@]} executables in $(( $(date +%s) - start )) s, ${#failed[@]} failed${failed:+: ${failed[*]}}"
[ ${#failed[@]} -eq 0 ]
