# Thin wrapper around CMake. `make test` and `make demo` work on a fresh
# Debian machine: both install what they need first.
#
# `make test` runs the suite three times: the normal build (BUILD_DIR), the
# whole suite again under AddressSanitizer + UndefinedBehaviorSanitizer
# (ASAN_DIR), and the concurrent parts (dispatch, pipeline, network, web
# client, and the symbol reader, whose DWARF decoding runs on every core)
# under ThreadSanitizer (TSAN_DIR). Each build also replays the fuzz
# regression corpus (the FuzzReplay.* tests). The sanitized runs use gcc, as
# the normal build does.
BUILD_DIR ?= build
ASAN_DIR ?= build-asan
TSAN_DIR ?= build-tsan
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=
PREFIX ?= /usr/local
DESTDIR ?=
empty :=
space := $(empty) $(empty)
CMAKE_CONFIGURE = cmake -S . -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS)

# The test executables (and so the ctest labels) that run under ThreadSanitizer,
# and what their tests start as child processes.
TSAN_TESTS = dispatch_tests pipeline_tests network_tests web_client_tests symbols_tests dwarf_tests
TSAN_TARGETS = $(TSAN_TESTS) symlift fake-service

# Any sanitizer report ends the process with SIGABRT, so the test that ran it
# fails, and is also written to <build>/sanitizer-reports/<tool>.<pid>: a
# report from a process no test waits for (a child that was told to stop, a
# leak found at exit) fails `make test` all the same. The test helpers pass
# these variables on to every child, even one given its own environment.
REPORTS = sanitizer-reports
SAN_COMMON = halt_on_error=1:abort_on_error=1:print_stacktrace=1
ASAN_ENV = ASAN_OPTIONS=$(SAN_COMMON):detect_leaks=1:check_initialization_order=1:strict_init_order=1:log_path=$(CURDIR)/$(ASAN_DIR)/$(REPORTS)/asan \
           UBSAN_OPTIONS=$(SAN_COMMON):log_path=$(CURDIR)/$(ASAN_DIR)/$(REPORTS)/ubsan \
           LSAN_OPTIONS=log_path=$(CURDIR)/$(ASAN_DIR)/$(REPORTS)/lsan \
           SYMLIFT_TEST_TIME_SCALE=3
# ignore_noninstrumented_modules: libraries built without TSan (Debian's
# compiled cpp-httplib in the stand-in service, libcurl) hand data between
# their threads through synchronisation TSan cannot see, and their memcpy and
# memcmp calls then look like races. Our own code is all instrumented and
# every access from it is still checked.
TSAN_ENV = TSAN_OPTIONS=$(SAN_COMMON):second_deadlock_stack=1:ignore_noninstrumented_modules=1:log_path=$(CURDIR)/$(TSAN_DIR)/$(REPORTS)/tsan \
           SYMLIFT_TEST_TIME_SCALE=5

# $(call sanitized-ctest,<build dir>,<environment>,<ctest arguments>)
define sanitized-ctest
	rm -rf $(1)/$(REPORTS) && mkdir -p $(1)/$(REPORTS)
	cd $(1) && env $(2) ctest --output-on-failure -j $(JOBS) $(3) || { cat $(REPORTS)/* 2>/dev/null; exit 1; }
	@if [ -n "$$(ls -A $(1)/$(REPORTS))" ]; then \
	  echo "Sanitizer reports in $(1)/$(REPORTS):"; cat $(1)/$(REPORTS)/*; exit 1; \
	fi
endef

.PHONY: all deps configure build test test-normal test-asan test-tsan demo bench fuzz install package clean

all: build

deps:
	scripts/install-deps

configure: deps
	$(CMAKE_CONFIGURE) -B $(BUILD_DIR)

build: configure
	cmake --build $(BUILD_DIR) -j $(JOBS)

# One after the other, whatever -j make was given: each phase uses every core.
test: deps
	$(MAKE) --no-print-directory test-normal
	$(MAKE) --no-print-directory test-asan
	$(MAKE) --no-print-directory test-tsan

test-normal:
	$(CMAKE_CONFIGURE) -B $(BUILD_DIR)
	cmake --build $(BUILD_DIR) -j $(JOBS)
	cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS)

test-asan:
	$(CMAKE_CONFIGURE) -B $(ASAN_DIR) "-DSYMLIFT_SANITIZE=address;undefined"
	cmake --build $(ASAN_DIR) -j $(JOBS)
	$(call sanitized-ctest,$(ASAN_DIR),$(ASAN_ENV),)

test-tsan:
	$(CMAKE_CONFIGURE) -B $(TSAN_DIR) -DSYMLIFT_SANITIZE=thread
	cmake --build $(TSAN_DIR) -j $(JOBS) --target $(TSAN_TARGETS)
	$(call sanitized-ctest,$(TSAN_DIR),$(TSAN_ENV),-L '^($(subst $(space),|,$(TSAN_TESTS)))$$')

demo: build
	scripts/demo $(BUILD_DIR)

# `make install [PREFIX=/usr/local] [DESTDIR=…]`: builds symlift and installs
# bin/symlift, its manual page and its bash completion under PREFIX.
install: configure
	cmake --build $(BUILD_DIR) -j $(JOBS) --target symlift
	DESTDIR="$(DESTDIR)" cmake --install $(BUILD_DIR) --prefix "$(PREFIX)"

# `make package`: builds symlift and the Debian package
# $(BUILD_DIR)/symlift_<version>_<arch>.deb (installs under /usr).
package: configure
	cmake --build $(BUILD_DIR) -j $(JOBS) --target symlift
	cd $(BUILD_DIR) && cpack -G DEB

bench: deps
	scripts/bench

fuzz: deps
	scripts/fuzz

clean:
	rm -rf $(BUILD_DIR) build-*
