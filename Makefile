# The everyday commands. `make test` is what CI runs.
PRESET ?= ci
BUILD_DIR := build
JOBS ?= $(shell nproc)
export CCACHE_NOHASHDIR := 1
export CCACHE_BASEDIR := $(CURDIR)

.PHONY: all deps configure build test test-asan bench fuzz run format tidy clean screenshots

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
	cmake --build build-asan -j $(JOBS) --target core-tests
	ctest --test-dir build-asan --output-on-failure -j $(JOBS) -L core --timeout 600

bench: build
	$(BUILD_DIR)/bin/kestrolan-bench $(BENCH_ARGS)

# libFuzzer targets built with clang in build-fuzz/; build/ is left alone. Run one with e.g.
# build-fuzz/bin/fuzz-cron-expression -dict=fuzz/cron_expression.dict fuzz/corpus/cron_expression
fuzz: deps
	cmake --preset fuzz
	cmake --build --preset fuzz -j $(JOBS)

# The app against the development service on loopback, sign-in approved at once (without a
# graphical session, only the service). Extra flags for the service through RUN_ARGS,
# e.g. RUN_ARGS='--upstream-url http://127.0.0.1:8080/v1 --upstream-model qwen2.5'.
RUN_ADDRESS ?= 127.0.0.1:8787
APPLICATIONS_DIR ?= $(or $(XDG_DATA_HOME),$(HOME)/.local/share)/applications
run: configure
	cmake --build $(BUILD_DIR) --target kestrolan kestrolan-devservice kestrolan-cli -j $(JOBS)
	@if [ -z "$$DISPLAY$$WAYLAND_DISPLAY" ]; then \
	  echo "No graphical session: starting only the development service."; \
	  echo "Sign in from another terminal with kestrolan-cli:"; \
	  echo "  export KESTROLAN_BASE_URL=http://$(RUN_ADDRESS)"; \
	  echo "  $(BUILD_DIR)/bin/kestrolan-cli login --no-browser"; \
	  echo "    open the printed address (e.g. curl -si ADDRESS | grep -i ^location), then paste"; \
	  echo "    the kestrolan://auth/callback?... address it redirects to"; \
	  echo "  $(BUILD_DIR)/bin/kestrolan-cli account; $(BUILD_DIR)/bin/kestrolan-cli models"; \
	  exec $(BUILD_DIR)/bin/kestrolan-devservice --auto-approve --listen $(RUN_ADDRESS) $(RUN_ARGS); \
	fi; \
	mkdir -p "$(APPLICATIONS_DIR)"; \
	sed "s|^Exec=kestrolan|Exec=$(CURDIR)/$(BUILD_DIR)/bin/kestrolan|" packaging/kestrolan.desktop \
	  > "$(APPLICATIONS_DIR)/kestrolan.desktop"; \
	update-desktop-database -q "$(APPLICATIONS_DIR)" 2>/dev/null || true; \
	xdg-mime default kestrolan.desktop x-scheme-handler/kestrolan 2>/dev/null || true; \
	$(BUILD_DIR)/bin/kestrolan-devservice --auto-approve --listen $(RUN_ADDRESS) $(RUN_ARGS) & \
	service=$$!; trap 'kill $$service 2>/dev/null' EXIT INT TERM; \
	echo "Development service on http://$(RUN_ADDRESS); the app signs in against it."; \
	KESTROLAN_BASE_URL=http://$(RUN_ADDRESS) $(BUILD_DIR)/bin/kestrolan

# PNGs of the main window's and the chat widgets' states in build/screenshots/, drawn on a private Xvfb display.
screenshots: configure
	cmake --build $(BUILD_DIR) --target kestrolan-screenshots -j $(JOBS)
	tests/support/with-display $(CURDIR)/$(BUILD_DIR)/bin/kestrolan-screenshots $(CURDIR)/$(BUILD_DIR)/screenshots

format:
	git ls-files '*.c' '*.h' '*.cpp' | xargs clang-format -i

tidy: build
	git ls-files 'core/*.cpp' 'cli/*.cpp' | xargs -P $(JOBS) -n 4 clang-tidy-16 -p $(BUILD_DIR) --quiet

clean:
	rm -rf $(BUILD_DIR) build-asan build-fuzz
