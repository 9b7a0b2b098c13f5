#!/bin/sh
# Cross-builds the library and its tests for 32-bit ARM (Debian armhf: 4-byte
# pointers and long, unsigned char, like the armeabi-v7a phones), installs the
# library into the sysroot and runs the tests under qemu-arm user-mode
# emulation.
#
# Usage: scripts/armhf.sh [build-dir]          (default: build-armhf)
# Environment:
#   SEGCORE_ARMHF_CACHE  where the armhf sysroot and its apt state are kept
#                        (default: ${XDG_CACHE_HOME:-$HOME/.cache}/segcore-armhf,
#                        build-armhf-cache/ in the tree when HOME is unset)
#   JOBS                 parallel build and test jobs (default: 2)
#
# The sysroot is unpacked from Debian's armhf packages with a private apt
# state (no dpkg --add-architecture, which trips over an inconsistent armhf
# index on some mirrors). It is rebuilt only when the package list below
# changes; later runs rebuild and retest incrementally.
# Tests see SEGCORE_EMULATED=1 and skip benchmark-sized cases and datasets.
set -eu
cd "$(dirname "$0")/.."
SRC=$(pwd)
BUILD=${1:-build-armhf}
if [ -n "${HOME:-}" ]; then
  CACHE=${SEGCORE_ARMHF_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/segcore-armhf}
else
  CACHE=${SEGCORE_ARMHF_CACHE:-$SRC/build-armhf-cache}  # git-ignored like every build*
fi
SYSROOT=$CACHE/sysroot
JOBS=${JOBS:-2}
TRIPLET=arm-linux-gnueabihf

# armhf packages of the sysroot; apt adds their run-time dependencies.
PACKAGES="libc6 libc6-dev libgcc-s1 libstdc++6 libstdc++-12-dev \
libopencv-core-dev libopencv-imgproc-dev libopencv-imgcodecs-dev \
libgtest-dev libgmock-dev android-liblog android-liblog-dev"
SYSROOT_FORMAT=1  # bump when the assembly steps below change

log() { echo "armhf: $*"; }

# --- host tools --------------------------------------------------------------
missing=""
command -v cmake >/dev/null 2>&1 || missing="$missing cmake"
command -v make >/dev/null 2>&1 || missing="$missing make"
command -v $TRIPLET-g++ >/dev/null 2>&1 || missing="$missing g++-$TRIPLET"
command -v qemu-arm >/dev/null 2>&1 || command -v qemu-arm-static >/dev/null 2>&1 ||
  missing="$missing qemu-user"
command -v apt-get >/dev/null 2>&1 || { echo "armhf: needs a Debian host (apt-get)" >&2; exit 1; }
if [ -n "$missing" ]; then
  if [ "$(id -u)" != 0 ]; then
    echo "armhf: missing host packages:$missing; run this script as root" >&2
    exit 1
  fi
  log "installing$missing"
  export DEBIAN_FRONTEND=noninteractive
  # shellcheck disable=SC2086
  apt-get install -y --no-install-recommends $missing ||
    { apt-get update && apt-get install -y --no-install-recommends $missing; }
fi

# --- sysroot -----------------------------------------------------------------
stamp_text="format=$SYSROOT_FORMAT packages=$PACKAGES"
if [ ! -f "$SYSROOT/.segcore-sysroot" ] || [ "$(cat "$SYSROOT/.segcore-sysroot")" != "$stamp_text" ]; then
  log "assembling the sysroot in $SYSROOT"
  APTDIR=$CACHE/apt
  mkdir -p "$APTDIR/lists/partial" "$APTDIR/archives/partial"
  : >"$APTDIR/status"  # nothing installed: apt resolves every dependency
  set -- -o Dir::State="$APTDIR" -o Dir::State::Lists="$APTDIR/lists" \
    -o Dir::State::status="$APTDIR/status" -o Dir::Cache="$APTDIR" \
    -o Dir::Cache::Archives="$APTDIR/archives" -o Dir::Cache::pkgcache= \
    -o Dir::Cache::srcpkgcache= -o APT::Architecture=armhf \
    -o APT::Architectures::=armhf -o Debug::NoLocking=1 -o APT::Sandbox::User=root \
    -o APT::Get::Assume-Yes=1 -o APT::Install-Recommends=0
  # A broken index of one suite (security, seen on these mirrors) fails the
  # update; the main suite is enough to build against.
  apt-get "$@" -q update || log "apt-get update reported errors; going on with the indexes it fetched"
  ls "$APTDIR/lists/"*_binary-armhf_Packages* >/dev/null 2>&1 ||
    { echo "armhf: no armhf package index could be fetched" >&2; exit 1; }
  rm -f "$APTDIR/archives/"*.deb
  # shellcheck disable=SC2086
  apt-get "$@" -q install --download-only $PACKAGES
  rm -rf "$SYSROOT.new"
  mkdir -p "$SYSROOT.new"
  for deb in "$APTDIR/archives/"*.deb; do
    dpkg-deb -x "$deb" "$SYSROOT.new"
  done
  # Absolute links (libm.so -> /lib/...) would point into the host.
  # Make them relative so the sysroot also works where it is moved.
  find "$SYSROOT.new" -type l -lname '/*' | while read -r link; do
    dir=$(dirname "${link#"$SYSROOT.new"/}")
    up=$(echo "$dir" | sed 's|[^/][^/]*|..|g')
    [ "$dir" = . ] && up=.
    ln -sfn "$up$(readlink "$link")" "$link"
  done
  # update-alternatives links that the maintainer scripts would have made.
  for alt in blas lapack; do
    for lib in "$SYSROOT.new/usr/lib/$TRIPLET/$alt/"lib*.so.*; do
      [ -e "$lib" ] || continue
      name=$(basename "$lib")
      [ -e "$SYSROOT.new/usr/lib/$TRIPLET/$name" ] || ln -s "$alt/$name" "$SYSROOT.new/usr/lib/$TRIPLET/$name"
    done
  done
  rm -f "$APTDIR/archives/"*.deb
  echo "$stamp_text" >"$SYSROOT.new/.segcore-sysroot"
  rm -rf "$SYSROOT"
  mv "$SYSROOT.new" "$SYSROOT"
  log "sysroot ready ($(du -sh "$SYSROOT" | cut -f1))"
else
  log "sysroot up to date in $SYSROOT"
fi

# --- configure, build, test --------------------------------------------------
# Configure once; later builds regenerate by themselves when CMake files change.
if ! grep -qx "SEGCORE_ARMHF_SYSROOT:PATH=$SYSROOT" "$BUILD/CMakeCache.txt" 2>/dev/null; then
  cmake -S "$SRC" -B "$BUILD" -DCMAKE_TOOLCHAIN_FILE="$SRC/cmake/armhf-toolchain.cmake" \
    -DSEGCORE_ARMHF_SYSROOT="$SYSROOT" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DSEGCORE_WERROR=ON -DSEGCORE_TESTS=ON -DSEGCORE_BENCH=OFF -DSEGCORE_TOOLS=OFF
fi
cmake --build "$BUILD" -j"$JOBS"
# Guard against a host compiler sneaking in: the tests must run as 32-bit ARM.
$TRIPLET-readelf -h "$BUILD/libSegmentationCore.camera.tavrin.so" | grep -q 'Class:.*ELF32' &&
  $TRIPLET-readelf -h "$BUILD/libSegmentationCore.camera.tavrin.so" | grep -q 'Machine:.*ARM' ||
  { echo "armhf: the library was not built for 32-bit ARM" >&2; exit 1; }
# The installed form, as on the host, into the sysroot's /usr/local: a bridge
# cross-built against this sysroot finds it by find_package(SegmentationCore)
# or pkg-config. (InstalledPackage.BridgeExample checks the same install,
# staged in the build, by building the example bridge and running it.)
DESTDIR="$SYSROOT" cmake --install "$BUILD" >/dev/null
log "installed into $SYSROOT/usr/local"
SEGCORE_EMULATED=1 ctest --test-dir "$BUILD" --output-on-failure -j"$JOBS"
