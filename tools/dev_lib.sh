# What ./dev does; sourced by it, in the top folder.

export CCACHE_DIR=${CCACHE_DIR:-${XDG_CACHE_HOME:-$HOME/.cache}/vexupnpcp-ccache}
export CCACHE_BASEDIR=$PWD CCACHE_NOHASHDIR=1 CCACHE_MAXSIZE=${CCACHE_MAXSIZE:-4G}
JOBS=${JOBS:-$(nproc)}

BUILD_PACKAGES="g++ cmake ninja-build ccache pkg-config
  libboost-thread-dev libboost-filesystem-dev libboost-chrono-dev
  libboost-date-time-dev"
PROGRAM_PACKAGES="libcli11-dev nlohmann-json3-dev"
TEST_PACKAGES="libgtest-dev libgmock-dev iproute2 python3 gcc"
CHECK_PACKAGES="git clang-14 clang-tidy-14 clang-format-14 libclang-rt-14-dev cppcheck binutils"
BENCH_PACKAGES="libbenchmark-dev libpugixml-dev libxml2-dev libexpat1-dev libgupnp-1.6-dev libupnp-dev
  iproute2 python3"
FUZZ_PACKAGES="clang-14 libclang-rt-14-dev libexpat1-dev"
AFL_PACKAGES="afl++"

# Tests that are meant to take long; with sanitizers and in the quick loop they are left out. One whose
# name merely speaks of something slow stays in.
SLOW_TESTS='*.Slow*:*.RegressionSlow*:*.KeptSlow*'

say() { printf '\n== %s\n' "$*"; }

# need PACKAGE..: installs what is missing. As an ordinary user through sudo without a password;
# where that is not allowed it prints the line to run and ends with 3.
need() {
  local missing=() package
  for package in "$@"; do
    dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'ok installed' ||
      missing+=("$package")
  done
  [ ${#missing[@]} = 0 ] && return 0
  local as_root=()
  if [ "$(id -u)" != 0 ]; then
    if ! sudo -n true 2>/dev/null; then
      echo "These packages are missing. Please run this line, then ./dev again:" >&2
      echo "  sudo apt-get update && sudo apt-get install -y --no-install-recommends ${missing[*]}" >&2
      exit 3
    fi
    as_root=(sudo -n)
  fi
  say "installing ${missing[*]}"
  local log; log=$(mktemp)
  # A mirror that is being renewed lists what it does not have for a while.
  if ! install_packages "${missing[@]}" >"$log" 2>&1; then
    sleep 30
    if ! install_packages "${missing[@]}" >>"$log" 2>&1; then
      tail -n 20 "$log" >&2
      echo "Installing failed; the whole output is in $log" >&2
      exit 3
    fi
  fi
  rm -f "$log"
}

# For `need`, whose as_root it uses.
install_packages() {
  "${as_root[@]}" apt-get -o Acquire::Retries=5 update -q &&
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -o Acquire::Retries=5 \
      -o DPkg::Lock::Timeout=600 install -q -y --no-install-recommends "$@"
}

# tool NAME: the path of the version we format and check with, or of the plain name.
tool() { command -v "$1-14" || command -v "$1"; }

# build PRESET TARGET.. [-- CMAKE_OPTION..]: configures, too.
build() {
  local preset=$1; shift
  local targets=() options=()
  while [ $# -gt 0 ]; do
    if [ "$1" = -- ]; then shift; options=("$@"); break; fi
    targets+=("$1"); shift
  done
  mkdir -p build
  say "building $preset"
  # A filter left by hand in the cache must not narrow what the front door runs.
  cmake --preset "$preset" -DVEX_TEST_FILTER= "${options[@]}" >"build/$preset.configure.log" 2>&1 ||
    { cat "build/$preset.configure.log" >&2; return 1; }
  ninja -C "build/$preset" -j "$JOBS" --quiet "${targets[@]}"
}

# run_tests PRESET [OPTION..]: unit tests as they are, scenario and stress tests in a network of
# their own; the options go to the unit and scenario tests.
run_tests() {
  local preset=$1; shift
  say "unit tests ($preset)"
  "build/$preset/unit_tests" --gtest_brief=1 "$@"
  if [ -x "build/$preset/scenario_tests" ]; then
    say "scenario tests ($preset)"
    tools/in_netns "build/$preset/scenario_tests" --gtest_brief=1 "$@"
  fi
  if [ -x "build/$preset/stress_tests" ]; then
    say "stress test ($preset)"
    VEX_STRESS_SECONDS=${VEX_STRESS_SECONDS:-6} tools/in_netns "build/$preset/stress_tests" --gtest_brief=1
  fi
}

dev_build() {
  need $BUILD_PACKAGES $PROGRAM_PACKAGES $TEST_PACKAGES
  case ${1:-debug} in
    clang) need $CHECK_PACKAGES ;;
  esac
  build "${1:-debug}" all
}

dev_demo() {
  need $BUILD_PACKAGES $PROGRAM_PACKAGES iproute2
  # Whoever installed from this folder may have left the programs out.
  build release vexcp vexsim -- -DVEX_BUILD_APPS=ON -DVEX_BUILD_TESTS=OFF
  VEX_BUILD_DIR=$PWD/build/release tools/demo.sh "$@"
}

dev_test() {
  local quick=
  if [ "${1:-}" = --quick ]; then quick=1; shift; fi
  if [ $# -gt 0 ]; then
    echo "./dev test: there is no option '$1'" >&2
    usage >&2
    exit 2
  fi
  need $BUILD_PACKAGES $PROGRAM_PACKAGES $TEST_PACKAGES
  build debug all -- -DVEX_BUILD_APPS=ON -DVEX_BUILD_TESTS=ON
  if [ -n "$quick" ]; then
    run_tests debug --gtest_filter="-$SLOW_TESTS"
    return
  fi
  run_tests debug
  say "program tests"
  VEX_BUILD_DIR=$PWD/build/debug VEX_BINARY_DIR=$PWD/build/debug \
    python3 -m unittest discover -s tests/programs
  say "foreign programs against the installed library"
  tests/consumer/run.sh build/debug
  if [ "$(id -u)" = 0 ]; then
    dev_lab
  else
    say "tests against real devices need root; skipped"
  fi
}

dev_lab() {
  [ "$(id -u)" = 0 ] || { echo "./dev lab needs root: it makes network namespaces and starts real devices in them" >&2; exit 3; }
  need $BUILD_PACKAGES $PROGRAM_PACKAGES $TEST_PACKAGES
  need_lab_packages
  build debug all -- -DVEX_BUILD_APPS=ON -DVEX_BUILD_TESTS=ON
  say "real devices"
  VEX_BUILD_DIR=$PWD/build/debug tools/lab.sh test
}

# Real devices as packages; none of them may start by itself on this machine.
need_lab_packages() {
  local policy=/usr/sbin/policy-rc.d
  if [ ! -e "$policy" ]; then
    # It goes again when installing fails, too.
    trap 'rm -f /usr/sbin/policy-rc.d' EXIT
    printf '#!/bin/sh\nexit 101\n' >"$policy"; chmod +x "$policy"
  else
    policy=
  fi
  need minidlna gerbera rygel rygel-playbin gupnp-tools gstreamer1.0-plugins-base \
    gstreamer1.0-plugins-good dbus dbus-daemon xvfb xauth iproute2 nftables nginx-light curl wget \
    ffmpeg
  [ -n "$policy" ] || return 0
  rm -f "$policy"
  trap - EXIT
}

dev_check() {
  need $BUILD_PACKAGES $PROGRAM_PACKAGES $TEST_PACKAGES $CHECK_PACKAGES
  say "layers";  tools/check_includes.py
  say "headers"; tools/check_headers
  say "format";  check_format
  check_symbols
  check_hardening
  say "cppcheck"; tools/check_cppcheck
  # One build serves both: the second compiler with its analyses, and the sanitizers.
  dev_tidy clang-asan
  run_sanitized clang-asan
  build tsan unit_tests scenario_tests stress_tests -- -DVEX_BUILD_APPS=OFF -DVEX_BUILD_TESTS=ON
  run_sanitized tsan
  dev_fuzz "" "${VEX_FUZZ_SECONDS:-30}"
  say "all checks passed"
}

run_sanitized() {
  ASAN_OPTIONS=detect_leaks=1:detect_stack_use_after_return=1 UBSAN_OPTIONS=print_stacktrace=1 \
    TSAN_OPTIONS=detect_deadlocks=1:second_deadlock_stack=1:halt_on_error=0 \
    VEX_STRESS_SECONDS=${VEX_STRESS_SECONDS:-60} \
    run_tests "$1" --gtest_filter="-$SLOW_TESTS"
}

our_sources() {
  git ls-files -co --exclude-standard '*.h' '*.cpp' '*.c' | while read -r f; do [ -f "$f" ] && echo "$f"; done
}
check_format() { our_sources | xargs "$(tool clang-format)" --dry-run --Werror; }
dev_format() { need clang-format-14; our_sources | xargs "$(tool clang-format)" -i; }

# dev_tidy [PRESET]: everything under the second compiler with its lock analysis, and the library
# under clang-tidy.
dev_tidy() {
  local preset=${1:-clang}
  need $BUILD_PACKAGES $PROGRAM_PACKAGES $TEST_PACKAGES $CHECK_PACKAGES
  build "$preset" all -- -DVEX_BUILD_APPS=ON -DVEX_BUILD_TESTS=ON
  say "tidy"
  git ls-files 'base/*.cpp' 'src/*.cpp' 'string/*.cpp' 'timer/*.cpp' 'httpparser/*.cpp' 'xmlparser/*.cpp' 'file_io/*.cpp' |
    grep -v 'base/asio_impl.cpp' |
    xargs -P "$JOBS" -n 2 "$(tool clang-tidy)" -p "build/$preset" --quiet 2>build/tidy.err || { cat build/tidy.err >&2; return 1; }
}

check_symbols() {
  build debug vexupnpcp
  say "symbols"
  python3 tools/symbols.py check build/debug/libvexupnpcp.so
}

check_hardening() {
  build release vexupnpcp -- -DVEX_BUILD_TESTS=OFF
  say "hardening"
  tools/check_hardening build/release/libvexupnpcp.so
}

dev_symbols() {
  need $BUILD_PACKAGES
  build debug vex_objects
  find build/debug -path '*vex_objects*' -name '*.o' -print0 | xargs -0 python3 tools/symbols.py update
}

dev_coverage() {
  need $BUILD_PACKAGES $TEST_PACKAGES gcovr
  build coverage unit_tests scenario_tests -- -DVEX_BUILD_TESTS=ON
  run_tests coverage
  gcovr -r . build/coverage --exclude-throw-branches \
    -f src/ -f httpparser/ -f xmlparser/ -f string/ -f timer/ -f base/ -f file_io/ --print-summary
}

dev_bench() {
  need $BUILD_PACKAGES $PROGRAM_PACKAGES $TEST_PACKAGES $BENCH_PACKAGES
  build release all -- -DVEX_BUILD_BENCH=ON -DVEX_BUILD_APPS=ON -DVEX_BUILD_TESTS=OFF
  local program
  for program in build/release/*_bench; do
    [ -z "${1:-}" ] || [[ $program == *"$1"* ]] || continue
    say "$(basename "$program")"
    tools/in_netns "$program"
  done
  [[ actions_events != *"${1:-}"* ]] || dev_bench_control
  [[ discovery != *"${1:-}"* ]] || dev_bench_discovery
  [[ streaming != *"${1:-}"* ]] || dev_bench_streaming
}

# Beside nginx and curl, which belong to the packages of the laboratory.
dev_bench_streaming() {
  say "streaming"
  if ! command -v nginx >/dev/null || ! command -v curl >/dev/null; then
    echo "needs nginx-light and curl; skipped"
    return
  fi
  tools/two_hosts bench/streaming/run.py --build build/release --quick
}

# Side by side with other control points.
dev_bench_discovery() {
  say "discovery"
  if [ "$(id -u)" != 0 ]; then
    # Root of a user namespace may not exceed the receive buffer that is granted to everybody.
    echo "bench: discovery needs root for its receive buffer; as root:"
    echo "  tools/two_hosts bench/discovery/run.py --quick --build build/release"
    return 0
  fi
  tools/two_hosts python3 bench/discovery/run.py --build build/release --quick
}

# Actions and events, side by side with other control points.
dev_bench_control() {
  say "actions and events"
  tools/two_hosts python3 bench/actions/run.py --build build/release --quick
}

# Long life: a host of the shared library in a house that changes all the time.
dev_soak() {
  local hours=${1:-0.5}
  [ $# -eq 0 ] || shift
  need $BUILD_PACKAGES $PROGRAM_PACKAGES iproute2 python3 python3-matplotlib
  build release soak_host vexsim -- -DVEX_BUILD_APPS=ON -DVEX_BUILD_TESTS=OFF
  say "soak, $hours hours; the figures go to build/soak"
  tools/two_hosts python3 tests/soak/run.py "$hours" --build build/release --out build/soak "$@"
}

# dev_fuzz [--afl] [ENTRY] [SECONDS], or dev_fuzz --keep [ENTRY].
dev_fuzz() {
  local preset=fuzz way=
  case ${1:-} in
    --afl) preset=fuzz-afl way=$1; shift ;;
    --keep) way=$1; shift ;;
  esac
  need $BUILD_PACKAGES $FUZZ_PACKAGES python3
  [ "$preset" = fuzz ] || need $AFL_PACKAGES
  AFL_QUIET=1 build $preset fuzzers
  if [ "$way" = --keep ]; then
    say "keeping what ${1:-everything} has learnt"
  else
    say "fuzzing ${1:-everything}, ${2:-30} s each"
  fi
  tools/fuzz.py $way --build build/$preset --jobs "$JOBS" --seconds "${2:-30}" ${1:+"$1"}
}

dev_cross() { tools/cross.sh "$@"; }
