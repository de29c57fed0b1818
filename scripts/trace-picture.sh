#!/bin/bash
# make trace-picture: records 3 s of vok-demo (beside vok-powerd, on a private bus) with
# `vokctl vok-demo trace --seconds 3`, draws it with trace-to-svg.py and turns it into a PNG with
# rsvg-convert (Debian: librsvg2-bin); prints the start of `vokctl vok-demo metrics` too. Every
# process started here is gone when the script ends.
# Usage: trace-picture.sh BUILD_DIR OUT.png
set -euo pipefail
# shellcheck source=scripts/private-bus.sh
. "$(dirname "$0")/private-bus.sh"
build=$1
png=$2
vokctl=$build/apps/vokctl/vokctl
open_workspace

start_private_bus "$work"
pids+=("$PRIVATE_BUS_PID")
"$build/apps/vok-powerd/vok-powerd" >/dev/null &
pids+=("$!")
"$build/apps/vok-demo/vok-demo" >"$work/demo.out" &
pids+=("$!")
# Once the client and echo blades have made a round trip, the demo is in its stride.
for _ in $(seq 100); do
    grep -q "round trip #1 " "$work/demo.out" && "$vokctl" list | grep -qx vok-demo && break
    sleep 0.1
done
"$vokctl" vok-demo trace --seconds 3 -o "$work/demo.json"
"$vokctl" vok-demo metrics | head -n "${METRICS_LINES:-12}"
# The daemons go before their bus, so that they do not see it lost.
stop_processes "${pids[@]:1}"
# The picture shows one round trip: from the client's first message to the echo's answer read,
# with a fifth of that on either side (milliseconds from the first event, as trace-to-svg takes).
read -r from to < <(python3 - "$work/demo.json" <<'PY'
import json, sys
events = json.load(open(sys.argv[1]))["traceEvents"]
names = {e["tid"]: e["args"]["name"] for e in events if e["ph"] == "M" and e["name"] == "thread_name"}
timed = sorted((e for e in events if e["ph"] != "M"), key=lambda e: e["ts"])
origin = timed[0]["ts"]
start = next(e for e in timed if e["ph"] == "s" and names.get(e["tid"]) == "client")
end = next(e for e in timed if e["ph"] == "f" and names.get(e["tid"]) == "client" and e["ts"] > start["ts"])
margin = (end["ts"] - start["ts"]) / 5
print((start["ts"] - margin - origin) / 1000, (end["ts"] + 3 * margin - origin) / 1000)
PY
)
python3 "$(dirname "$0")/trace-to-svg.py" "$work/demo.json" "$work/demo.svg" --width 1200 \
    --from "$from" --to "$to"
rsvg-convert "$work/demo.svg" -o "$png"
echo "trace-picture: $png ($(stat -c %s "$png") bytes)"
