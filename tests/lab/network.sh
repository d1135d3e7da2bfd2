#!/usr/bin/env bash
# The network of the laboratory: two LANs, each a switch, and five hosts, all network namespaces. To
# be run inside a private network (tools/lab.sh makes one), which takes everything away at its end.
#
#   host    eth0              eth1
#   cp      LAN 1 10.90.1.2   LAN 2 10.90.2.2     the control point
#   dev1    LAN 1 10.90.1.11
#   dev2    LAN 1 10.90.1.12
#   dev3    LAN 2 10.90.2.13
#   dev4    LAN 1 10.90.1.14  LAN 2 10.90.2.14    a device on both
set -eu
. "$(dirname "$0")/../../tools/private_net.sh"

for n in 1 2; do
  sw=switch$n
  ip netns add "$sw"
  ip -n "$sw" link set lo up
  # Without snooping: there is no querier, so the switch must flood multicast. Without forward delay
  # a port forwards at once.
  ip -n "$sw" link add br0 type bridge mcast_snooping 0 stp_state 0 forward_delay 0
  ip -n "$sw" link set br0 up
done

# add_host NAME LAN:ADDRESS...
add_host() {
  local host=$1 i=0
  shift
  ip netns add "$host"
  ip -n "$host" link set lo up
  for place in "$@"; do
    ip -n "$host" link add "eth$i" type veth peer name "$host" netns "switch${place%%:*}"
    ip -n "switch${place%%:*}" link set "$host" master br0 up
    ip -n "$host" addr add "${place#*:}/24" brd + dev "eth$i"
    ip -n "$host" link set "eth$i" up
    i=$((i + 1))
  done
  # Programs that send to a group without choosing an interface need a route.
  ip -n "$host" route add 239.0.0.0/8 dev eth0
  # A strict reverse path would drop multicast on the second interface.
  nsenter --net="/run/netns/$host" -- sh -c '
    for f in /proc/sys/net/ipv4/conf/*/rp_filter; do echo 0 >"$f"; done
    for f in /proc/sys/net/ipv6/conf/*/disable_ipv6; do echo 1 >"$f"; done' 2>/dev/null || true
}
add_host cp 1:10.90.1.2 2:10.90.2.2
add_host dev1 1:10.90.1.11
add_host dev2 1:10.90.1.12
add_host dev3 2:10.90.2.13
add_host dev4 1:10.90.1.14 2:10.90.2.14
links() { for host in cp dev1 dev2 dev3 dev4; do ip -n "$host" -o link show; done; }
wait_for_links 7 links
