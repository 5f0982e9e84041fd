#!/usr/bin/env bash
# The main job: the Velmora parameter window (velmora-demo) on a simulated
# controller that the demo starts in-process on 127.0.0.1, its values changing
# with every 200 ms refresh.
#   with a display:  the window opens (close it to end)
#   headless:        the window is rendered offscreen to BUILD_DIR/velmora-demo.png
# Usage: scripts/demo.sh BUILD_DIR [velmora-demo options: an address, --panels N,
#        --verbose for the library's diagnostic lines]
set -euo pipefail
build=$(cd "$1" && pwd); shift || true
demo="$build/app/velmora-demo"
if [ ! -x "$demo" ]; then
  echo "demo.sh: $demo is missing; build first (scripts/velmora.sh setup)" >&2
  exit 1
fi
if [ -z "${DISPLAY:-}" ] && [ -z "${WAYLAND_DISPLAY:-}" ]; then
  out=${VELMORA_DEMO_PNG:-$build/velmora-demo.png}
  QT_QPA_PLATFORM=offscreen "$demo" --screenshot "$out" "$@"
else
  exec "$demo" "$@"
fi
