#!/usr/bin/env bash
# The main job: a simulated controller on 127.0.0.1 and the command-line
# tool talking to it. Usage: scripts/demo.sh BUILD_DIR
set -euo pipefail
build=$1; shift || true
"$build/sim/velmora-sim" --address 127.0.0.1 &
sim=$!
trap 'kill $sim 2>/dev/null || true' EXIT
sleep 0.5
"$build/tools/velmora-cli" 127.0.0.1 wdt
"$build/tools/velmora-cli" 127.0.0.1 read 1000000 1000001 1000002
