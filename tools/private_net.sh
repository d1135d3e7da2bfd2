# Sourced by scripts that need a network of their own. `enter_private_net "$@"` runs the script again
# inside fresh network, mount and process namespaces, once, and returns there: /run is empty and
# private, so `ip netns add` touches nothing outside, and all processes end with the script.
# Works for an ordinary user where user namespaces are allowed, and otherwise through `sudo -n`.
enter_private_net() {
  if [ "${VEX_PRIVATE_NET:-}" = "$0" ]; then
    mount -t tmpfs -o mode=755 tmpfs /run
    mkdir -p /run/netns
    ip link set lo up
    # The first process of a process namespace is deaf to signals that it does not handle.
    trap 'exit 130' INT
    trap 'exit 143' TERM
    return
  fi
  export VEX_PRIVATE_NET="$0"
  local private="unshare --net --mount --pid --fork --kill-child --mount-proc"
  if [ "$(id -u)" = 0 ]; then exec $private "$0" "$@"; fi
  if $private --user --map-root-user true 2>/dev/null; then
    exec $private --user --map-root-user "$0" "$@"
  fi
  if sudo -n true 2>/dev/null; then exec sudo -n --preserve-env $private "$0" "$@"; fi
  echo "$(basename "$0"): needs user namespaces, or sudo without a password, for a private network" >&2
  exit 125
}

# The kernel reports a new link's carrier with up to a second's delay, and the library counts only
# running links. wait_for_links COUNT COMMAND...: until that many links shown by COMMAND are up.
wait_for_links() {
  local count=$1
  shift
  for _ in $(seq 400); do
    [ "$("$@" | grep -c 'state UP')" -ge "$count" ] && return
    sleep 0.05
  done
  echo "$(basename "$0"): the links of the private network did not come up" >&2
  exit 125
}
