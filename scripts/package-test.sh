#!/usr/bin/env bash
# The Debian package as a user gets it: built by scripts/package.sh (which
# fails on any lintian error or warning), then installed with apt into a
# throwaway Debian root that mmdebstrap makes from this machine's mirror and
# deletes afterwards. Nothing is installed on this machine. The root holds the
# package's declared dependencies and the checks' own tools (systemd,
# desktop-file-utils, man-db), nothing else, so a library the package uses
# without declaring it is missing there.
# Usage: package-test.sh <the build tree's palvin-finder> [a .deb built before]
# (with a .deb, that package is tested as it is, without building one)
set -euo pipefail

fail() { echo "FAILED: $*" >&2; exit 1; }

# The installed host apps running, by process id.
host_apps() {
  for exe in /proc/[0-9]*/exe; do
    [ "$(readlink "$exe" 2>/dev/null)" = /usr/lib/palvin/PalvinHost.app/AppRun ] && echo "${exe//[^0-9]/}"
  done
  true
}

stop_host_apps() {
  local pid
  for pid in $(host_apps); do kill "$pid"; done
}

# Inside the root, as root. Everything the test brought lies in /tmp/palvin.
inside() {
  cd /tmp/palvin
  export LC_ALL=C.UTF-8 NO_COLOR=1 DEBIAN_FRONTEND=noninteractive
  # The root shares this machine's processes and abstract sockets: no
  # desktop session of the machine's is reached, and no host app outlives it.
  unset DBUS_SESSION_BUS_ADDRESS DISPLAY WAYLAND_DISPLAY
  trap stop_host_apps EXIT
  # What the package must leave behind once purged: the root as it was. Logs,
  # apt's and man's caches and dpkg's backups change with any package.
  snapshot() {
    find / -xdev -path /tmp -prune -o -printf '%y %p\n' |
      grep -Ev ' /var/(log|cache/(apt|debconf|man|ldconfig)|lib/apt)/| /var/lib/dpkg/[^/]*-old$' | sort
  }
  snapshot >before.txt
  apt-get install -y -q ./palvin-finder.deb >apt.log 2>&1 || fail "apt-get install: $(cat apt.log)"
  mapfile -t files < <(dpkg -L palvin-finder)

  # The tool on PATH, of the package's version, plans as the build tree's does.
  [ "$(palvin-finder --version | head -1)" = "palvin-finder $(dpkg-query -W -f='${Version}' palvin-finder)" ] ||
    fail "palvin-finder --version says $(palvin-finder --version | head -1)"
  palvin-finder plan --json --capabilities capabilities.json /Files/photo.png /Files/scan.JPG >plan-installed.json
  cmp -s plan.json plan-installed.json || fail "the installed tool plans $(cat plan-installed.json)"

  # Every link the package installs resolves into the one bundle, and every
  # module in the bundle is linked from some file manager's directory.
  bundle=/usr/lib/palvin/PalvinHost.app
  linked=()
  for path in "${files[@]}"; do
    [ -L "$path" ] || continue
    target="$(readlink -f "$path")"
    [ -e "$target" ] && [[ "$target" == "$bundle"/* ]] || fail "$path leads to $target, not into $bundle"
    linked+=("$target")
  done
  modules=("$bundle"/Contents/PlugIns/PalvinFinder.appex/*.so)
  [ -e "${modules[0]}" ] || fail "no file-manager module in $bundle"
  for module in "${modules[@]}"; do
    printf '%s\n' "${linked[@]}" | grep -qxF "$module" || fail "$module is linked from no file manager's directory"
  done
  # Each program and module finds every library it needs.
  elf=0
  for path in "${files[@]}"; do
    [ -f "$path" ] && [ ! -L "$path" ] && head -c4 "$path" | cmp -s - <(printf '\177ELF') || continue
    missing="$(ldd "$path" | grep 'not found' || true)"
    [ -z "$missing" ] || fail "$path: $missing"
    elf=$((elf + 1))
  done

  # The user units are valid (their commands exist, their man page too), and
  # the path unit is on for every user.
  units=(/usr/lib/systemd/user/palvin-host.path /usr/lib/systemd/user/palvin-host.service)
  verified="$(XDG_RUNTIME_DIR="$(mktemp -d)" systemd-analyze --user verify "${units[@]}" 2>&1)" &&
    [ -z "$verified" ] || fail "systemd-analyze verify: $verified"
  [ "$(systemctl --global is-enabled palvin-host.path)" = enabled ] || fail "palvin-host.path is not enabled"

  # The desktop entry is valid and its icon installed.
  desktop="$(printf '%s\n' "${files[@]}" | grep '^/usr/share/applications/.*\.desktop$')"
  desktop-file-validate "$desktop" || fail "desktop-file-validate $desktop"
  icon="$(sed -n 's/^Icon=//p' "$desktop")"
  [ -f "/usr/share/icons/hicolor/scalable/apps/$icon.svg" ] || fail "no icon $icon"

  # The service's own command, in a home of its own, as the path unit starts
  # it (only its idle time shortened), and a pick by the installed tool,
  # which starts the host app itself as well: one output, then both exit.
  home="$(mktemp -d)"
  service_env="$(sed -n 's/^Environment=//p' "${units[1]}")"
  read -ra command <<<"$(sed -n 's/^ExecStart=//p' "${units[1]}" | sed -E 's/--idle-exit [0-9]+/--idle-exit 2/')"
  env HOME="$home" "${service_env//%h/$home}" "${command[@]}" &
  service=$!
  container="${service_env#*=}" && container="${container//%h/$home}"
  for _ in $(seq 100); do [ -s "$container/capabilities.json" ] && break; sleep 0.1; done
  mkdir -p "$home/Files" && cp photo.png "$home/Files/"
  tag="$(palvin-finder menu --container "$container" "$home/Files/photo.png" | sed -n 's/.*\[\([0-9]*\)\] WebP$/\1/p')"
  [ -n "$tag" ] || fail "no WebP item in the menu"
  palvin-finder menu --container "$container" --pick "$tag" "$home/Files/photo.png" >pick.txt
  for _ in $(seq 300); do [ -z "$(host_apps)" ] && break; sleep 0.1; done
  [ -z "$(host_apps)" ] || fail "a host app did not exit: $(cat "$container/host-app.log")"
  wait "$service" || fail "the service's host app failed"
  [ "$(head -c4 "$home/Files/photo.webp")" = RIFF ] || fail "no photo.webp: $(cat "$container/host-app.log")"
  [ "$(ls "$home/Files")" = $'photo.png\nphoto.webp' ] || fail "converted twice: $(ls "$home/Files")"
  grep -q 'Idle for 2 s, exiting' "$container/host-app.log" || fail "no idle exit logged"
  rm -rf "$home"

  # Removed, the units and the path unit's activation go; purged, nothing
  # the package installed or made is left.
  apt-get remove -y -q palvin-finder >>apt.log 2>&1 || fail "apt-get remove: $(cat apt.log)"
  [ ! -e "${units[0]}" ] || fail "${units[0]} left after remove"
  [ "$(systemctl --global is-enabled palvin-host.path 2>/dev/null)" != enabled ] || fail "still enabled after remove"
  apt-get purge -y -q palvin-finder >>apt.log 2>&1 || fail "apt-get purge: $(cat apt.log)"
  snapshot >after.txt
  left="$(diff before.txt after.txt || true)"
  [ -z "$left" ] || fail "the root differs after purge:"$'\n'"$left"
  echo "inside the root: ${#linked[@]} link(s) into the bundle for ${#modules[@]} module(s) and the tool;" \
    "$elf program(s) and module(s) with every library; units, desktop entry, a pick converted once; purged clean"
}

if [ "${1:-}" = --inside ]; then
  inside
  exit 0
fi

tool="$1"
repo="$(cd "$(dirname "$0")/.." && pwd)"
if [ "$(id -u)" -ne 0 ]; then
  echo "skipped: making the throwaway root needs root (mmdebstrap's root mode)"
  exit 77
fi
if [ -n "${2:-}" ]; then
  deb="$(realpath "$2")"
else
  bash "$repo/scripts/package.sh"
  deb="$(ls "$repo"/build/package/palvin-finder_*_"$(dpkg --print-architecture)".deb)"
fi

tmp="$(mktemp -d)"
trap 'rm -rf "$tmp"' EXIT
cp "$deb" "$tmp/palvin-finder.deb"
cp "$0" "$repo/examples/capabilities.json" "$repo/examples/demo-files/photo.png" "$tmp/"
"$tool" plan --json --capabilities "$repo/examples/capabilities.json" /Files/photo.png /Files/scan.JPG >"$tmp/plan.json"
# First alternatives, without versions: apt takes the versions the mirror has.
depends="$(dpkg-deb -f "$deb" Depends | tr ',' '\n' | sed -E 's/\|.*//; s/\(.*\)//; s/[[:space:]]//g' | grep . |
  sort -u | paste -sd,)"
sources=/etc/apt/sources.list.d/debian.sources
[ -f "$sources" ] || sources=http://deb.debian.org/debian
echo "root: bookworm from $sources with $depends"

start="$(date +%s)"
mmdebstrap --variant=apt --include="$depends,systemd,desktop-file-utils,man-db" \
  --customize-hook='mkdir "$1/tmp/palvin"' --customize-hook="sync-in $tmp /tmp/palvin" \
  --customize-hook='chroot "$1" bash /tmp/palvin/package-test.sh --inside' \
  bookworm /dev/null "$sources" >"$tmp/mmdebstrap.log" 2>&1 ||
  fail "in the throwaway root: $(grep -v '^I: ' "$tmp/mmdebstrap.log" | tail -30)"
grep -v '^I: ' "$tmp/mmdebstrap.log" || true
echo "passed: $(basename "$deb"), $(du -k "$deb" | cut -f1) KiB; root made, package installed, checked and purged in $(($(date +%s) - start)) s"
