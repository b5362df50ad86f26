#!/bin/sh
# What `make bench` needs besides the build: curl (the tool it compares
# with), Google Benchmark, the simulator's pyftpdlib, unshare and ip for the
# private network namespace. As root the missing Debian packages are
# installed; otherwise they are named and the bench stops.
set -u
packages="curl libbenchmark-dev python3-pyftpdlib iproute2 util-linux cmake g++"
missing=""
for p in $packages; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
[ -z "$missing" ] && exit 0
if [ "$(id -u)" -ne 0 ]; then
  echo "missing Debian packages:$missing" >&2
  echo "install them with: apt-get install$missing" >&2
  exit 1
fi
echo "installing:$missing"
export DEBIAN_FRONTEND=noninteractive
apt-get install -y -qq $missing >/dev/null 2>&1 ||
  { apt-get update -qq && apt-get install -y -qq $missing >/dev/null; }
