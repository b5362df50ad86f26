# make        builds build/vondral
# make demo   backs up a simulated server and restores it into an empty one
# make test   installs what the tests need (as root), builds, runs every test
BUILD := build
JOBS  ?= 2

.PHONY: all test deps demo clean
all:
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	cmake --build $(BUILD) -j$(JOBS) --target vondral

deps:
	tools/install-deps.sh

test: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	cmake --build $(BUILD) -j$(JOBS)
	cd $(BUILD) && ctest --output-on-failure -j$(JOBS)

# A backup of a small simulated server and its restore into an empty one.
demo: all
	tools/netns.sh env PYTHONDONTWRITEBYTECODE=1 /usr/bin/python3 tools/demo.py

clean:
	rm -rf $(BUILD)
