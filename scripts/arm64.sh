#!/bin/sh
# Cross-builds the library, its tests and the tools for 64-bit ARM (Debian
# arm64: 8-byte pointers and long, unsigned char, like the arm64-v8a phones)
# and runs the tests, golden test included, under qemu-aarch64.
# Usage: scripts/arm64.sh [build-dir]          (default: build-arm64)
# Settings and steps: scripts/cross.sh.
set -eu
exec sh "$(dirname "$0")/cross.sh" arm64 "$@"
