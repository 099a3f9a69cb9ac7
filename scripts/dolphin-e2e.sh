#!/usr/bin/env bash
# The Convert menu in a real Dolphin (KDE, KIO 5): a private X server (Xvfb),
# session bus and accessibility bus; Dolphin started on a temporary folder
# with files selected and our plugin loaded; the context menu opened, read
# through the accessibility tree (AT-SPI) and walked from the keyboard; then
# what a pick leaves behind. One row per case, each in a fresh Dolphin:
#
#   fallback   no catalogue yet: the one item opens the host app to the front
#   image      photo.png: the inline targets and the categories' submenus, as
#              the planner orders them
#   pick       WebP for photo.png: the request, the host app's result, photo.webp
#   no-common  photo.png and song.wav have no target in common: no Convert item
#   folder     a folder alone: no Convert item
#
# Usage: dolphin-e2e.sh <build dir> <app group identifier> <artefact dir>
# The artefact directory receives <row>-<n>.png, a screenshot of each open
# menu, and on failure failure.png and the logs. Exit 0 passed, 1 failed (the
# message names the row and step), 77 skipped (the message says why).
#
# The steps a file manager needs (load the plugin, start on a selection, the
# key that opens the context menu, quit) are the fm_* functions; the rows use
# only them and the AT-SPI helper, scripts/atspi-menu.py.
set -uo pipefail

build="$(cd "${1:?usage: $0 <build dir> <app group> <artefact dir>}" && pwd)"
group="${2:?app group identifier}"
artefacts="${3:?artefact dir}"
mkdir -p "$artefacts" && artefacts="$(cd "$artefacts" && pwd)"
rm -f "$artefacts"/*.png "$artefacts"/*.log

plugin="$build/PalvinHost.app/Contents/PlugIns/PalvinFinder.appex/palvin-dolphin.so"
host="$build/PalvinHost.app/AppRun"
tool="$build/palvin-finder"
source_dir="$(cd "$(dirname "$0")/.." && pwd)"
atspi_menu="$source_dir/scripts/atspi-menu.py"
python=/usr/bin/python3  # Debian's, which has pyatspi
launcher=/usr/libexec/at-spi-bus-launcher
registryd=/usr/libexec/at-spi2-registryd

# CI installs every file manager (PALVIN_REQUIRE_FILE_MANAGERS=1): there a skip is a failure.
skip() {
  if [ -n "${PALVIN_REQUIRE_FILE_MANAGERS:-}" ]; then echo "FAILED dolphin: $*" >&2 && exit 1; fi
  echo "SKIPPED: $*" >&2
  exit 77
}

for program in Xvfb dbus-daemon dbus-send dolphin xdotool xprop import convert "$python" "$launcher" "$registryd"; do
  command -v "$program" >/dev/null || skip "$program is not installed (scripts/deps.sh --tests installs it)"
done
"$python" -c 'import pyatspi' 2>/dev/null || skip "pyatspi is missing (python3-pyatspi)"
[ -f "$plugin" ] || skip "the plugin was not built ($plugin)"
[ -x "$host" ] || skip "the host app was not built ($host)"
# A plugin built with a sanitizer needs its runtime loaded first, which Dolphin is not.
# (ldd's whole output first: grep -q leaving early would end ldd with SIGPIPE,
# and under pipefail the check would then fail and Dolphin load the plugin.)
if grep -qE 'lib(a|t|ub)san' <<<"$(ldd "$plugin")"; then skip "the plugin is built with a sanitizer and Dolphin is not"; fi

tmp="$(mktemp -d /tmp/palvin-dolphin-XXXXXX)"
# Every process started from here on carries this variable, so the clean-up
# also finds those that others start for us: KIO's workers, the accessibility
# registry, the host app.
export PALVIN_E2E_RUN="$tmp"
pids=()
row="setting up" step=""

# stop PID...: TERM, up to 5 s, then KILL. A process that is not our child
# can't be reaped here; once it is a zombie it has stopped.
stop() {
  local pid state
  for pid in "$@"; do
    kill -TERM "$pid" 2>/dev/null || continue
    for _ in $(seq 50); do
      state="$(awk '{print $3}' "/proc/$pid/stat" 2>/dev/null)"
      [ -z "$state" ] || [ "$state" = Z ] && break
      sleep 0.1
    done
    kill -KILL "$pid" 2>/dev/null
    wait "$pid" 2>/dev/null
  done
}
# The processes carrying this run's variable, but for zombies.
ours() {
  local entry pid
  for entry in /proc/[0-9]*; do
    pid="${entry#/proc/}"
    [ "$(awk '{print $3}' "$entry/stat" 2>/dev/null)" = Z ] && continue
    grep -qxF "PALVIN_E2E_RUN=$tmp" <<<"$(tr "\\0" "\\n" 2>/dev/null <"$entry/environ")" && echo "$pid"
  done
}
cleanup() {
  local i pid
  for ((i = ${#pids[@]} - 1; i >= 0; i--)); do stop "${pids[i]}"; done
  for pid in $(ours); do
    echo "stopping $(tr '\0' ' ' <"/proc/$pid/cmdline" 2>/dev/null | cut -c1-80) ($pid)" >&2
    stop "$pid"
  done
  rm -rf "$tmp"
}
trap cleanup EXIT

fail() {
  echo "FAILED in row $row while $step: $*" >&2
  [ -n "${DISPLAY:-}" ] && import -window root "$artefacts/failure.png" 2>/dev/null
  for log in dolphin.log "container/finder-extension.log" "container/host-app.log"; do
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

mkdir -p "$tmp"/{home,config,cache,plugins,Files/Folder} "$tmp/data/$group"
mkdir -m 700 "$tmp/runtime"
ln -s "$tmp/data/$group" "$tmp/container"
container="$tmp/data/$group"
convert -size 64x64 xc:red "$tmp/Files/photo.png" || fail "could not make photo.png"
printf 'RIFF' >"$tmp/Files/song.wav"

step="starting Xvfb"
# Without -noreset the server starts afresh whenever its last client leaves,
# and the root window's properties with it.
exec 3>"$tmp/display"
Xvfb -displayfd 3 -screen 0 1280x800x24 -nolisten tcp -noreset >"$tmp/xvfb.log" 2>&1 &
pids+=($!)
exec 3>&-
await 20 "Xvfb to report its display" test -s "$tmp/display"
export DISPLAY=":$(head -n 1 "$tmp/display")"

step="starting the session bus"
# No service directories: nothing is started on demand behind our back.
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
export LANG=C.UTF-8 LC_ALL=C.UTF-8
unset PALVIN_SHARED_CONTAINER SUDO_USER KDESU_USER SESSION_MANAGER

step="starting the accessibility bus"
# The launcher offers the accessibility bus on the session bus, and its
# address goes on the display's root window as an X11 session's launcher puts
# it: Qt 5 then connects to it as it starts, whereas asking the session bus
# races with its registration (half of Dolphin's starts never registered).
"$launcher" --launch-immediately >"$tmp/at-spi.log" 2>&1 &
pids+=($!)
a11y_bus() {
  a11y="$(dbus-send --session --print-reply --dest=org.a11y.Bus /org/a11y/bus org.a11y.Bus.GetAddress |
    sed -n 's/^ *string "\(.*\)"$/\1/p')" && [ -n "$a11y" ]
}
await 20 "the accessibility bus" a11y_bus
xprop -root -f AT_SPI_BUS 8s -set AT_SPI_BUS "$a11y" || fail "could not publish the accessibility bus"
# The registry is started here, not on a client's demand behind our back.
AT_SPI_BUS_ADDRESS="$a11y" "$registryd" >"$tmp/registryd.log" 2>&1 &
pids+=($!)
registry_up() {
  dbus-send --bus="$a11y" --print-reply --dest=org.freedesktop.DBus / org.freedesktop.DBus.NameHasOwner \
    string:org.a11y.atspi.Registry | grep -q 'boolean true'
}
await 20 "the accessibility registry" registry_up

step="making the catalogues"
# The rows' catalogues: the host app's own, written by its first start, and
# the sample's, where an image also converts to WAV, so that it has two
# categories whose catalogue order (Documents, Audio) is not their names'.
PALVIN_SHARED_CONTAINER="$tmp/host-catalogue" "$host" >"$tmp/host-first-run.log" 2>&1 ||
  fail "the host app failed: $(cat "$tmp/host-first-run.log")"
[ -s "$tmp/host-catalogue/capabilities.json" ] || fail "the host app wrote no catalogue"
cp "$tmp/host-catalogue/capabilities.json" "$tmp/host.json"
"$python" -c '
import json, sys
catalogue = json.load(open(sys.argv[1]))
catalogue["conversions"]["png"].append("wav")
json.dump(catalogue, open(sys.argv[2], "w"))' "$source_dir/examples/capabilities.json" "$tmp/sample.json" ||
  fail "could not make the sample catalogue"

# The host app the plugin starts: ours, behind a wrapper that records its
# arguments and keeps a copy of the requests it is about to take, since it
# takes them within milliseconds.
mkdir -p "$tmp/Host.app/Contents/PlugIns/PalvinFinder.appex" "$tmp/requests"
cp "$plugin" "$tmp/Host.app/Contents/PlugIns/PalvinFinder.appex/"
printf '#!/bin/sh\necho "$*" >>"%s"\ncp "$PALVIN_SHARED_CONTAINER"/requests/*.json "%s/" 2>/dev/null\nexec "%s" "$@"\n' \
  "$tmp/launches.log" "$tmp/requests" "$host" >"$tmp/Host.app/AppRun"
chmod +x "$tmp/Host.app/AppRun"

# --- Dolphin -------------------------------------------------------------

fm_app=dolphin
fm_menu_key=Menu
fm_pid=""

# KIO looks for file item action plugins in kf5/kfileitemaction under each
# directory of QT_PLUGIN_PATH before the system's, so Dolphin loads ours, here
# through a link as once installed, without a change to the system.
fm_install() {
  mkdir -p "$tmp/plugins/kf5/kfileitemaction"
  ln -s "$tmp/Host.app/Contents/PlugIns/PalvinFinder.appex/palvin-dolphin.so" "$tmp/plugins/kf5/kfileitemaction/"
  export QT_PLUGIN_PATH="$tmp/plugins" QT_LINUX_ACCESSIBILITY_ALWAYS_ON=1 QT_QPA_PLATFORM=xcb
  # Qt's own KDE theme reads the icon theme from kdeglobals: Adwaita, which
  # has the freedesktop symbolic icons the menu names.
  export XDG_CURRENT_DESKTOP=KDE KDE_SESSION_VERSION=5
  printf '[Icons]\nTheme=Adwaita\n' >"$XDG_CONFIG_HOME/kdeglobals"
}

# fm_start NAME...: Dolphin on the Files folder with those items selected, ready for keys.
fm_start() {
  local paths=() name
  for name in "$@"; do paths+=("$tmp/Files/$name"); done
  dolphin --new-window --select "${paths[@]}" >>"$tmp/dolphin.log" 2>&1 &
  fm_pid=$!
  pids+=("$fm_pid")
  window=""
  find_window() {
    window="$(xdotool search --onlyvisible --pid "$fm_pid" 2>/dev/null | head -n 1)" && [ -n "$window" ]
  }
  await 60 "Dolphin's window" find_window
  "$python" "$atspi_menu" selected "$fm_app" "$@" || fail "Dolphin did not select $*"
  xdotool windowfocus --sync "$window" || fail "xdotool could not focus Dolphin"
}

# Dolphin's end is also the plugin's: it must end its threads and exit cleanly.
fm_quit() {
  step="quitting Dolphin"
  xdotool windowfocus --sync "$window" && xdotool key --clearmodifiers ctrl+q || fail "xdotool could not type"
  exited() { ! kill -0 "$fm_pid"; }
  await 30 "Dolphin to quit" exited
  wait "$fm_pid"
  local status=$? pid kept=()
  [ "$status" -eq 0 ] || fail "Dolphin exited with status $status"
  for pid in "${pids[@]}"; do [ "$pid" = "$fm_pid" ] || kept+=("$pid"); done
  pids=("${kept[@]}")
}

# --- The rows ------------------------------------------------------------

log() { cat "$container/finder-extension.log" 2>/dev/null; }
lines_before=0
mark_log() { lines_before="$(log | wc -l)"; }
new_log() { log | tail -n +"$((lines_before + 1))"; }

# menu ROW PATH [--pick]: opens the context menu, walks PATH, and leaves the
# menus' lines in $menus; a screenshot of each open menu.
menu() {
  local row_name="$1" path="$2"
  shift 2
  step="walking the context menu to '$path'"
  menus="$("$python" "$atspi_menu" menu "$fm_app" "$fm_menu_key" "$path" --shots "$artefacts/$row_name" "$@")" ||
    fail "the menu could not be walked"
}

# has_item ITEM: the context menu's line (the first of $menus) holds ITEM.
has_item() { [[ " | ${menus%%$'\n'*} | " == *" | $1 | "* ]]; }

# planned FILE...: the Convert item as the planner orders it for these files,
# and the path to the first target of its first category.
planned() {
  "$tool" plan --capabilities "$container/capabilities.json" --json "$@" | "$python" -c '
import json, sys
plan = json.load(sys.stdin)
title = json.load(open(sys.argv[1])).get("convertMenuTitle", "Convert using Palvin")
inline = [t["displayName"] for t in plan["inlineTargets"]]
groups = [g["label"] + " {" + " | ".join(t["displayName"] for t in g["targets"]) + "}" for g in plan["groups"]]
print(title + " {" + " | ".join(inline + (["---"] if inline and groups else []) + groups) + "}")
first = plan["groups"][0]
print(title + "/" + first["label"] + "/" + first["targets"][0]["displayName"])' "$container/capabilities.json"
}

use_catalogue() {
  rm -f "$container/capabilities.json"
  [ "$1" = none ] || cp "$tmp/$1.json" "$container/capabilities.json"
}

fallback_title="Convert with Palvin — open to set up"

row_fallback() {
  use_catalogue none
  fm_start photo.png
  menu fallback "$fallback_title" --pick
  has_item "$fallback_title" || fail "no '$fallback_title' item in: $menus"
  step="waiting for the host app"
  await 20 "the host app to start" grep -qx -- "--activate" "$tmp/launches.log"
  await 20 "the host app's catalogue" test -s "$container/capabilities.json"
  grep -q "Opening host app from fallback menu item" "$container/finder-extension.log" ||
    fail "the fallback item did not open the host app: $(log)"
  grep -q "FinderSync launched: $tmp/Host.app/Contents/PlugIns/PalvinFinder.appex" "$container/finder-extension.log" ||
    fail "the plugin did not take its bundle from its own file: $(log)"
  fm_quit
}

row_image() {
  use_catalogue sample
  fm_start photo.png
  local plan
  plan="$(planned "$tmp/Files/photo.png")" || fail "no plan with a category for photo.png"
  menu image "${plan#*$'\n'}"
  step="reading the menu"
  has_item "${plan%%$'\n'*}" || fail "the context menu has not '${plan%%$'\n'*}': $menus"
  fm_quit
}

row_pick() {
  use_catalogue host
  fm_start photo.png
  menu pick "Convert using Palvin/WebP" --pick
  step="waiting for the request"
  await 20 "the request file" sh -c "ls '$tmp/requests'/*.json >/dev/null"
  local requests=("$tmp/requests"/*.json)
  [ ${#requests[@]} -eq 1 ] || fail "${#requests[@]} requests instead of 1"
  local photo="$tmp/Files/photo.png" webp="$tmp/Files/photo.webp"
  local expected="{\"targetFormatId\":\"webp\",\"files\":[{\"path\":\"${photo//\//\\/}\",\"sourceFormatId\":\"png\"}]}"
  [ "$(cat "${requests[0]}")" = "$expected" ] || fail "request $(cat "${requests[0]}"), expected $expected"
  local name
  name="$(basename "${requests[0]}")"
  step="waiting for the host app's result"
  local result="{\"targetFormatId\":\"webp\",\"files\":[{\"path\":\"${photo//\//\\/}\",\"status\":\"converted\",\"outputPath\":\"${webp//\//\\/}\"}]}"
  converted() { [ "$(cat "$container/results/$name")" = "$result" ]; }
  await 30 "the result document $name" converted
  local magic
  magic="$(head -c 12 "$webp" | tr -c 'A-Z' '.')"
  [ "$magic" = "RIFF....WEBP" ] || fail "photo.webp is not a WebP file (it starts $magic)"
  fm_quit
}

# no_convert_item ROW NAME...: the context menu for NAME... has no item of ours.
no_convert_item() {
  local row_name="$1"
  shift
  fm_start "$@"
  mark_log
  menu "$row_name" ""
  has_item Properties || fail "that was not the items' context menu: $menus"
  if grep -qE "Convert using Palvin|$fallback_title" <<<"$menus"; then fail "a Convert item in: $menus"; fi
}

row_no_common() {
  use_catalogue host
  no_convert_item no-common photo.png song.wav
  grep -q "No Convert menu for selection of 2 file(s)" <<<"$(new_log)" ||
    fail "the plugin was not asked, or planned a menu: $(new_log)"
  fm_quit
}

# KIO asks plugins for a folder alone only when they name folders' MIME type,
# which ours doesn't: the controller would drop the folder anyway.
row_folder() {
  use_catalogue host
  no_convert_item folder Folder
  [ -z "$(new_log | grep -E 'Convert menu')" ] || fail "a menu was built for a folder: $(new_log)"
  fm_quit
}

fm_install
started=$SECONDS
for row in fallback image pick no-common folder; do
  step="starting"
  "row_${row//-/_}"
  echo "passed: $row" >&2
done
cp "$tmp/dolphin.log" "$container/finder-extension.log" "$container/host-app.log" "$artefacts/" 2>/dev/null
echo "passed: 5 rows in $((SECONDS - started)) s (screenshots in $artefacts)"
