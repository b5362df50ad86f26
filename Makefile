# make        builds build/vondral
# make test   installs what the tests need (as root), builds, runs every test
BUILD := build
JOBS  ?= 2

.PHONY: all test deps clean
all:
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	cmake --build $(BUILD) -j$(JOBS) --target vondral

deps:
	tools/install-deps.sh

test: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	cmake --build $(BUILD) -j$(JOBS)
	cd $(BUILD) && ctest --output-on-failure -j$(JOBS)

clean:
	rm -rf $(BUILD)
