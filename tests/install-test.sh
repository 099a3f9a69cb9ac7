#!/usr/bin/env bash
# A fresh `cmake --install` into a DESTDIR and prefix of its own: the files
# land where the file managers and the walk up to the host app expect them,
# and the installed tool finds its translations and starts the installed host
# app.
# Usage: install-test.sh <build dir> [<file manager's link to its module>...]
set -euo pipefail
build="$1"
shift
tmp="$(mktemp -d)"
trap 'rm -rf "$tmp"' EXIT
dest="$tmp/dest" prefix=/opt/palvin-install-test
fail() { echo "FAILED: $*" >&2; exit 1; }

DESTDIR="$dest" cmake --install "$build" --prefix "$prefix" >"$tmp/install.log" || fail "$(cat "$tmp/install.log")"
app="$dest$prefix/lib/palvin/PalvinHost.app"
appex="$app/Contents/PlugIns/PalvinFinder.appex"
[ -x "$app/AppRun" ] || fail "no host app in $app"
[ -s "$appex/Resources/de.lproj/Localizable.strings" ] || fail "no translations in $appex/Resources"
# Links are relative, so they resolve inside DESTDIR as they will once installed.
[ "$(readlink -f "$dest$prefix/bin/palvin-finder")" = "$appex/palvin-finder" ] || fail "bin/palvin-finder"
# Each file manager's extension directory links to its module in the appex,
# which exports only that file manager's entry points: three for a GTK-family
# module, Qt's two for the Dolphin plugin.
for link in "$@"; do
  module="$(basename "$link")"
  [ "$(readlink -f "$dest$link")" = "$appex/$module" ] || fail "$dest$link does not lead into the appex"
  name="${module#libpalvin-}" && name="${name%.so}"
  entry="${name}_module" && [ "$name" = thunar ] && entry=thunar_extension
  expected="${entry}_initialize ${entry}_list_types ${entry}_shutdown "
  [ "$module" = palvin-dolphin.so ] && expected="qt_plugin_instance qt_plugin_query_metadata "
  exports="$(nm -D --defined-only "$dest$link" | awk '{print $3}' | sort | tr '\n' ' ')"
  [ "$exports" = "$expected" ] || fail "$module exports $exports"
done
# The service and the desktop entry start the host app at this prefix, given
# only at install time.
for file in "$dest$prefix"/lib/systemd/user/palvin-host.service "$dest$prefix"/share/applications/*.desktop; do
  command="$(sed -nE 's/^Exec(Start)?=([^ ]*).*/\2/p' "$file")"
  [ "$command" = "$prefix/lib/palvin/PalvinHost.app/AppRun" ] || fail "$file starts '$command'"
done

# The installed host app writes its catalogue; the installed tool, called
# through its link, has German titles from the bundle's Resources, and a pick
# starts the installed host app.
container="$tmp/container" photo="$tmp/photo.png"
mkdir -p "$container" && convert -size 8x8 xc:red "$photo"
PALVIN_SHARED_CONTAINER="$container" "$app/AppRun" >/dev/null || fail "the installed host app failed"
out="$(LANG=de_DE.UTF-8 NO_COLOR=1 "$dest$prefix/bin/palvin-finder" menu --container "$container" --pick 1 "$photo")"
grep -q "Mit Palvin konvertieren" <<<"$out" || fail "no German title: $out"
for _ in $(seq 100); do grep -qs "Handled request" "$container/host-app.log" && break; sleep 0.1; done
grep -qs "Handled request" "$container/host-app.log" || fail "the installed host app did not run: $out"
echo "passed: installed under $dest$prefix"
