#!/usr/bin/env bash
# The Convert menu in a real GNOME Files (Nautilus 43): a private X server
# (Xvfb) and session bus, Nautilus on a temporary folder holding photo.png
# with our module loaded and a private shared container; the file's context
# menu opened and "WebP" picked from the keyboard; then the request file, the
# host app consuming it, and photo.webp beside the photo.
#
# Usage: nautilus-e2e.sh <build dir> <app group identifier> <artefact dir>
# The artefact directory receives context-menu.png (our item focused among
# Nautilus's), menu.png (its submenu open), after.png
# and, on failure, failure.png and the logs. Exit 0 passed, 1 failed (the
# message names the step), 77 skipped (the message says why).
#
# Nautilus 43 loads modules only from its compiled-in extension directory.
# Rather than write there, Nautilus runs in a mount namespace of its own, in
# which a private directory holding a link to the module is bound over that
# directory; nothing outside the namespace changes. That takes root or an
# unprivileged user namespace.
set -uo pipefail

build="$(cd "${1:?usage: $0 <build dir> <app group> <artefact dir>}" && pwd)"
group="${2:?app group identifier}"
artefacts="${3:?artefact dir}"
mkdir -p "$artefacts" && artefacts="$(cd "$artefacts" && pwd)"
rm -f "$artefacts"/*.png "$artefacts"/*.log

module="$build/PalvinHost.app/Contents/PlugIns/PalvinFinder.appex/libpalvin-nautilus.so"
host="$build/PalvinHost.app/AppRun"
tool="$build/palvin-finder"

# CI installs every file manager, so there a skip is a failure.
skip() {
  echo "SKIPPED: $*" >&2
  [ -z "${PALVIN_REQUIRE_FILE_MANAGERS:-}" ] || exit 1
  exit 77
}

for program in Xvfb dbus-daemon nautilus xdotool import convert unshare pkg-config python3; do
  command -v "$program" >/dev/null || skip "$program is not installed (scripts/deps.sh --tests installs it)"
done
[ -f "$module" ] || skip "the module was not built ($module)"
# A module built with a sanitizer needs its runtime loaded first, which Nautilus is not.
libraries="$(ldd "$module")"
if grep -qE 'lib(a|t|ub)san' <<<"$libraries"; then skip "the module is built with a sanitizer and Nautilus is not"; fi
extensions="$(pkg-config --variable=extensiondir libnautilus-extension-4)"
namespace=(unshare --mount)
[ "$(id -u)" -eq 0 ] || namespace=(unshare --user --map-root-user --mount)
"${namespace[@]}" true 2>/dev/null ||
  skip "no mount namespace can be made here (${namespace[*]}), and Nautilus 43 loads modules only from $extensions"

tmp="$(mktemp -d /tmp/palvin-nautilus-XXXXXX)"
pids=()
step="setting up"

stop() {
  local pid
  for pid in "$@"; do
    kill -TERM "$pid" 2>/dev/null || continue
    for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
    kill -KILL "$pid" 2>/dev/null
    wait "$pid" 2>/dev/null
  done
}
cleanup() {
  # Newest first: Nautilus, then its bus and display.
  local i
  for ((i = ${#pids[@]} - 1; i >= 0; i--)); do stop "${pids[i]}"; done
  rm -rf "$tmp"
}
trap cleanup EXIT

fail() {
  echo "FAILED while $step: $*" >&2
  [ -n "${DISPLAY:-}" ] && import -window root "$artefacts/failure.png" 2>/dev/null
  for log in nautilus.log "container/finder-extension.log" "container/host-app.log"; do
    [ -f "$tmp/$log" ] || continue
    cp "$tmp/$log" "$artefacts/$(basename "$log")"
    echo "--- $log (last lines)" >&2
    tail -n 15 "$tmp/$log" >&2
  done
  exit 1
}

# await SECONDS DESCRIPTION COMMAND...: polls COMMAND until it succeeds.
await() {
  local seconds="$1" what="$2"
  shift 2
  local deadline=$((SECONDS + seconds))
  until "$@" 2>/dev/null; do
    [ "$SECONDS" -lt "$deadline" ] || fail "timed out after ${seconds}s waiting for $what"
    sleep 0.2
  done
}

mkdir -p "$tmp"/{home,config,cache,extensions,Photos} "$tmp/data/$group"
mkdir -m 700 "$tmp/runtime"
# A thumbnail finished while the menu is open changes the file, and Nautilus
# then rebuilds the open menu under the keyboard; thumbnails are turned off.
mkdir -p "$tmp/config/glib-2.0/settings"
printf "[org/gnome/nautilus/preferences]\nshow-image-thumbnails='never'\n" >"$tmp/config/glib-2.0/settings/keyfile"
ln -s "$tmp/data/$group" "$tmp/container"
container="$tmp/data/$group"
photo="$tmp/Photos/photo.png"
convert -size 64x64 xc:red "$photo" || fail "could not make photo.png"

step="starting Xvfb"
exec 3>"$tmp/display"
Xvfb -displayfd 3 -screen 0 1280x800x24 -nolisten tcp >"$tmp/xvfb.log" 2>&1 &
pids+=($!)
exec 3>&-
await 20 "Xvfb to report its display" test -s "$tmp/display"
export DISPLAY=":$(head -n 1 "$tmp/display")"

step="starting the session bus"
# No service directories: nothing is started on demand behind our back, so
# every process of the session is one started here.
cat >"$tmp/bus.conf" <<EOF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path=$tmp/runtime/bus</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/><allow own="*"/>
  </policy>
</busconfig>
EOF
dbus-daemon --config-file="$tmp/bus.conf" --nofork >"$tmp/dbus.log" 2>&1 &
pids+=($!)
await 20 "the session bus's socket" test -S "$tmp/runtime/bus"

export DBUS_SESSION_BUS_ADDRESS="unix:path=$tmp/runtime/bus" HOME="$tmp/home" XDG_DATA_HOME="$tmp/data"
export XDG_CONFIG_HOME="$tmp/config" XDG_CACHE_HOME="$tmp/cache" XDG_RUNTIME_DIR="$tmp/runtime"
export GSETTINGS_BACKEND=keyfile GIO_USE_VFS=local GIO_USE_VOLUME_MONITOR=unix GDK_BACKEND=x11
export GSK_RENDERER=cairo NO_AT_BRIDGE=1 GTK_A11Y=none LANG=C.UTF-8 LC_ALL=C.UTF-8
unset PALVIN_SHARED_CONTAINER

step="installing the host app's catalogue"
# As a user's first start of the host app does.
PALVIN_SHARED_CONTAINER="$container" "$host" >"$tmp/host-first-run.log" 2>&1 || fail "the host app failed"
await 5 "capabilities.json in the container" test -s "$container/capabilities.json"
# Where WebP stands in the Convert submenu, from the same planner.
position="$("$tool" plan --capabilities "$container/capabilities.json" --json "$photo" | python3 -c '
import json, sys
targets = [t["formatId"] for t in (json.load(sys.stdin) or {}).get("inlineTargets", [])]
print(targets.index("webp") + 1 if "webp" in targets else "")')"
[ -n "$position" ] || fail "the host app's catalogue offers no inline WebP for a PNG"

# The host app Nautilus starts: ours, behind a wrapper that first keeps a copy
# of the requests it is about to take, since it takes them within milliseconds.
mkdir -p "$tmp/Host.app/Contents/PlugIns/PalvinFinder.appex" "$tmp/requests"
cp "$module" "$tmp/Host.app/Contents/PlugIns/PalvinFinder.appex/"
printf '#!/bin/sh\ncp "$PALVIN_SHARED_CONTAINER"/requests/*.json "%s/" 2>/dev/null\nexec "%s" "$@"\n' \
  "$tmp/requests" "$host" >"$tmp/Host.app/AppRun"
chmod +x "$tmp/Host.app/AppRun"
ln -s "$tmp/Host.app/Contents/PlugIns/PalvinFinder.appex/libpalvin-nautilus.so" "$tmp/extensions/"

step="starting Nautilus"
"${namespace[@]}" sh -c 'mount --bind "$1" "$2" && exec nautilus --select "$3"' \
  sh "$tmp/extensions" "$extensions" "$photo" >"$tmp/nautilus.log" 2>&1 &
nautilus=$!
pids+=($nautilus)
window=""
find_window() {
  window="$(xdotool search --onlyvisible --class org.gnome.Nautilus)" && window="${window%%$'\n'*}" && [ -n "$window" ]
}
await 60 "Nautilus's window" find_window

step="selecting photo.png"
# Nautilus builds the extension's menu whenever the selection changes.
await 30 "the module to build the Convert menu for the selection" \
  grep -q "Built Convert menu: 1 file(s)" "$container/finder-extension.log"
# Then nothing more may change under the menu: no new build for a second.
builds() { grep -c "Built Convert menu" "$container/finder-extension.log"; }
settled() {
  local count
  count="$(builds)" && sleep 1 && [ "$(builds)" = "$count" ]
}
await 30 "Nautilus to settle" settled
grep -q "FinderSync launched: $tmp/Host.app/Contents/PlugIns/PalvinFinder.appex" \
  "$container/finder-extension.log" || fail "the module did not take its bundle from its own file"

step="opening the context menu"
windows() { xdotool search --onlyvisible --class org.gnome.Nautilus | wc -l; }
before="$(windows)"
xdotool windowfocus --sync "$window" && xdotool key --clearmodifiers shift+F10 || fail "xdotool could not type"
popover_open() { [ "$(windows)" -gt "$before" ]; }
await 10 "the context menu to open" popover_open
# Our section stands last but for Properties, and focus wraps from the first item.
sleep 0.5
xdotool key Up Up
sleep 0.3
import -window root "$artefacts/context-menu.png" || fail "no screenshot"
xdotool key Right
sleep 1  # the submenu slides in
import -window root "$artefacts/menu.png" || fail "no screenshot"

step="picking WebP"
for _ in $(seq "$position"); do xdotool key Down; done
xdotool key Return

step="waiting for the request"
await 20 "the request file" sh -c "ls '$tmp/requests'/*.json >/dev/null"
requests=("$tmp/requests"/*.json)
[ ${#requests[@]} -eq 1 ] || fail "${#requests[@]} requests instead of 1"
expected="{\"targetFormatId\":\"webp\",\"files\":[{\"path\":\"${photo//\//\\/}\",\"sourceFormatId\":\"png\"}]}"
[ "$(cat "${requests[0]}")" = "$expected" ] || fail "request $(cat "${requests[0]}"), expected $expected"
name="$(basename "${requests[0]}")"

step="waiting for the host app"
consumed() {
  grep -q "Handled request $name: 1 file(s)" "$container/host-app.log" &&
    ! ls "$container"/requests/*.json "$container"/requests/processing/*.json >/dev/null 2>&1
}
await 30 "the host app to consume $name" consumed
await 30 "photo.webp" test -s "$tmp/Photos/photo.webp"
magic="$(head -c 12 "$tmp/Photos/photo.webp" | tr -c 'A-Z' '.')"
[ "$magic" = "RIFF....WEBP" ] || fail "photo.webp is not a WebP file (it starts $magic)"
import -window root "$artefacts/after.png"

step="quitting Nautilus"
nautilus -q >/dev/null 2>&1 &
quitter=$!
pids+=($quitter)
exited() { ! kill -0 "$nautilus"; }
await 20 "Nautilus to quit" exited
wait "$nautilus"
status=$?
[ "$status" -eq 0 ] || fail "Nautilus exited with status $status"
cp "$tmp/nautilus.log" "$container/finder-extension.log" "$container/host-app.log" "$artefacts/" 2>/dev/null
echo "passed: menu shown (context-menu.png, menu.png), request $name written and consumed, photo.webp made"
