# Quick start on Debian: `make run` installs what is missing, builds and starts the program;
# `make test` builds and runs the suite.
BUILD_DIR ?= build
BUILD_TYPE ?= RelWithDebInfo
JOBS ?= $(shell nproc)

PACKAGES := cmake make g++ pkg-config qt6-base-dev qt6-base-private-dev qt6-svg-dev libgl-dev xvfb xauth \
            libsimdjson-dev qtkeychain-qt6-dev libsecret-1-0 gnome-keyring dbus-daemon

# What `make deb` needs to make the package, and what `make deb-check` needs to check it.
DEB_PACKAGES := dpkg-dev file
CHECK_PACKAGES := lintian desktop-file-utils appstream man-db libgtk-3-bin xvfb xauth

SUDO := $(shell [ "$$(id -u)" = 0 ] || echo sudo)

.PHONY: all deps configure build run test bench screenshots clean format deb deb-check a11y-check

all: build

deps:
	@missing=""; for p in $(PACKAGES) $(EXTRA_PACKAGES); do \
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

# The Debian package, from the build above: nothing is compiled again when `make test` ran first.
deb: EXTRA_PACKAGES += $(DEB_PACKAGES)
deb: build
	cd $(BUILD_DIR) && cpack -G DEB
	@ls $(BUILD_DIR)/verbolt_*_amd64.deb

# lintian and the desktop and AppStream validators on the package; as root also installs it with
# apt, starts it from its desktop entry, removes and purges it (tools/check-deb.sh).
deb-check: EXTRA_PACKAGES += $(CHECK_PACKAGES)
deb-check: deb
	tools/check-deb.sh $$(ls -t $(BUILD_DIR)/verbolt_*_amd64.deb | head -n1)

# What the screen-reader checks need: a private X server, the accessibility bus, pyatspi, and
# xdotool and xclip to type and read the clipboard as a user would.
A11Y_PACKAGES := xvfb xauth dbus at-spi2-core python3-pyatspi xdotool xclip

# The transcript as a screen reader reads it and hears it, and a keyboard-only first chat, from
# outside the program over AT-SPI under Xvfb.
a11y-check: EXTRA_PACKAGES += $(A11Y_PACKAGES)
a11y-check: configure
	cmake --build $(BUILD_DIR) -j $(JOBS) --target verbolt verbolt-mock-provider verbolt-inspect
	tools/a11y/run.sh check $(BUILD_DIR)
	tools/a11y/run.sh walkthrough $(BUILD_DIR)

format:
	find src app tools tests bench -name '*.cpp' -o -name '*.h' | xargs clang-format -i

clean:
	rm -rf $(BUILD_DIR)
