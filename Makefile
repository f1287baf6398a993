# Thin wrapper around CMake. `make test` and `make demo` work on a fresh
# Debian machine: both install what they need first.
BUILD_DIR ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: all deps configure build test demo bench fuzz clean

all: build

deps:
	scripts/install-deps

configure: deps
	cmake -S . -B $(BUILD_DIR) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS)

build: configure
	cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS)

demo: build
	scripts/demo $(BUILD_DIR)

bench: deps
	scripts/bench

fuzz: deps
	scripts/fuzz

clean:
	rm -rf $(BUILD_DIR) build-*
