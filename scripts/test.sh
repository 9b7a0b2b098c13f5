#!/bin/sh
# Sets up a fresh Debian 12 machine (as root), builds with warnings as errors
# and runs every test. Usage: scripts/test.sh [build-dir]
set -eu
cd "$(dirname "$0")/.."
BUILD=${1:-build}
sh scripts/setup.sh
cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSEGCORE_WERROR=ON
cmake --build "$BUILD" -j"$(nproc)"
ctest --test-dir "$BUILD" --output-on-failure -j"$(nproc)"
