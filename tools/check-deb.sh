#!/usr/bin/env bash
# Checks the Debian package the way a user meets it. Usage: tools/check-deb.sh verbolt_<v>_amd64.deb
#
# Always: lintian (no error, no warning), the desktop
# entry, the AppStream data and the manual page as they sit in the package.
# As root with apt: installs the package with its dependencies, runs `verbolt --version`, finds
# and starts the desktop entry with gtk-launch on a private X server, then removes and purges it
# and checks that no file of the package is left. Needs lintian, desktop-file-utils, appstream,
# man-db, libgtk-3-bin and xvfb (`make deb-check` installs them).
set -euo pipefail

deb=$(realpath "${1:?usage: $0 verbolt_VERSION_amd64.deb}")
app_id=org.verbolt.Verbolt
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
fail() { echo "check-deb: $*" >&2; exit 1; }
step() { echo "== $*"; }

version=$(dpkg-deb -f "$deb" Version)
[ "$(basename "$deb")" = "verbolt_${version}_amd64.deb" ] || fail "unexpected file name $(basename "$deb")"

step "lintian"
# No error and no warning; what is left at the info level is explained in cmake/VerboltPackaging.cmake.
lintian --fail-on error,warning --display-info "$deb"

step "contents"
dpkg-deb -x "$deb" "$scratch/root"
root=$scratch/root
desktop-file-validate "$root/usr/share/applications/$app_id.desktop"
appstreamcli validate --no-net "$root/usr/share/metainfo/$app_id.metainfo.xml"
grep -q "<release version=\"$version\"" "$root/usr/share/metainfo/$app_id.metainfo.xml" ||
    fail "the AppStream release list does not name $version"
man_warnings=$(LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -E UTF-8 -l "$root/usr/share/man/man1/verbolt.1.gz" 2>&1 >/dev/null)
[ -z "$man_warnings" ] || fail "the manual page does not render cleanly: $man_warnings"
LC_ALL=C.UTF-8 MANWIDTH=80 man -l "$root/usr/share/man/man1/verbolt.1.gz" | grep -q -- "--new-window" ||
    fail "the manual page does not render its options"

if [ "$(id -u)" != 0 ] || ! command -v apt-get >/dev/null; then
    echo "check-deb: not root or no apt: install and removal not checked"
    exit 0
fi

step "install"
DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=600 install -y -q "$deb"
[ "$(dpkg-query -W -f='${Version}' verbolt)" = "$version" ] || fail "verbolt $version is not installed"
# What the package put on the disk, without the folders it shares with others.
dpkg-query -L verbolt | while read -r path; do [ -d "$path" ] || echo "$path"; done > "$scratch/files"
[ -s "$scratch/files" ] || fail "the package installed no files"

printed=$(/usr/bin/verbolt --version)
[ "$printed" = "verbolt $version" ] || fail "verbolt --version printed '$printed', not 'verbolt $version'"

step "desktop entry"
# A private profile and runtime folder, so the program started here is alone and touches nothing.
export HOME=$scratch/home XDG_CONFIG_HOME=$scratch/home/.config XDG_DATA_HOME=$scratch/home/.local/share
export XDG_RUNTIME_DIR=$scratch/runtime XDG_DATA_DIRS=/usr/local/share:/usr/share
mkdir -p "$HOME" "$XDG_RUNTIME_DIR" && chmod 700 "$XDG_RUNTIME_DIR"
unset QT_QPA_PLATFORM
xvfb-run -a -s "-screen 0 1280x800x24" bash -c '
    set -euo pipefail
    if gtk-launch org.verbolt.NoSuchProgram 2>/dev/null; then
        echo "gtk-launch finds programs that are not there" >&2
        exit 1
    fi
    gtk-launch "$1"
    # The program announces itself on its socket in the runtime folder once its window is up.
    for _ in $(seq 100); do
        compgen -G "$XDG_RUNTIME_DIR/verbolt-*.socket" >/dev/null && break
        sleep 0.2
    done
    compgen -G "$XDG_RUNTIME_DIR/verbolt-*.socket" >/dev/null || { echo "verbolt did not start" >&2; exit 1; }
    # A second start hands over to the one gtk-launch started and ends at once.
    timeout 30 /usr/bin/verbolt --new-window
    for proc in /proc/[0-9]*; do
        pid=${proc#/proc/}
        if [ "$(readlink "$proc/exe" 2>/dev/null)" = /usr/bin/verbolt ] &&
            tr "\0" "\n" < "/proc/$pid/environ" | grep -qx "XDG_RUNTIME_DIR=$XDG_RUNTIME_DIR"; then
            kill "$pid"
            # Ended once it is gone or a zombie nobody reaps (gtk-launch has left already).
            for _ in $(seq 50); do
                state=$(awk "/^State:/ {print \$2}" "/proc/$pid/status" 2>/dev/null || true)
                { [ -z "$state" ] || [ "$state" = Z ]; } && break
                sleep 0.2
            done
        fi
    done
' check-deb "$app_id"

# Nothing of the package may stay: not after remove, and not after purge of a fresh install.
gone() {
    local left
    left=$(while read -r path; do [ -e "$path" ] && echo "$path"; done < "$scratch/files" || true)
    [ -z "$left" ] || fail "apt-get $1 left: $left"
    [ ! -e /usr/share/doc/verbolt ] || fail "apt-get $1 left /usr/share/doc/verbolt"
    if dpkg-query -W -f='${db:Status-Abbrev}' verbolt 2>/dev/null | grep -q '^.[^n]'; then
        fail "dpkg still knows verbolt after apt-get $1"
    fi
}
step "remove"
DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=600 remove -y -q verbolt
gone remove
step "purge"
DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=600 install -y -q "$deb"
DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=600 purge -y -q verbolt
gone purge
echo "check-deb: $(basename "$deb") installs, starts from its desktop entry and leaves nothing behind"
