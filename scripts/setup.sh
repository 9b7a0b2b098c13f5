#!/bin/sh
# Installs the build and test dependencies on Debian 12 (needs root; pkgconf
# checks the installed package's pkg-config file), plus any
# packages named as arguments (the reliability scripts add theirs), and the
# npm packages of the playground's browser test (puppeteer-core, npm ci).
# Idempotent: returns at once when everything is already installed.
# Usage: scripts/setup.sh [extra-package ...]
set -eu
cd "$(dirname "$0")/.."
PACKAGES="cmake g++ make libopencv-core-dev libopencv-imgproc-dev libopencv-imgcodecs-dev \
libgtest-dev libgmock-dev libbenchmark-dev android-liblog-dev android-liblog \
libcpp-httplib-dev nlohmann-json3-dev chromium pkgconf clang-format python3 $*"
# Node and npm from Debian, unless a Node installation is there already (a
# packaged Node that bundles npm conflicts with Debian's npm package).
command -v node >/dev/null 2>&1 || PACKAGES="$PACKAGES nodejs"
command -v npm >/dev/null 2>&1 || PACKAGES="$PACKAGES npm"
missing=""
for p in $PACKAGES; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
if [ -z "$missing" ]; then
  echo "setup: all packages present"
elif [ "$(id -u)" != 0 ]; then
  echo "setup: missing packages:$missing; run this script as root" >&2
  exit 1
else
  export DEBIAN_FRONTEND=noninteractive
  apt-get update
  # shellcheck disable=SC2086
  apt-get install -y --no-install-recommends $missing
fi

# puppeteer-core for the browser test, as pinned in its package-lock.json
# (it drives Debian's chromium; it downloads no browser of its own).
BROWSER_TEST=tools/playground/browser-test
if ! cmp -s "$BROWSER_TEST/package-lock.json" "$BROWSER_TEST/node_modules/.segcore-lock"; then
  echo "setup: npm ci in $BROWSER_TEST"
  # npm keeps its cache under HOME; give it one in the tree when HOME is unset.
  [ -n "${HOME:-}" ] || export npm_config_cache="$(pwd)/$BROWSER_TEST/.npm-cache"
  (cd "$BROWSER_TEST" && PUPPETEER_SKIP_DOWNLOAD=1 npm ci --no-audit --no-fund)
  cp "$BROWSER_TEST/package-lock.json" "$BROWSER_TEST/node_modules/.segcore-lock"
fi
