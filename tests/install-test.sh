#!/usr/bin/env bash
# A fresh `cmake --install` into a DESTDIR and prefix of its own: the files
# land where Nautilus, KIO and the walk up to the host app expect them, and the
# installed tool finds its translations and starts the installed host app.
# Usage: install-test.sh <build dir> <Nautilus extension dir, empty without the module>
#                        <Dolphin plugin dir, empty without the plugin>
set -euo pipefail
build="$1" extensions="$2" kfileitemactions="$3"
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
if [ -n "$extensions" ]; then
  link="$dest$extensions/libpalvin-nautilus.so"
  [ "$(readlink -f "$link")" = "$appex/libpalvin-nautilus.so" ] || fail "$link does not lead into the appex"
  exports="$(nm -D --defined-only "$link" | awk '{print $3}' | sort | tr '\n' ' ')"
  [ "$exports" = "nautilus_module_initialize nautilus_module_list_types nautilus_module_shutdown " ] ||
    fail "the module exports $exports"
fi
if [ -n "$kfileitemactions" ]; then
  link="$dest$kfileitemactions/palvin-dolphin.so"
  [ "$(readlink -f "$link")" = "$appex/palvin-dolphin.so" ] || fail "$link does not lead into the appex"
  exports="$(nm -D --defined-only "$link" | awk '{print $3}' | sort | tr '\n' ' ')"
  [ "$exports" = "qt_plugin_instance qt_plugin_query_metadata " ] || fail "the plugin exports $exports"
fi

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
