#!/bin/bash
# make demo: a private bus, vok-powerd and vok-demo, run for DEMO_SECONDS (default 10) and stopped
# with SIGTERM. Half way through, vok-powerd is stopped so that the alarms move to their fallback
# timer. Every process started here is gone when the script ends, however it ends. DEMO_WRAPPER,
# when set, is a command that runs both daemons (valgrind, for one).
# Usage: demo.sh BUILD_DIR
set -euo pipefail
# shellcheck source=scripts/private-bus.sh
. "$(dirname "$0")/private-bus.sh"
build=$1
seconds=${DEMO_SECONDS:-10}
read -r -a wrapper <<<"${DEMO_WRAPPER:-}"
open_workspace
trap 'exit 130' INT TERM

say() { printf '\n=== %s\n' "$*"; }

say "starting a private D-Bus daemon (the machine's buses are not touched)"
start_private_bus "$work"
buspid=$PRIVATE_BUS_PID
pids+=("$buspid")
echo "bus address: $KELVRA_BUS_ADDRESS"

say "starting vok-powerd (com.orvex.power), logging each request"
"${wrapper[@]}" "$build/apps/vok-powerd/vok-powerd" --log > >(sed -u 's/^/[powerd] /') &
powerd=$!
pids+=("$powerd")

say "starting vok-demo for $seconds s: blades echo, client, alarm and bus"
"${wrapper[@]}" "$build/apps/vok-demo/vok-demo" &
demo=$!
pids+=("$demo")

half=$((seconds / 2))
sleep "$half"
say "asking the running demo about itself: vokctl vok-demo status, then ports"
{ "$build/apps/vokctl/vokctl" vok-demo status && "$build/apps/vokctl/vokctl" vok-demo ports; } ||
    echo "demo: vokctl could not ask vok-demo" >&2
say "stopping vok-powerd: alarms move to their fallback timer"
kill -TERM "$powerd"
wait "$powerd" || true

sleep $((seconds - half))
say "stopping vok-demo with SIGTERM"
kill -TERM "$demo"
status=0
wait "$demo" || status=$?
if [ "$status" -ne 0 ]; then
    echo "vok-demo exited with status $status" >&2
    exit "$status"
fi
# The bus daemon is not our child (it forked): stop it and see it gone.
kill -TERM "$buspid" 2>/dev/null || true
for _ in $(seq 50); do
    kill -0 "$buspid" 2>/dev/null || break
    sleep 0.1
done
for pid in "${pids[@]}"; do
    if kill -0 "$pid" 2>/dev/null; then
        echo "demo: process $pid is still running" >&2
        exit 1
    fi
done
say "done: every process started by the demo has ended"
