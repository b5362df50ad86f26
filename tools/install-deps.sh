#!/bin/sh
# Installs the Debian packages given as arguments, by default those that
# building and testing need. As root the missing ones are installed;
# otherwise they are named and the script fails.
set -u
packages="${*:-cmake g++ make libgtest-dev iproute2 util-linux python3-pyftpdlib python3-pytest python3-openssl openssl libssl-dev vsftpd clang libclang-rt-14-dev gzip bzip2 xz-utils zstd}"
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
# The package lists may be current already; fetch them only when needed.
apt-get install -y -qq $missing >/dev/null 2>&1 ||
  { apt-get update -qq && apt-get install -y -qq $missing >/dev/null; }
