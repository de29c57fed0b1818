#!/bin/bash
# Runs every benchmark program of a build made with -DVOK_BUILD_BENCH=ON.
# Usage: run-bench.sh BUILD_DIR [benchmark options...]
set -euo pipefail
build=$1
shift
while read -r program; do
    [ -n "$program" ] || continue
    echo "=== $(basename "$program")"
    "$program" "$@"
done <"$build/bench-programs.txt"
