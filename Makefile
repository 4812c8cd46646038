# The two commands of the README:
#   make demo   builds everything and runs kestrow on a sample disk image
#   make test   builds everything and runs the whole test suite
# Both install the Debian packages the build needs when they are missing.
#
#   make install [PREFIX=/usr/local] [DESTDIR=...]
#               builds and installs the library, kestrow, its manual page
#               and bash completion, the headers, CMake package and
#               pkg-config file (cmake --install)
#   make install DEPS=--library CMAKE_FLAGS="-DKESTROW_BUILD_TESTS=OFF -DKESTROW_BUILD_BENCH=OFF"
#               the same, with only the packages the library needs

BUILD ?= build
CMAKE_FLAGS ?=
DEPS ?=
PREFIX ?= /usr/local
JOBS ?= $(shell nproc 2>/dev/null || echo 2)

.PHONY: all deps configure build test demo install clean

all: build

deps:
	@scripts/install-deps.sh $(DEPS)

configure: deps
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS)

build: configure
	cmake --build $(BUILD) -j $(JOBS)

# Ends with the list of skipped tests and their reasons; fails when a test
# failed, or skipped for a reason other than a missing capability of the
# machine (scripts/skipped-tests.sh).
test: override DEPS =
test: build
	status=0; ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS) || status=$$?; \
	scripts/skipped-tests.sh $(BUILD) || status=1; exit $$status

demo: override DEPS =
demo: build
	@scripts/demo.sh $(BUILD)

install: build
	cmake --install $(BUILD) --prefix $(PREFIX)

clean:
	rm -rf $(BUILD)
