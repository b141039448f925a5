#!/usr/bin/env bash
# Screen-reader checks of the real program from outside, over the accessibility bus (AT-SPI), under
# a private X server, in a scratch profile, against verbolt-mock-provider:
#   check        a seeded conversation with every block type reads without Markdown syntax, and a
#                streamed reply is announced with its first words within 3 s of its end;
#   walkthrough  from an empty profile, by keyboard alone: add a provider from the presets, type
#                its key, save, close settings, send a message, move to the reply, copy its code.
#   tools/a11y/run.sh check|walkthrough [BUILD_DIR]
# Needs (Debian; `make a11y-check` installs them): xvfb xauth dbus at-spi2-core python3-pyatspi xdotool xclip.
# Exits 77 (skipped) when they are missing. The system python3 is used: pyatspi is a Debian package.
set -euo pipefail
what=${1:?usage: tools/a11y/run.sh check|walkthrough [BUILD_DIR]}
build=$(cd "${2:-build}" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
app=$build/app/verbolt
mock_bin=$build/tools/verbolt-mock-provider/verbolt-mock-provider
inspect=$build/tools/verbolt-inspect/verbolt-inspect
for bin in "$app" "$mock_bin" "$inspect"; do
  [ -x "$bin" ] || { echo "missing $bin: cmake --build $build" >&2; exit 2; }
done
for need in xvfb-run dbus-run-session xdotool xclip /usr/libexec/at-spi-bus-launcher; do
  command -v "$need" >/dev/null || [ -x "$need" ] || { echo "skipped: missing $need (make a11y-check installs it)" >&2; exit 77; }
done
/usr/bin/python3 -c 'import pyatspi' 2>/dev/null || { echo "skipped: missing python3-pyatspi (make a11y-check installs it)" >&2; exit 77; }

scratch=$(mktemp -d)
mock=""
# The mock has usually exited by itself; its kill failing must not fail the check.
cleanup() { [ -z "$mock" ] || kill "$mock" 2>/dev/null || true; rm -rf "$scratch"; }
trap cleanup EXIT
# Nothing of the user's own profile is read or written.
export XDG_CONFIG_HOME=$scratch/config XDG_DATA_HOME=$scratch/data XDG_RUNTIME_DIR=$scratch/runtime
mkdir -p "$XDG_CONFIG_HOME" "$XDG_DATA_HOME" "$XDG_RUNTIME_DIR"
chmod 700 "$XDG_RUNTIME_DIR"

# One request answered, then the mock exits: its exit marks the reply's end.
"$mock_bin" --reply "$here/reply.md" --tokens-per-second 60 --chars-per-token 6 --exit-after-requests 1 \
  >"$scratch/port" &
mock=$!
for _ in $(seq 50); do [ -s "$scratch/port" ] && break; sleep 0.1; done
port=$(head -n1 "$scratch/port")
[ -n "$port" ] || { echo "the mock provider did not start" >&2; exit 1; }
base_url="http://127.0.0.1:$port/v1"

if [ "$what" = check ]; then
  /usr/bin/python3 "$here/seed.py" "$here/seed.md" "$base_url" >"$scratch/archive.json"
  "$inspect" archive-import --file "$scratch/archive.json" >/dev/null
fi

export A11Y_WHAT=$what A11Y_HERE=$here A11Y_APP=$app A11Y_MOCK=$mock A11Y_BASE_URL=$base_url
export A11Y_REPLY=$here/reply.md A11Y_SEED=$here/seed.md A11Y_SHOT=${A11Y_SHOT:-}
xvfb-run -a -s "-screen 0 1400x900x24 -dpi 96" dbus-run-session -- bash -c '
  /usr/libexec/at-spi-bus-launcher --launch-immediately >/dev/null 2>&1 &
  # API keys live in the desktop keyring: a scratch one, unlocked, in this session only.
  if command -v gnome-keyring-daemon >/dev/null; then
    eval "$(printf "scratch" | gnome-keyring-daemon --unlock --components=secrets 2>/dev/null)"
    export GNOME_KEYRING_CONTROL
  fi
  sleep 0.5
  # The script starts the program itself, once it listens as a screen reader would.
  /usr/bin/python3 "$A11Y_HERE/$A11Y_WHAT.py"' 2> >(grep -v -e dbus-daemon -e XDG_RUNTIME_DIR -e SpiRegistry >&2)
