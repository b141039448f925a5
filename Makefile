# Quick start on Debian: `make run` installs what is missing, builds and starts the program;
# `make test` builds and runs the suite.
BUILD_DIR ?= build
BUILD_TYPE ?= RelWithDebInfo
JOBS ?= $(shell nproc)

PACKAGES := cmake make g++ pkg-config qt6-base-dev qt6-svg-dev libgl-dev xvfb xauth \
            libsimdjson-dev

SUDO := $(shell [ "$$(id -u)" = 0 ] || echo sudo)

.PHONY: all deps configure build run test bench screenshots clean format

all: build

deps:
	@missing=""; for p in $(PACKAGES); do \
	    dpkg-query -W -f='$${Status}' $$p 2>/dev/null | grep -q 'install ok installed' || missing="$$missing $$p"; \
	done; \
	if [ -n "$$missing" ]; then \
	    echo "Installing:$$missing"; \
	    $(SUDO) env DEBIAN_FRONTEND=noninteractive apt-get update -q && \
	    $(SUDO) env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends $$missing; \
	fi

configure: deps
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE)

build: configure
	cmake --build $(BUILD_DIR) -j $(JOBS)

# Starts the program on your own profile (~/.config/Verbolt, ~/.local/share/Verbolt).
run: configure
	cmake --build $(BUILD_DIR) -j $(JOBS) --target verbolt
	$(BUILD_DIR)/app/verbolt

test: build
	cd $(BUILD_DIR) && QT_QPA_PLATFORM=offscreen ctest --output-on-failure -j $(JOBS)

bench: build
	@for b in $(BUILD_DIR)/bench/bench_*; do [ -x "$$b" ] && echo "== $$b" && "$$b"; done; true

# The README's screenshots, against the mock provider in a scratch profile.
screenshots: configure
	cmake --build $(BUILD_DIR) -j $(JOBS) --target verbolt-screenshots verbolt-mock-provider
	tools/screenshots.sh $(BUILD_DIR) docs

format:
	find src app tools tests bench -name '*.cpp' -o -name '*.h' | xargs clang-format -i

clean:
	rm -rf $(BUILD_DIR)
