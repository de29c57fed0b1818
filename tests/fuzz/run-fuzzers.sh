#!/bin/bash
# Runs every harness in BUILD/tests/fuzz for SECONDS seconds over its seeds (with <Name>.dict and
# <Name>.lsan when they exist). New inputs and crashes go to BUILD/fuzz-work/; a crashing input
# belongs in tests/fuzz/corpus/<Name>/ once the fault is fixed.
#
#   run-fuzzers.sh BUILD SECONDS     run them all; fails when one crashes
#   run-fuzzers.sh --check           exit 0 when clang-14 can build a libFuzzer program here
set -uo pipefail

here="$(cd "$(dirname "$0")" && pwd)"

if [ "${1:-}" = "--check" ]; then
    command -v clang++-14 >/dev/null || exit 1
    probe="$(mktemp -d)"
    trap 'rm -rf "$probe"' EXIT
    echo 'extern "C" int LLVMFuzzerTestOneInput(const unsigned char*, unsigned long) { return 0; }' \
        >"$probe/probe.cpp"
    clang++-14 -fsanitize=fuzzer,address,undefined "$probe/probe.cpp" -o "$probe/probe" \
        >/dev/null 2>&1
    exit $?
fi

build="$1"
seconds="$2"
work="$build/fuzz-work"
mkdir -p "$work"

failed=0
ran=0
printf '%-20s %12s %10s  %s\n' harness executions exec/s result
for harness in "$build"/tests/fuzz/*Fuzz; do
    [ -x "$harness" ] || continue
    name="$(basename "$harness")"
    corpus="$work/$name"
    mkdir -p "$corpus"
    args=(-max_total_time="$seconds" -print_final_stats=1 -timeout=10 -rss_limit_mb=2048
          -artifact_prefix="$work/$name-")
    [ -f "$here/$name.dict" ] && args+=(-dict="$here/$name.dict")
    seeds=()
    [ -d "$here/corpus/$name" ] && seeds+=("$here/corpus/$name")
    lsan=""
    [ -f "$here/$name.lsan" ] && lsan="suppressions=$here/$name.lsan:print_suppressions=0"
    log="$work/$name.log"
    ASAN_OPTIONS="detect_leaks=1:${ASAN_OPTIONS:-}" LSAN_OPTIONS="$lsan" \
        UBSAN_OPTIONS="print_stacktrace=1:${UBSAN_OPTIONS:-}" \
        "$harness" "${args[@]}" "$corpus" "${seeds[@]}" >"$log" 2>&1
    status=$?
    execs="$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)"
    rate="$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -1)"
    result=ok
    if [ $status -ne 0 ]; then
        result="FAILED (exit $status), see $log"
        failed=1
    fi
    printf '%-20s %12s %10s  %s\n' "$name" "${execs:-?}" "${rate:-?}" "$result"
    ran=$((ran + 1))
done

if [ $ran -eq 0 ]; then
    echo "run-fuzzers.sh: no harness in $build/tests/fuzz" >&2
    exit 1
fi
if [ $failed -ne 0 ]; then
    for log in "$work"/*.log; do
        grep -q -E 'ERROR: (AddressSanitizer|LeakSanitizer|libFuzzer)|runtime error|Test unit written' "$log" &&
            { echo "==== $log"; grep -E -A30 'ERROR:|runtime error' "$log" | head -60; }
    done
fi
exit $failed
