#!/usr/bin/env bash
# Shows the control point at work, in under 20 seconds: devices of a simulated network appear, one of
# them is looked into, one leaves. Everything happens in a private network made for it; the
# machine's own network is not touched. Ends with 0 only when all of that was seen.
#
#   tools/demo.sh [--build DIR]    programs from DIR, default build/release or build/debug
#   tools/demo.sh --real           the devices of the machine's own network instead, vexcp only
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
. "$root/tools/private_net.sh"

fail() { echo "demo: $*" >&2; exit 1; }
# Somebody who watches gets the time to read.
pause() { [ ! -t 1 ] || sleep 1.5; }
say() { pause; printf '\n\033[1m%s\033[0m\n' "$*"; }

build=${VEX_BUILD_DIR:-}
real=
arguments=("$@")
while [ $# -gt 0 ]; do
  case $1 in
    --build) build=${2:?--build wants a folder}; shift ;;
    --real) real=1 ;;
    *) sed -n 2,7p "$0" | cut -c3-; exit 2 ;;
  esac
  shift
done
for candidate in "$root/build/release" "$root/build/debug"; do
  [ -z "$build" ] && [ -x "$candidate/vexcp" ] && build=$candidate
done
[ -x "$build/vexcp" ] || fail "no programs built yet; ./dev build makes them"

if [ -n "$real" ]; then
  say "The devices of your network"
  "$build/vexcp" discover
  exit
fi

enter_private_net ${arguments[@]+"${arguments[@]}"}
ip netns add devices
ip link add eth0 type veth peer name eth0 netns devices
ip addr add 10.78.0.1/24 brd + dev eth0
ip -n devices addr add 10.78.0.2/24 brd + dev eth0
ip link set eth0 up
ip -n devices link set eth0 up
links() { ip -o link show; ip -n devices -o link show; }
wait_for_links 2 links

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkfifo "$work/commands"
nsenter --net=/run/netns/devices -- "$build/vexsim" lamp renderer hub --no-announce --answers window=800 \
  <"$work/commands" >"$work/answers" &
exec 3>"$work/commands"
tell() { echo "$1" >&3; }

# Prints what the watcher has written since the last look.
shown=0
show_watch() {
  local lines
  lines=$(wc -l <"$work/watch")
  [ "$lines" = "$shown" ] || sed -n "$((shown + 1)),${lines}p" "$work/watch"
  shown=$lines
}

# wait_for TEXT: until the watcher has written it, at most 10 seconds.
wait_for() {
  for _ in $(seq 200); do
    show_watch
    if head -n "$shown" "$work/watch" | grep -q -- "$1"; then return; fi
    sleep 0.05
  done
  fail "\"$1\" did not happen"
}

# A search that goes out before the devices listen is lost.
for _ in $(seq 200); do
  grep -q '^ready' "$work/answers" && break
  sleep 0.05
done

say "\$ vexcp discover --watch          (who comes and goes)"
: >"$work/watch"
"$build/vexcp" discover --watch >"$work/watch" &
watcher=$!
wait_for "+ Lamp  DimmableLight:1"
wait_for "+ Renderer  MediaRenderer:1"
wait_for "+ Hub  Basic:1"
wait_for "+ Hub backlight  DimmableLight:1"

say "A media server is switched on: it announces itself"
tell "add mediaserver"
wait_for "+ Media & more  MediaServer:1"

say "The lamp is switched off: it says goodbye"
tell "remove 1"
wait_for "- Lamp  DimmableLight:1"
kill -INT $watcher
wait $watcher || fail "the watcher did not end in order"

say "\$ vexcp discover --services       (embedded devices under their roots)"
"$build/vexcp" discover --services --wait 2 | tee "$work/tree"
grep -q '^`-Hub library  *MediaServer:1' "$work/tree" || fail "no embedded device in the tree"
grep -q '^  `-Hub backlight  *DimmableLight:1' "$work/tree" || fail "no device inside that"
grep -q '\* AVTransport:1' "$work/tree" || fail "no service in the tree"
! grep -q '^Lamp ' "$work/tree" || fail "the lamp is still there"

udn=$(awk '/^Renderer /{print $NF}' "$work/tree")
say "\$ vexcp scpd $udn RenderingControl"
"$build/vexcp" scpd "$udn" RenderingControl >"$work/scpd"
head -n 8 "$work/scpd"
grep -q 'SetVolume(InstanceID: ui4, Channel: string, DesiredVolume: ui2)' "$work/scpd" ||
  fail "no SetVolume in the service description"
say "All of it was seen."
