#!/usr/bin/env bash
# Builds PalvinHost.app with the Finder extension inside it on a Mac, signs both,
# places the app, registers the extension with PlugInKit, checks that PlugInKit
# knows it, and says how to turn it on.
set -euo pipefail

usage() {
  cat <<'EOF'
Usage: scripts/macos-build.sh --team TEAMID [options]
       scripts/macos-build.sh --adhoc [options]

Configures the project with CMake's Xcode generator, builds PalvinHost.app (which
contains PalvinFinder.appex), signs it, copies it into the destination folder,
registers the extension with `pluginkit -a` and confirms with `pluginkit -m` that
the system knows it.

  --team TEAMID      your 10-character developer team ID (Xcode > Settings > Accounts,
                     or Membership details at developer.apple.com); Xcode signs
                     automatically for it and fetches the profiles it needs
  --adhoc            sign ad hoc instead, for trying the build on this Mac only
  --vendor PREFIX    reverse-DNS vendor prefix of every identifier (default org.palvin)
  --dest DIR         where the app is placed (default ~/Applications)
  --config NAME      Release (default) or Debug
  --build-dir DIR    CMake build directory (default build/mac)
  -h, --help         this text

Needs macOS 12 or later, Xcode 14 or later and Homebrew's cmake and simdjson
(brew install cmake simdjson).
EOF
}

die() {
  echo "macos-build: $*" >&2
  exit 1
}

team="${PALVIN_TEAM_ID:-}"
adhoc=0
vendor="org.palvin"
dest="$HOME/Applications"
config="Release"
cd "$(dirname "$0")/.."
build="build/mac"
while [ $# -gt 0 ]; do
  case "$1" in
    --team) team="${2:?--team needs a team ID}"; shift 2 ;;
    --adhoc) adhoc=1; shift ;;
    --vendor) vendor="${2:?--vendor needs a prefix}"; shift 2 ;;
    --dest) dest="${2:?--dest needs a folder}"; shift 2 ;;
    --config) config="${2:?--config needs Release or Debug}"; shift 2 ;;
    --build-dir) build="${2:?--build-dir needs a folder}"; shift 2 ;;
    -h | --help) usage; exit 0 ;;
    *) usage >&2; die "unknown argument '$1'" ;;
  esac
done

[ "$(uname -s)" = Darwin ] || die "this script runs on macOS; on Linux, bash scripts/test.sh checks the Apple build"
major="$(sw_vers -productVersion | cut -d. -f1)"
[ "$major" -ge 12 ] || die "macOS $(sw_vers -productVersion): the extension needs macOS 12 or later"
command -v xcodebuild >/dev/null || die "Xcode is missing: install it from the App Store, then run xcode-select -s /Applications/Xcode.app"
command -v cmake >/dev/null || die "cmake is missing: brew install cmake"
command -v brew >/dev/null || die "Homebrew is missing (https://brew.sh); it provides cmake and simdjson"
simdjson="$(brew --prefix simdjson 2>/dev/null || true)"
[ -f "$simdjson/lib/libsimdjson.a" ] || die "simdjson's static library is missing: brew install simdjson"

signing=()
if [ "$adhoc" = 1 ]; then
  signing=(-DPALVIN_ADHOC_SIGNING=ON)
  [ -n "$team" ] && signing+=("-DPALVIN_TEAM_ID=$team")
else
  [ -n "$team" ] || { usage >&2; die "pass --team TEAMID, or --adhoc to sign for this Mac only"; }
  signing=("-DPALVIN_TEAM_ID=$team" -DPALVIN_ADHOC_SIGNING=OFF)
fi

echo "== Configuring $build (Xcode)"
cmake -S . -B "$build" -G Xcode "${signing[@]}" "-DPALVIN_VENDOR_PREFIX=$vendor" \
  "-DCMAKE_PREFIX_PATH=$simdjson" "-DCMAKE_OSX_ARCHITECTURES=$(uname -m)" \
  -DPALVIN_BUILD_TESTS=OFF -DPALVIN_BUILD_BENCH=OFF

echo "== Building PalvinHost.app ($config)"
# Automatic signing may have to create or update the team's profiles.
cmake --build "$build" --config "$config" --target PalvinHost -- -allowProvisioningUpdates

app="$build/$config/PalvinHost.app"
appex="$app/Contents/PlugIns/PalvinFinder.appex"
[ -d "$appex" ] || die "the build made no $appex"
codesign --verify --strict --deep "$app" || die "the signature of $app does not verify"
extension_id="$(/usr/libexec/PlistBuddy -c 'Print :CFBundleIdentifier' "$appex/Contents/Info.plist")"
host_id="$(/usr/libexec/PlistBuddy -c 'Print :CFBundleIdentifier' "$app/Contents/Info.plist")"

echo "== Placing it in $dest"
mkdir -p "$dest"
# A running copy would keep the old code; it puts unfinished requests back when asked to quit.
osascript -e "tell application id \"$host_id\" to quit" >/dev/null 2>&1 || true
rm -rf "$dest/PalvinHost.app"
ditto "$app" "$dest/PalvinHost.app"

echo "== Registering $extension_id with PlugInKit"
pluginkit -a "$dest/PalvinHost.app/Contents/PlugIns/PalvinFinder.appex"
listed=""
for _ in 1 2 3 4 5 6 7 8 9 10; do
  listed="$(pluginkit -m -i "$extension_id" 2>/dev/null || true)"
  case "$listed" in *"$extension_id"*) break ;; esac
  sleep 1
done
case "$listed" in
  *"$extension_id"*) echo "PlugInKit knows the extension: $listed" ;;
  *) die "pluginkit -m -i $extension_id does not list the extension after pluginkit -a (see pluginkit -mAvvv)" ;;
esac

cat <<EOF

Done. To turn the extension on:
  - macOS 13 or later: System Settings > Privacy & Security > Extensions > Added Extensions,
    then tick PalvinFinder; macOS 12: System Preferences > Extensions > Finder Extensions;
  - or from here: pluginkit -e use -i $extension_id
Then open the host app once, so that it installs its catalogue and shows its status:
  open "$dest/PalvinHost.app"
Right-click an image in Finder: "Convert using Palvin" lists what ImageIO can write.
EOF
