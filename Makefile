# The two commands of the README:
#   make demo   builds everything and runs kestrow on a sample disk image
#   make test   builds everything and runs the whole test suite
# Both install the Debian packages the build needs when they are missing.

BUILD ?= build
CMAKE_FLAGS ?=
JOBS ?= $(shell nproc 2>/dev/null || echo 2)

.PHONY: all deps configure build test demo clean

all: build

deps:
	@scripts/install-deps.sh

configure: deps
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS)

build: configure
	cmake --build $(BUILD) -j $(JOBS)

# Ends with the list of skipped tests and their reasons; fails when a test
# failed, or skipped for a reason other than a missing capability of the
# machine (scripts/skipped-tests.sh).
test: build
	status=0; ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS) || status=$$?; \
	scripts/skipped-tests.sh $(BUILD) || status=1; exit $$status

demo: build
	@scripts/demo.sh $(BUILD)

clean:
	rm -rf $(BUILD)
