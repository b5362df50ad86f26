#!/bin/sh
# Checks, before CMake runs, that the build has what it needs: cmake, g++,
# make and the OpenSSL 3 headers (libssl-dev). A missing one is named here
# in plain words instead of deep in CMake's output; as root (unless
# VONDRAL_NO_INSTALL=1) tools/install-deps.sh installs it.
set -u
missing=""
for tool in cmake g++ make; do
  command -v "$tool" >/dev/null 2>&1 || missing="$missing $tool"
done
if command -v g++ >/dev/null 2>&1; then
  # The compiler itself says whether the headers are there and new enough.
  printf '#include <openssl/ssl.h>\n#if OPENSSL_VERSION_MAJOR < 3\n#error OpenSSL 3 needed\n#endif\n' |
    g++ -E -x c++ - >/dev/null 2>&1 || missing="$missing libssl-dev"
elif [ ! -f /usr/include/openssl/ssl.h ]; then
  missing="$missing libssl-dev"
fi
[ -z "$missing" ] && exit 0
if [ "$(id -u)" -eq 0 ] && [ "${VONDRAL_NO_INSTALL:-}" != 1 ] && command -v apt-get >/dev/null 2>&1; then
  "$(dirname "$0")/install-deps.sh" $missing || exit 1
  exit 0
fi
echo "the build needs:$missing" >&2
echo "on Debian: apt-get install$missing (or run make as root)" >&2
exit 1
