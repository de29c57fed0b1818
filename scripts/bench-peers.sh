#!/bin/bash
# Runs the peer comparison of a build made with -DVOK_BUILD_PEERS=ON: every peer program once per
# repetition and mode (pinned to one CPU, unpinned), interleaved; tables, raw runs and charts go
# to BUILD_DIR/results.
# Usage: bench-peers.sh BUILD_DIR [REPETITIONS]   (PEER_SECONDS: time per run, default 0.5)
set -euo pipefail
build=$1
repetitions=${2:-5}
programs="$build/bench/peers"
exec "$programs/peer-driver" "$programs" "$build/results" "$repetitions"
