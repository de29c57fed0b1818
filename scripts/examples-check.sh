#!/bin/bash
# Installs a build into a scratch prefix and builds the examples against it, with CMake
# (find_package(vok CONFIG)) and with pkg-config; then runs the minimal example until its first
# timer line, stops it with SIGTERM and expects exit status 0 and no leak report; then runs
# sensord on a private bus beside the installed vok-powerd, subscribes to its mean with the
# installed kv-call, expects updates and the janitor's alarm, and stops it the same way; and asks
# bus-service for a sum its worker thread works out.
# Usage: examples-check.sh BUILD_DIR [SOURCE_DIR]
set -euo pipefail
build=$(realpath "$1")
source_dir=$(realpath "${2:-$(dirname "$0")/..}")
# shellcheck source=scripts/private-bus.sh
. "$source_dir/scripts/private-bus.sh"
open_workspace
prefix="$work/prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null

fail() {
    echo "examples-check: $*" >&2
    exit 1
}

flags="-Wall -Wextra -Werror"
PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name vok.pc | head -1)")
export PKG_CONFIG_PATH
for example in minimal two-blades bus-service sensord; do
    cmake -S "$source_dir/examples/$example" -B "$work/cmake-$example" \
        -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_FLAGS="$flags" >"$work/log" 2>&1 ||
        { cat "$work/log" >&2; fail "cmake could not configure $example"; }
    cmake --build "$work/cmake-$example" >"$work/log" 2>&1 ||
        { cat "$work/log" >&2; fail "$example does not build with CMake"; }

    # shellcheck disable=SC2046,SC2086
    g++ -std=c++17 $flags "$source_dir/examples/$example/main.cpp" -o "$work/pc-$example" \
        $(pkg-config --cflags --libs vok) ||
        fail "$example does not build with pkg-config"
done

# The libraries of a prefix outside the loader's paths are found through LD_LIBRARY_PATH.
LD_LIBRARY_PATH=$(pkg-config --variable=libdir vok)
export LD_LIBRARY_PATH
coproc MINIMAL { exec "$work/cmake-minimal/minimal" 2>&1; }
pid=$MINIMAL_PID
# bash forgets the coprocess's descriptors once it has exited: keep a copy of its output.
exec {out}<&"${MINIMAL[0]}"
output=""
ticked=0
while IFS= read -r -t 60 -u "$out" line; do
    output+="$line"$'\n'
    if [[ $line == *"tick 1"* ]]; then
        ticked=1
        break
    fi
done
if [ $ticked -eq 0 ]; then
    kill -KILL "$pid" 2>/dev/null || true
    fail "minimal printed no timer line within 60 s: <$output>"
fi
kill -TERM "$pid"
while IFS= read -r -t 60 -u "$out" line; do
    output+="$line"$'\n'
done
status=0
wait "$pid" || status=$?
[ $status -eq 0 ] || fail "minimal exited with status $status after SIGTERM: <$output>"
if grep -qi leak <<<"$output"; then
    fail "minimal reported a leak: <$output>"
fi
grep -q "\[minimal\] stopped" <<<"$output" || fail "minimal did not stop cleanly: <$output>"
# The version the library reports at run time is the one the package was made with.
grep -qF "[minimal] vok $(pkg-config --modversion vok)" <<<"$output" ||
    fail "minimal does not report the library version $(pkg-config --modversion vok): <$output>"

# sensord on a private bus of its own, beside the installed power service.
start_private_bus "$work"
pids+=("$PRIVATE_BUS_PID")
bindir=$(pkg-config --variable=prefix vok)/bin
# Returns once URI answers '{}' (a daemon's blades start in parallel with this script).
wait_for_service() {
    for _ in $(seq 150); do
        "$bindir/kv-call" --timeout 5 "$1" '{}' >/dev/null 2>&1 && return 0
        sleep 0.2
    done
}
"$bindir/vok-powerd" >"$work/powerd.log" 2>&1 &
pids+=("$!")
"$work/cmake-sensord/sensord" >"$work/sensord.log" 2>&1 &
sensord=$!
pids+=("$sensord")
wait_for_service kelvra://com.orvex.sensord/sensor/mean
# A subscription: the first reply at once, then one per move of the mean by more than 1.0.
"$bindir/kv-call" --subscribe --count 3 --timeout 60 kelvra://com.orvex.sensord/sensor/mean \
    '{"subscribe":true}' >"$work/mean.log" 2>&1 ||
    fail "no three replies to a subscription of sensord's mean: <$(cat "$work/mean.log" "$work/sensord.log")>"
[ "$(grep -c '"mean":' "$work/mean.log")" -eq 3 ] ||
    fail "sensord's replies carry no mean: <$(cat "$work/mean.log")>"
"$bindir/kv-call" --timeout 30 kelvra://com.orvex.sensord/sensor/mean '{}' | grep -q '"mean":' ||
    fail "sensord does not answer a single request"
for _ in $(seq 150); do
    grep -q "woken by the power service" "$work/sensord.log" && break
    sleep 0.1
done
grep -q "woken by the power service" "$work/sensord.log" ||
    fail "sensord's janitor was not woken by the power service: <$(cat "$work/sensord.log")>"
kill -TERM "$sensord"
status=0
wait "$sensord" || status=$?
[ $status -eq 0 ] || fail "sensord exited with status $status after SIGTERM: <$(cat "$work/sensord.log")>"
if grep -qi leak "$work/sensord.log"; then
    fail "sensord reported a leak: <$(cat "$work/sensord.log")>"
fi

# bus-service on the same bus: a sum worked out on its worker thread comes back as the reply.
"$work/cmake-bus-service/bus-service" >"$work/counter.log" 2>&1 &
counter=$!
pids+=("$counter")
wait_for_service kelvra://com.orvex.counter/counter/get
"$bindir/kv-call" --timeout 30 kelvra://com.orvex.counter/counter/sum '{"n":1000}' |
    grep -q '"sum":500500' || fail "bus-service does not answer counter/sum"
kill -TERM "$counter"
status=0
wait "$counter" || status=$?
[ $status -eq 0 ] || fail "bus-service exited with status $status: <$(cat "$work/counter.log")>"
echo "examples-check: ok"
