#!/bin/bash
# Runs the demo briefly and checks that its blades worked and that it stopped cleanly without
# leaks; demo.sh itself checks that every process it started has ended.
# Usage: demo-check.sh BUILD_DIR
set -euo pipefail
build=$1
out=$(DEMO_SECONDS=${DEMO_SECONDS:-8} bash "$(dirname "$0")/demo.sh" "$build" 2>&1)
fail() {
    echo "$out"
    echo "demo-check: $*" >&2
    exit 1
}
for expected in "round trip #3 through the echo service" "alarm #1 fired through the power service" \
    "com.orvex.power is down" "fired through the fallback timer" "demo/echo answered" \
    "all blades stopped" "framework released" "every process started by the demo has ended"; do
    grep -qF "$expected" <<<"$out" || fail "missing <$expected>"
done
! grep -q "\[VOK.MessageMover.Leak\]" <<<"$out" || fail "the demo leaked"
echo "demo-check: ok"
