#!/bin/sh
# Installs Debian packages: those of a named set (build, demo or test, the
# default) or those given by name. As root the missing ones are installed
# with apt-get; otherwise, or with VONDRAL_NO_INSTALL=1, they are named and
# the script fails.
#
#   tools/install-deps.sh build      # cmake, g++, make, libssl-dev
#   tools/install-deps.sh demo       # the build's and the simulator's
#   tools/install-deps.sh deb        # the build's and what make deb runs
#   tools/install-deps.sh            # everything `make test` runs
set -u
build="cmake g++ make libssl-dev"
# The simulator needs pyftpdlib; the private network namespace needs
# unshare (util-linux) and ip (iproute2).
demo="$build python3-pyftpdlib iproute2 util-linux"
# make deb: CPack computes Depends with dpkg-shlibdeps (dpkg-dev), which
# finds the programs with file; the man pages are gzipped.
deb="$build dpkg-dev file gzip"
# The package tests read the manual pages (man-db, groff-base), source the
# completion in bash and check the units with systemd-analyze (systemd).
test="$demo $deb libgtest-dev man-db groff-base bash systemd python3-pytest python3-openssl openssl vsftpd clang libclang-rt-14-dev bzip2 xz-utils zstd"
case "${1:-test}" in
  build) packages=$build ;;
  demo) packages=$demo ;;
  deb) packages=$deb ;;
  test) packages=$test ;;
  *) packages=$* ;;
esac
missing=""
for p in $packages; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
[ -z "$missing" ] && exit 0
if [ "$(id -u)" -ne 0 ] || [ "${VONDRAL_NO_INSTALL:-}" = 1 ]; then
  echo "missing Debian packages:$missing" >&2
  echo "install them with: apt-get install$missing" >&2
  exit 1
fi
echo "installing:$missing"
export DEBIAN_FRONTEND=noninteractive
# The package lists may be current already; fetch them only when needed.
apt-get install -y -qq $missing >/dev/null 2>&1 ||
  { apt-get update -qq && apt-get install -y -qq $missing >/dev/null; }
