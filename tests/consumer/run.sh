#!/usr/bin/env bash
# run.sh BUILD_FOLDER: installs the library into a throw-away folder and builds and runs a foreign C
# program through pkg-config and a foreign C++ program through the CMake package.
set -eu
build=$(readlink -f "$1")
here=$(dirname "$(readlink -f "$0")")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/usr" >"$work/install.log"
libdir=$(dirname "$(find "$work/usr" -name vexupnpcp.pc)")/..
export LD_LIBRARY_PATH=$libdir

# The .pc file names the prefix of the build; a relocated one is told so.
flags=$(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --define-variable=prefix="$work/usr" --cflags --libs vexupnpcp)
# shellcheck disable=SC2086
gcc -std=c11 -Wall -Wextra -Wpedantic -Werror "$here/c/main.c" $flags -o "$work/c_host"
"$work/c_host"

cmake -G Ninja -S "$here/cpp" -B "$work/cpp" -DCMAKE_PREFIX_PATH="$work/usr" >"$work/cpp.log"
cmake --build "$work/cpp" >>"$work/cpp.log" || { cat "$work/cpp.log"; exit 1; }
"$work/cpp/foreign_host"
