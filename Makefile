# make        builds build/vondral and build/ctar (no test is configured)
# make install  installs both programs and their manual pages under
#             $(DESTDIR)$(PREFIX) (PREFIX defaults to /usr/local)
# make uninstall  removes exactly the files make install put there
# make demo   backs up a simulated server and restores it into an empty one
# make try    a shell in a private network namespace with a simulated
#             server to try the programs on; it stops when the shell ends
# make test   installs what the tests need (as root), builds, runs every test
# Each target installs the Debian packages it needs when run as root, and
# otherwise names them and stops (tools/install-deps.sh).
# make deb    the Debian package build/vondral_VERSION_ARCH.deb (e.g.
#             build/vondral_1.0.0_amd64.deb, CPack): the programs, manual
#             pages, bash completion, the vondral-backup@.timer units and
#             their script, the documentation (packaging/package.cmake)
# make bench  vondral against curl (in clear, over FTPS and over a link with
#             round trips), this machine's limits, and a backup and restore
#             of 10 000 and 100 000 small objects: prints the table and
#             writes it to bench/results.md (BENCH_GIB=2 BENCH_REPS=7
#             BENCH_SCALE=10000,100000; empty: no scale run)
BUILD := build
JOBS  ?= 2
PREFIX ?= /usr/local
DESTDIR ?=

.PHONY: all test deps demo try clean install uninstall bench deb
INSTALLED := bin/vondral bin/ctar share/man/man1/vondral.1 share/man/man1/ctar.1

# VONDRAL_TESTS is left as the build directory has it: off for a fresh one,
# on once `make test` has configured it, so neither undoes the other.
all:
	tools/check-build.sh
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	cmake --build $(BUILD) -j$(JOBS) --target vondral ctar

install: all
	install -d $(DESTDIR)$(PREFIX)/bin $(DESTDIR)$(PREFIX)/share/man/man1
	install -m 0755 $(BUILD)/vondral $(BUILD)/ctar $(DESTDIR)$(PREFIX)/bin/
	install -m 0644 docs/vondral.1 docs/ctar.1 $(DESTDIR)$(PREFIX)/share/man/man1/

# Only the files: the directories may have been there before.
uninstall:
	rm -f $(addprefix $(DESTDIR)$(PREFIX)/,$(INSTALLED))

# The package lands in $(BUILD); CPack's own work files stay in
# $(BUILD)/_CPack_Packages.
deb:
	tools/install-deps.sh deb
	tools/check-build.sh
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	cmake --build $(BUILD) -j$(JOBS) --target vondral ctar manpages
	cd $(BUILD) && cpack -G DEB

deps:
	tools/install-deps.sh

test: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVONDRAL_TESTS=ON >/dev/null
	cmake --build $(BUILD) -j$(JOBS)
	cd $(BUILD) && ctest --output-on-failure -j$(JOBS)

# A backup of a small simulated server and its restore into an empty one.
# The packages first, so that a machine without them learns it before
# anything is built.
demo:
	tools/install-deps.sh demo
	$(MAKE) all
	tools/netns.sh env PYTHONDONTWRITEBYTECODE=1 /usr/bin/python3 tools/demo.py

# An interactive shell beside a simulated IBM i (tools/try.py); commands
# can be piped in as well.
try:
	tools/install-deps.sh demo
	$(MAKE) all
	tools/netns.sh env PYTHONDONTWRITEBYTECODE=1 PATH="$(abspath $(BUILD)):$$PATH" /usr/bin/python3 tools/try.py

# Runs inside a private network namespace, like the end-to-end tests.
bench: all
	bench/install-deps.sh
	cmake -S bench -B $(BUILD)/bench -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	cmake --build $(BUILD)/bench -j$(JOBS)
	tools/netns.sh env PYTHONDONTWRITEBYTECODE=1 /usr/bin/python3 bench/run_bench.py

clean:
	rm -rf $(BUILD)
