#!/bin/sh
# Runs a command inside a private network namespace with loopback up, so
# simulated servers can bind 127.0.0.x port 21 and nothing leaves the
# machine. Real root gets a network namespace alone; anyone else a user
# namespace as well.
set -eu
if [ "${VONDRAL_NETNS_INNER:-}" = 1 ]; then
    unset VONDRAL_NETNS_INNER
    ip link set lo up
    export VONDRAL_NETNS=1
    exec "$@"
fi
if [ "$(id -u)" = 0 ] && awk '$1 == 0 && $2 == 0 && $3 == 4294967295 { ok = 1 } END { exit !ok }' /proc/self/uid_map; then
    exec env VONDRAL_NETNS_INNER=1 unshare -n "$0" "$@"
fi
exec env VONDRAL_NETNS_INNER=1 unshare -rn "$0" "$@"
