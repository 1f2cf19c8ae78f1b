# The everyday commands. `make test` is what CI runs.
PRESET ?= ci
BUILD_DIR := build
JOBS ?= $(shell nproc)
export CCACHE_NOHASHDIR := 1

.PHONY: all deps configure build test test-asan bench format tidy clean

all: build

deps:
	@scripts/install-deps

# Configure once; later runs only rebuild what changed.
$(BUILD_DIR)/build.ninja:
	cmake --preset $(PRESET)

configure: deps $(BUILD_DIR)/build.ninja

build: configure
	cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	ctest --test-dir $(BUILD_DIR) --output-on-failure -j $(JOBS) --timeout 300

# Core and runner tests under AddressSanitizer + UndefinedBehaviorSanitizer.
test-asan: deps
	cmake --preset asan
	cmake --build build-asan -j $(JOBS)
	ctest --test-dir build-asan --output-on-failure -j $(JOBS) -L core --timeout 600

bench: build
	$(BUILD_DIR)/bin/kestrolan-bench $(BENCH_ARGS)

format:
	git ls-files '*.c' '*.h' '*.cpp' | xargs clang-format -i

tidy: build
	git ls-files 'core/*.cpp' | xargs clang-tidy-16 -p $(BUILD_DIR) --quiet

clean:
	rm -rf $(BUILD_DIR) build-asan
