#!/bin/sh
# What `make bench` needs besides the build: curl (the tool it compares
# with), Google Benchmark, the simulator's pyftpdlib, openssl for the FTPS
# certificates (and libssl-dev, which the library links), unshare and ip for
# the private network namespace, iptables to drop packets over the link,
# GNU time for the client's peak memory.
exec "$(dirname "$0")/../tools/install-deps.sh" curl iptables libbenchmark-dev python3-pyftpdlib openssl libssl-dev iproute2 util-linux time cmake g++
