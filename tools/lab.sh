#!/usr/bin/env bash
# The laboratory: independent UPnP programs on hosts of a private network, and the control point
# between them. Nothing outside that network is touched; all processes end with this script.
#
#   tools/lab.sh [test] [unittest arguments]   runs the tests of tests/lab
#   tools/lab.sh shell                         a shell on the control point's host
#   tools/lab.sh packages                      says how to install what is needed
#
# VEX_BUILD_DIR names the build whose vexcp is tested; default build/release or build/debug.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
. "$root/tools/private_net.sh"

packages="minidlna gerbera rygel rygel-playbin gupnp-tools gstreamer1.0-plugins-base
gstreamer1.0-plugins-good dbus dbus-daemon xvfb xauth iproute2 nftables python3 nginx-light curl wget
ffmpeg"

print_packages() {
  cat <<T
The laboratory needs these Debian packages. None of their services may start in the machine's own
network, so forbid that while they are installed:

  printf '#!/bin/sh\nexit 101\n' | sudo tee /usr/sbin/policy-rc.d && sudo chmod 755 /usr/sbin/policy-rc.d
  sudo apt-get install -y --no-install-recommends $(echo $packages)
  sudo rm /usr/sbin/policy-rc.d
  sudo systemctl disable --now minidlna rygel nginx 2>/dev/null
T
}

mode=${1:-test}
case $mode in
  test | shell) ;;
  packages) print_packages; exit 0 ;;
  *) sed -n 2,9p "$0" | cut -c3-; exit 2 ;;
esac
for program in minidlnad gerbera rygel gupnp-network-light xvfb-run dbus-run-session nft nginx curl wget \
  ffprobe; do
  command -v "$program" >/dev/null || { echo "lab: $program is missing" >&2; print_packages >&2; exit 1; }
done
build=${VEX_BUILD_DIR:-}
for candidate in "$root/build/release" "$root/build/debug"; do
  [ -z "$build" ] && [ -x "$candidate/vexcp" ] && build=$candidate
done
[ -x "$build/vexcp" ] || { echo "lab: no vexcp built yet; ./dev build makes it" >&2; exit 1; }

enter_private_net "$@"
shift || true
"$root/tests/lab/network.sh"
export VEX_BINARY_DIR="$build"
on_cp="nsenter --net=/run/netns/cp --"
if [ "$mode" = shell ]; then
  cat <<T
This shell is on the control point's host, 10.90.1.2 (eth0) and 10.90.2.2 (eth1).
  $root/tests/lab/devices.py minidlna dev1 &      gerbera, rygel and light too; dev1 to dev4
  $build/vexcp discover
T
  $on_cp bash || true
  exit 0
fi
cd "$root/tests/lab"
[ $# -gt 0 ] || set -- test_lab test_lab_control test_streaming_peers
$on_cp python3 -m unittest -v "$@"
