#!/bin/sh
# Run pytest (with the given arguments) inside a private network namespace,
# so the simulated servers can bind 127.0.0.x port 21 and no test traffic
# can leave the machine.
#
#   tests/e2e/run_in_netns.sh tests/e2e/test_simulator.py -q
set -eu

if [ "${VONDRAL_NETNS_INNER:-}" = 1 ]; then
    unset VONDRAL_NETNS_INNER
    ip link set lo up
    export VONDRAL_NETNS=1
    export PYTHONDONTWRITEBYTECODE=1
    exec /usr/bin/python3 -m pytest -p no:cacheprovider "$@"
fi

self=$(cd "$(dirname "$0")" && pwd)/$(basename "$0")

# Real root (not already inside a user namespace with a partial map) may
# create the network namespace directly; everyone else needs a user
# namespace that maps them to root first.
real_root=0
if [ "$(id -u)" = 0 ] && [ "$(wc -l < /proc/self/uid_map)" = 1 ] &&
   awk '$1 == 0 && $2 == 0 && $3 == 4294967295 { ok = 1 } END { exit !ok }' \
       /proc/self/uid_map; then
    real_root=1
fi

if [ "$real_root" = 1 ]; then
    exec env VONDRAL_NETNS_INNER=1 VONDRAL_REAL_ROOT=1 unshare -n "$self" "$@"
else
    exec env -u VONDRAL_REAL_ROOT VONDRAL_NETNS_INNER=1 unshare -rn "$self" "$@"
fi
