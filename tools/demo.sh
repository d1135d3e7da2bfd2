#!/usr/bin/env bash
# Shows the control point at work, in under 20 seconds: devices of a simulated network appear, a lamp
# is switched and tells so, one leaves, another is looked into, a file is fetched. Everything happens
# in a private network made for it, not the machine's own. Ends with 0 only when all of that was seen.
#
#   tools/demo.sh [--build DIR]    programs from DIR, default build/release or build/debug
#   tools/demo.sh --real           the devices of the machine's own network instead, vexcp only
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
. "$root/tools/private_net.sh"

fail() { echo "demo: $*" >&2; exit 1; }
# Somebody who watches gets the time to read, as long as there is some to give.
started=$(date +%s)
pause() { [ ! -t 1 ] || [ $(($(date +%s) - started)) -ge 17 ] || sleep 1.2; }
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

# follow NAME COMMAND..: runs a command whose lines wait_for shows and waits for.
follow() {
  watched=$work/$1
  shown=0
  shift
  : >"$watched"
  "$@" >"$watched" &
  watcher=$!
}

# Prints what the followed command has written since the last look.
show_followed() {
  local lines
  lines=$(wc -l <"$watched")
  [ "$lines" = "$shown" ] || sed -n "$((shown + 1)),${lines}p" "$watched"
  shown=$lines
}

# wait_for TEXT: until the followed command has written it, at most 10 seconds.
wait_for() {
  for _ in $(seq 200); do
    show_followed
    if head -n "$shown" "$watched" | grep -q -- "$1"; then return; fi
    sleep 0.05
  done
  fail "\"$1\" did not happen"
}

end_followed() {
  kill -INT "$watcher"
  wait "$watcher" || fail "the command did not end in order"
}

# A search that goes out before the devices listen is lost.
for _ in $(seq 200); do
  grep -q '^ready' "$work/answers" && break
  sleep 0.05
done

watch_devices() {
  say "\$ vexcp discover --watch          (who comes and goes)"
  follow watch "$build/vexcp" discover --watch
  wait_for "+ Lamp  DimmableLight:1"
  wait_for "+ Renderer  MediaRenderer:1"
  wait_for "+ Hub  Basic:1"
  wait_for "+ Hub backlight  DimmableLight:1"

  say "A media server is switched on: it announces itself"
  tell "add mediaserver"
  wait_for "+ Media & more  MediaServer:1"
}

# switch_lamp UDN: an action, and the event that follows it.
switch_lamp() {
  say "\$ vexcp events $1 SwitchPower          (it tells its state, and each change)"
  follow events "$build/vexcp" events "$1" SwitchPower
  wait_for "SwitchPower:1  Status = 0"

  say "\$ vexcp call $1 SwitchPower SetTarget newTargetValue=1"
  "$build/vexcp" call "$1" SwitchPower SetTarget newTargetValue=1 | tee "$work/call"
  grep -qx done "$work/call" || fail "the lamp was not switched"
  wait_for "SwitchPower:1  Status = 1"
  end_followed
}

watch_devices
watch_pid=$watcher
switch_lamp "$(awk '/ \+ Lamp /{print $NF}' "$work/watch")"

say "The lamp is unplugged in order: it says goodbye"
watched=$work/watch
shown=$(wc -l <"$watched")
watcher=$watch_pid
tell "remove 1"
wait_for "- Lamp  DimmableLight:1"
end_followed

say "\$ vexcp discover --services       (embedded devices under their roots)"
# A description that was late on a busy machine is there at the next look.
for _ in 1 2 3 4 5; do
  "$build/vexcp" discover --services --wait 2 >"$work/tree"
  ! grep -q '^`-Hub library ' "$work/tree" || ! grep -q '^Media & more ' "$work/tree" || break
done
cat "$work/tree"
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

# fetch_tone UDN: a file of the media server, compared with the one it serves.
fetch_tone() {
  say "\$ vexcp browse $1 music"
  "$build/vexcp" browse "$1" music || fail "the media server was not browsed"
  "$build/vexcp" browse "$1" music --json >"$work/music"
  local url
  url=$(sed -n 's/.*"url":"\([^"]*\)".*/\1/p' "$work/music")
  [ -n "$url" ] || fail "the media server has no music"
  say "\$ vexcp get $url -o tone.wav"
  "$build/vexcp" get "$url" -o "$work/tone.wav" || fail "the tone was not fetched"
  (cd "$work" && sha256sum tone.wav)
  cmp "$root/apps/vexsim/devices/mediaserver/media/tone.wav" "$work/tone.wav" ||
    fail "the tone is not the one that is served"
}
fetch_tone "$(awk '/^Media & more /{print $NF}' "$work/tree")"

say "All of it was seen."
