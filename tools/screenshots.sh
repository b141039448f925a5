#!/usr/bin/env bash
# Makes the README's screenshot and the full set of window screenshots (light and dark) again:
# starts verbolt-mock-provider with a reply that has code and a table, then walks the real
# windows through a first start with verbolt-screenshots, in a scratch profile, under Xvfb when
# it is installed (else offscreen).
#   tools/screenshots.sh [BUILD_DIR] [DOCS_DIR]
# All PNGs go to BUILD_DIR/screenshots; the conversation in light goes to DOCS_DIR/screenshot.png.
set -euo pipefail
build=${1:-build}
docs=${2:-docs}
here=$(cd "$(dirname "$0")" && pwd)
mock_bin=$build/tools/verbolt-mock-provider/verbolt-mock-provider
shots_bin=$build/tools/verbolt-screenshots/verbolt-screenshots
for bin in "$mock_bin" "$shots_bin"; do
  [ -x "$bin" ] || { echo "missing $bin: cmake --build $build --target verbolt-screenshots verbolt-mock-provider" >&2; exit 2; }
done

scratch=$(mktemp -d)
mock=""
cleanup() { [ -n "$mock" ] && kill "$mock" 2>/dev/null; rm -rf "$scratch"; }
trap cleanup EXIT
# Nothing of the user's own profile is read or written.
export XDG_CONFIG_HOME=$scratch/config XDG_DATA_HOME=$scratch/data XDG_RUNTIME_DIR=$scratch/runtime
mkdir -p "$XDG_CONFIG_HOME" "$XDG_DATA_HOME" "$XDG_RUNTIME_DIR"
chmod 700 "$XDG_RUNTIME_DIR"

"$mock_bin" --reply "$here/screenshots/reply.md" --require-key sk-demo --tokens-per-second 400 >"$scratch/port" &
mock=$!
for _ in $(seq 50); do [ -s "$scratch/port" ] && break; sleep 0.1; done
port=$(head -n1 "$scratch/port")
[ -n "$port" ] || { echo "the mock provider did not start" >&2; exit 1; }

out=$build/screenshots
mkdir -p "$out" "$docs"
args=(--base-url "http://127.0.0.1:$port/v1" --key sk-demo --out "$out")
if command -v xvfb-run >/dev/null; then
  xvfb-run -a -s "-screen 0 1600x1000x24 -dpi 96" "$shots_bin" "${args[@]}"
else
  QT_QPA_PLATFORM=offscreen "$shots_bin" "${args[@]}"
fi
cp "$out/main-conversation-light.png" "$docs/screenshot.png"
echo "$docs/screenshot.png"
