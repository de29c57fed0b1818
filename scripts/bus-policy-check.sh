#!/bin/bash
# Runs vok-powerd on a private bus that enforces the system bus's default rules (nobody owns a
# name or calls a method unless a policy file allows it) plus apps/dbus/com.orvex.vok.conf, and
# checks what the policy promises: the daemon owns its names as root, root may use its service
# and its diagnostics, and any other user may use the service but not the diagnostics. The
# last two checks need root and setpriv; without them only the first ones run.
# Usage: bus-policy-check.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$(realpath "$1")
source_dir=$(realpath "$2")
command -v dbus-daemon >/dev/null || { echo "bus-policy-check: no dbus-daemon, skipped"; exit 77; }
work=$(mktemp -d)
chmod 755 "$work"  # Another user's client must reach the socket.
pids=()
cleanup() {
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    rm -rf "$work"
}
trap cleanup EXIT
fail() {
    echo "bus-policy-check: $*" >&2
    exit 1
}

cat >"$work/bus.conf" <<CONF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=$work/bus</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
  </policy>
  <include>$source_dir/apps/dbus/com.orvex.vok.conf</include>
</busconfig>
CONF
dbus-daemon --config-file="$work/bus.conf" --nofork --print-pid=3 3>"$work/bus.pid" &
pids+=($!)
export KELVRA_BUS_ADDRESS="unix:path=$work/bus"
for _ in $(seq 100); do [ -S "$work/bus" ] && break; sleep 0.1; done
[ -S "$work/bus" ] || fail "the bus did not start with the policy"

"$build/apps/vok-powerd/vok-powerd" >"$work/powerd.log" 2>&1 &
pids+=($!)
kvcall="$build/apps/kv-call/kv-call"
call() {  # call [prefix...] -- URI PAYLOAD: prints the reply (error replies included)
    local prefix=()
    while [ "$1" != "--" ]; do prefix+=("$1"); shift; done
    shift
    "${prefix[@]}" "$kvcall" --timeout 10 --ignore-errors "$@" 2>/dev/null || true
}
diag="kelvra://com.orvex.vok.vok-powerd/diag/blades"
remove="kelvra://com.orvex.power/time/alarmRemove"
# The service and the diagnostics register their names from threads of their own.
ok=0
for _ in $(seq 100); do
    if call -- "$remove" '{"alarmId":99}' | grep -q '"errorText":"no such alarm"'; then
        ok=1
        break
    fi
    sleep 0.1
done
[ "$ok" = 1 ] || { cat "$work/powerd.log" >&2; fail "root cannot call com.orvex.power"; }
for _ in $(seq 100); do
    call -- "$diag" '{}' | grep -q '"name":"power"' && break
    sleep 0.1
done
call -- "$diag" '{}' | grep -q '"name":"power"' || fail "root cannot reach vok-powerd's diagnostics"

if [ "$(id -u)" != 0 ] || ! command -v setpriv >/dev/null; then
    echo "bus-policy-check: not root or no setpriv: other users not checked"
    exit 0
fi
# The build tree may sit in a directory only its owner can enter: the other user runs a copy of
# kv-call and its bus library.
mkdir -m 755 "$work/bin"
cp "$build/apps/kv-call/kv-call" "$work/bin/"
cp -P "$build"/platform/kelvra/libkelvra.so.* "$work/bin/"
nobody=(setpriv --reuid=65534 --regid=65534 --clear-groups env LD_LIBRARY_PATH="$work/bin")
kvcall="$work/bin/kv-call"
call "${nobody[@]}" -- "$remove" '{"alarmId":99}' | grep -q '"errorText":"no such alarm"' ||
    fail "another user cannot call com.orvex.power"
call "${nobody[@]}" -- "$diag" '{}' | grep -q 'Rejected send message' ||
    fail "another user reached vok-powerd's diagnostics"
echo "bus-policy-check: passed"
