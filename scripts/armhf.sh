#!/bin/sh
# Cross-builds the library, its tests and the tools for 32-bit ARM (Debian
# armhf: 4-byte pointers and long, unsigned char, like the armeabi-v7a phones)
# and runs the tests, golden test included, under qemu-arm.
# Usage: scripts/armhf.sh [build-dir]          (default: build-armhf)
# Settings and steps: scripts/cross.sh.
set -eu
exec sh "$(dirname "$0")/cross.sh" armhf "$@"
