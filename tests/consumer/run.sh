#!/usr/bin/env bash
# run.sh BUILD_FOLDER: installs the library into a throw-away folder, and builds and runs a foreign C
# program through pkg-config and foreign C++ programs through the CMake package.
set -eu
build=$(readlink -f "$1")
here=$(dirname "$(readlink -f "$0")")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "consumer: $*" >&2; exit 1; }

cmake --install "$build" --prefix "$work/usr" >"$work/install.log"
libdir=$(dirname "$(find "$work/usr" -name vexupnpcp.pc)")/..
export LD_LIBRARY_PATH=$libdir

# The .pc file knows where it was installed, whatever prefix the build was told.
flags=$(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --cflags --libs vexupnpcp)
# shellcheck disable=SC2086
gcc -std=c11 -Wall -Wextra -Wpedantic -Werror "$here/c/main.c" $flags -o "$work/c_host"
"$work/c_host"

# The same with a folder for libraries that is several levels deep.
deep=lib/some-machine-gnu
cmake -G Ninja -S "$here/../.." -B "$work/deep" -DCMAKE_INSTALL_LIBDIR=$deep -DVEX_BUILD_APPS=OFF \
  -DVEX_BUILD_TESTS=OFF >"$work/deep.log"
mkdir -p "$work/moved/$deep/pkgconfig"
cp "$work/deep/vexupnpcp.pc" "$work/moved/$deep/pkgconfig"
for variable in "prefix $work/moved" "libdir $work/moved/$deep" "includedir $work/moved/include"; do
  told=$(PKG_CONFIG_PATH=$work/moved/$deep/pkgconfig pkg-config --variable="${variable% *}" vexupnpcp)
  [ "$(readlink -m "$told")" = "$(readlink -m "${variable#* }")" ] ||
    fail "pkg-config tells $told as ${variable% *}"
done
echo "pkg-config after a move: ok"

cmake -G Ninja -S "$here/cpp" -B "$work/cpp" -DCMAKE_PREFIX_PATH="$work/usr" >"$work/cpp.log"
cmake --build "$work/cpp" >>"$work/cpp.log" || { cat "$work/cpp.log"; exit 1; }
"$work/cpp/foreign_host"
"$work/cpp/sink_host" || fail "a sink in the host is not found ($?)"
for order in before behind; do
  "$work/cpp/sink_loader" "$libdir/libvexupnpcp.so.1" "$work/cpp/libplatform_sink.so" $order ||
    fail "a sink that is loaded $order the library is not found ($?)"
done
