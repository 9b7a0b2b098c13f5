#!/bin/sh
# Installs the build and test dependencies on Debian 12 (needs root), plus any
# packages named as arguments (the reliability scripts add theirs).
# Idempotent: returns at once when everything is already installed.
# Usage: scripts/setup.sh [extra-package ...]
set -eu
PACKAGES="cmake g++ make libopencv-core-dev libopencv-imgproc-dev libopencv-imgcodecs-dev \
libgtest-dev libgmock-dev libbenchmark-dev android-liblog-dev android-liblog $*"
missing=""
for p in $PACKAGES; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
if [ -z "$missing" ]; then
  echo "setup: all packages present"
  exit 0
fi
if [ "$(id -u)" != 0 ]; then
  echo "setup: missing packages:$missing; run this script as root" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
apt-get update
# shellcheck disable=SC2086
apt-get install -y --no-install-recommends $missing
