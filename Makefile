# make        builds build/vondral and build/ctar
# make install  installs both programs and their manual pages under
#             $(DESTDIR)$(PREFIX) (PREFIX defaults to /usr/local)
# make demo   backs up a simulated server and restores it into an empty one
# make test   installs what the tests need (as root), builds, runs every test
# make bench  vondral against curl (in clear and over FTPS) and this
#             machine's limits: prints the table and writes it to
#             bench/results.md (BENCH_GIB=2 BENCH_REPS=7)
BUILD := build
JOBS  ?= 2
PREFIX ?= /usr/local
DESTDIR ?=

.PHONY: all test deps demo clean install bench
all:
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	cmake --build $(BUILD) -j$(JOBS) --target vondral ctar

install: all
	install -d $(DESTDIR)$(PREFIX)/bin $(DESTDIR)$(PREFIX)/share/man/man1
	install -m 0755 $(BUILD)/vondral $(BUILD)/ctar $(DESTDIR)$(PREFIX)/bin/
	install -m 0644 docs/vondral.1 docs/ctar.1 $(DESTDIR)$(PREFIX)/share/man/man1/

deps:
	tools/install-deps.sh

test: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	cmake --build $(BUILD) -j$(JOBS)
	cd $(BUILD) && ctest --output-on-failure -j$(JOBS)

# A backup of a small simulated server and its restore into an empty one.
demo: all
	tools/netns.sh env PYTHONDONTWRITEBYTECODE=1 /usr/bin/python3 tools/demo.py

# Runs inside a private network namespace, like the end-to-end tests.
bench: all
	bench/install-deps.sh
	cmake -S bench -B $(BUILD)/bench -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	cmake --build $(BUILD)/bench -j$(JOBS)
	tools/netns.sh env PYTHONDONTWRITEBYTECODE=1 /usr/bin/python3 bench/run_bench.py

clean:
	rm -rf $(BUILD)
