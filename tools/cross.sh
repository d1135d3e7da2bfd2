#!/usr/bin/env bash
# cross.sh [armhf|i386]: builds the shared library for 32 bits and tells its stripped size, and runs the
# unit tests (armhf under emulation, i386 natively with AddressSanitizer and UBSan).
set -eu
cd "$(dirname "$0")/.."
. tools/dev_lib.sh
[ "$(id -u)" = 0 ] || echo "note: unpacking a root works as an ordinary user; installing the compilers needs sudo"
KIT=${VEX_KIT:-${XDG_CACHE_HOME:-$HOME/.cache}/vexupnpcp-kit}
ROOT_PACKAGES="libc6-dev libstdc++-12-dev libboost-thread-dev libboost-filesystem-dev
  libboost-date-time-dev libboost-chrono-dev libboost-system-dev libboost-atomic-dev libgtest-dev libgmock-dev"
mkdir -p "$KIT" build

root() { # ARCH EXTRA..
  [ -d "$KIT/sysroot-$1" ] || { say "unpacking a $1 root"; tools/debroot.sh "$KIT/sysroot-$1" "$1" bookworm $ROOT_PACKAGES "${@:2}"; }
}

# small NAME CMAKE_OPTION..: builds the shared library as it is delivered and tells its stripped size.
small() {
  local name=$1 folder=build/$1-small; shift
  say "building $name, as small as it gets"
  cmake --preset small -B "$folder" "$@" >"$folder.log"
  ninja -C "$folder" --quiet vexupnpcp
  # The machine's own strip may know its own format alone; the toolchain names the right one.
  "$(sed -n 's/^CMAKE_STRIP:FILEPATH=//p' "$folder/CMakeCache.txt")" \
    -o "$folder/stripped.so" "$folder/libvexupnpcp.so.1.0.0"
  echo "$name, -Os -flto, stripped: $(stat -c %s "$folder/stripped.so") bytes"
}

armhf() {
  need cmake ninja-build ccache g++-arm-linux-gnueabihf
  root armhf
  # The emulator of Debian 12 lacks IP_MULTICAST_IF.
  [ -x "$KIT/qemu/usr/bin/qemu-arm" ] || NODEPS=1 tools/debroot.sh "$KIT/qemu" "$(dpkg --print-architecture)" trixie qemu-user
  local toolchain=(-DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/armhf.cmake"
    -DVEX_SYSROOT="$KIT/sysroot-armhf" -DVEX_QEMU="$KIT/qemu/usr/bin/qemu-arm")
  small armhf "${toolchain[@]}"
  say "building armhf"
  cmake --preset debug -B build/armhf "${toolchain[@]}" -DVEX_BUILD_APPS=OFF >build/armhf.log
  ninja -C build/armhf --quiet unit_tests
  say "unit tests, armhf under emulation"
  VEX_TEST_EMULATED=1 "$KIT/qemu/usr/bin/qemu-arm" -L "$KIT/sysroot-armhf" build/armhf/unit_tests --gtest_brief=1 --gtest_filter="-$SLOW_TESTS"
}

i386() {
  need cmake ninja-build ccache g++-i686-linux-gnu
  root i386 libasan8 libubsan1
  local toolchain=(-DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/i386.cmake" -DVEX_SYSROOT="$KIT/sysroot-i386")
  small i386 "${toolchain[@]}"
  say "building i386 with sanitizers"
  cmake --preset asan -B build/i386 "${toolchain[@]}" -DVEX_BUILD_APPS=OFF >build/i386.log
  ninja -C build/i386 --quiet unit_tests
  say "unit tests, i386 with sanitizers"
  local libs=$KIT/sysroot-i386/lib/i386-linux-gnu:$KIT/sysroot-i386/usr/lib/i386-linux-gnu
  "$KIT/sysroot-i386/lib/ld-linux.so.2" --library-path "$libs" build/i386/unit_tests --gtest_brief=1 --gtest_filter="-$SLOW_TESTS"
}

case ${1:-all} in
  armhf) armhf ;;
  i386) i386 ;;
  all) armhf; i386 ;;
  *) echo "cross.sh: armhf or i386, not '$1'" >&2; exit 2 ;;
esac
