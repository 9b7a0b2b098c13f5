#!/bin/sh
# Cross-builds the library, its tests and the tools for one ARM target and
# runs the tests (with the small golden corpus) under qemu user-mode
# emulation. scripts/armhf.sh and scripts/arm64.sh call it with their target.
#
# Usage: scripts/cross.sh armhf|arm64 [build-dir]   (default: build-armhf, build-arm64)
#   armhf  32-bit ARM, Debian arm-linux-gnueabihf: 4-byte pointers and long,
#          unsigned char, like the armeabi-v7a phones; qemu-arm
#   arm64  64-bit ARM, Debian aarch64-linux-gnu: 8-byte pointers and long,
#          unsigned char, like the arm64-v8a phones; qemu-aarch64
# Environment:
#   SEGCORE_ARMHF_CACHE, SEGCORE_ARM64_CACHE
#                        where the target's sysroot and its apt state are kept
#                        (default: ${XDG_CACHE_HOME:-$HOME/.cache}/segcore-<target>,
#                        build-<target>-cache/ in the tree when HOME is unset)
#   JOBS                 parallel build and test jobs (default: 2)
#
# The sysroot is unpacked from Debian's packages of the target architecture
# with a private apt state (no dpkg --add-architecture, which trips over an
# inconsistent foreign index on some mirrors). It is rebuilt only when the
# package list below changes; later runs rebuild and retest incrementally.
# Tests see SEGCORE_EMULATED=1 and skip benchmark-sized cases and datasets.
set -eu
cd "$(dirname "$0")/.."
SRC=$(pwd)
ABI=${1:-}
case "$ABI" in
  armhf)
    TRIPLET=arm-linux-gnueabihf
    QEMU="qemu-arm qemu-arm-static"
    ELF_CLASS=ELF32
    ELF_MACHINE=ARM
    CACHE_SETTING=${SEGCORE_ARMHF_CACHE:-}
    ;;
  arm64)
    TRIPLET=aarch64-linux-gnu
    QEMU="qemu-aarch64 qemu-aarch64-static"
    ELF_CLASS=ELF64
    ELF_MACHINE=AArch64
    CACHE_SETTING=${SEGCORE_ARM64_CACHE:-}
    ;;
  *)
    echo "usage: scripts/cross.sh armhf|arm64 [build-dir]" >&2
    exit 2
    ;;
esac
BUILD=${2:-build-$ABI}
if [ -n "$CACHE_SETTING" ]; then
  CACHE=$CACHE_SETTING
elif [ -n "${HOME:-}" ]; then
  CACHE=${XDG_CACHE_HOME:-$HOME/.cache}/segcore-$ABI
else
  CACHE=$SRC/build-$ABI-cache  # git-ignored like every build*
fi
SYSROOT=$CACHE/sysroot
JOBS=${JOBS:-2}

# Packages of the sysroot, in the target's architecture; apt adds their
# run-time dependencies.
PACKAGES="libc6 libc6-dev libgcc-s1 libstdc++6 libstdc++-12-dev \
libopencv-core-dev libopencv-imgproc-dev libopencv-imgcodecs-dev \
libgtest-dev libgmock-dev android-liblog android-liblog-dev"
SYSROOT_FORMAT=1  # bump when the assembly steps below change

log() { echo "$ABI: $*"; }

# --- host tools --------------------------------------------------------------
have_qemu() {
  for q in $QEMU; do command -v "$q" >/dev/null 2>&1 && return 0; done
  return 1
}
missing=""
command -v cmake >/dev/null 2>&1 || missing="$missing cmake"
command -v make >/dev/null 2>&1 || missing="$missing make"
command -v $TRIPLET-g++ >/dev/null 2>&1 || missing="$missing g++-$TRIPLET"
have_qemu || missing="$missing qemu-user"
command -v apt-get >/dev/null 2>&1 || { echo "$ABI: needs a Debian host (apt-get)" >&2; exit 1; }
if [ -n "$missing" ]; then
  if [ "$(id -u)" != 0 ]; then
    echo "$ABI: missing host packages:$missing; run this script as root" >&2
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
    -o Dir::Cache::srcpkgcache= -o APT::Architecture="$ABI" \
    -o APT::Architectures::="$ABI" -o Debug::NoLocking=1 -o APT::Sandbox::User=root \
    -o APT::Get::Assume-Yes=1 -o APT::Install-Recommends=0
  # A broken index of one suite (security, seen on these mirrors) fails the
  # update; the main suite is enough to build against.
  apt-get "$@" -q update || log "apt-get update reported errors; going on with the indexes it fetched"
  ls "$APTDIR/lists/"*_binary-"$ABI"_Packages* >/dev/null 2>&1 ||
    { echo "$ABI: no $ABI package index could be fetched" >&2; exit 1; }
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
# The tools are built for the target too: the golden test runs their digests
# there, and the tools' own tests start them under the emulator.
if ! grep -qx "SEGCORE_CROSS_SYSROOT:PATH=$SYSROOT" "$BUILD/CMakeCache.txt" 2>/dev/null; then
  cmake -S "$SRC" -B "$BUILD" -DCMAKE_TOOLCHAIN_FILE="$SRC/cmake/$ABI-toolchain.cmake" \
    -DSEGCORE_CROSS_SYSROOT="$SYSROOT" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DSEGCORE_WERROR=ON -DSEGCORE_TESTS=ON -DSEGCORE_BENCH=OFF -DSEGCORE_TOOLS=ON
fi
cmake --build "$BUILD" -j"$JOBS"
# Guard against a host compiler sneaking in: the tests must run on the target.
header=$($TRIPLET-readelf -h "$BUILD/libSegmentationCore.camera.tavrin.so")
echo "$header" | grep -q "Class:.*$ELF_CLASS" && echo "$header" | grep -q "Machine:.*$ELF_MACHINE" ||
  { echo "$ABI: the library was not built for $TRIPLET" >&2; exit 1; }
# The installed form, as on the host, into the sysroot's /usr/local: a bridge
# cross-built against this sysroot finds it by find_package(SegmentationCore)
# or pkg-config. (InstalledPackage.BridgeExample checks the same install,
# staged in the build, by building the example bridge and running it.)
DESTDIR="$SYSROOT" cmake --install "$BUILD" >/dev/null
echo "$ABI: installed into $SYSROOT/usr/local"
SEGCORE_EMULATED=1 ctest --test-dir "$BUILD" --output-on-failure -j"$JOBS"
