#!/bin/sh
# The browser playground on a fresh Debian 12 machine (run as root for the
# package set-up): installs the dependencies, builds the playground server and
# starts it on 127.0.0.1 with a photo; open the address it prints.
# Usage: scripts/playground.sh [PHOTO]   (default: samples/coffee.png)
# Environment: PORT (default 8017; 0 takes any free port), BUILD (default build).
set -eu
PHOTO=${1:-}
if [ -n "$PHOTO" ]; then
  [ -f "$PHOTO" ] || { echo "playground: no photo at '$PHOTO'" >&2; exit 1; }
  PHOTO=$(cd "$(dirname "$PHOTO")" && pwd)/$(basename "$PHOTO")
fi
cd "$(dirname "$0")/.."
PHOTO=${PHOTO:-$(pwd)/samples/coffee.png}
BUILD=${BUILD:-build}
PORT=${PORT:-8017}
sh scripts/setup.sh
cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$BUILD" --target playground -j"$(nproc)"
[ -x "$BUILD/tools/playground/playground" ] ||
  { echo "playground: not built (cpp-httplib or nlohmann-json missing?)" >&2; exit 1; }
echo "playground: Ctrl-C stops the server"
exec "$BUILD/tools/playground/playground" "$PHOTO" --port "$PORT"
