#!/usr/bin/env bash
# Builds PalvinHost.app with the Finder extension inside it on a Mac, signs both,
# places the app, registers the extension with PlugInKit, checks that PlugInKit
# knows it, and says how to turn it on. With --release it signs for Developer ID
# instead, has Apple notarize the app, staples the ticket and makes a zip to give
# to people.
set -euo pipefail

usage() {
  cat <<'EOF'
Usage: scripts/macos-build.sh --team TEAMID [options]
       scripts/macos-build.sh --adhoc [options]
       scripts/macos-build.sh --release --team TEAMID --identity "Developer ID Application: ..." \
           --extension-profile FILE --host-profile FILE --notary-profile NAME [options]

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

Release, for people who get the app from you (nothing is placed or registered here):
  --release                 sign with the Developer ID identity, with a secure timestamp
                            and the hardened runtime, notarize, staple, and write
                            BUILD_DIR/dist/PalvinHost-<version>.zip
  --identity NAME           the Developer ID Application certificate in your keychain
  --extension-profile FILE  Developer ID provisioning profile for <vendor>.palvin.PalvinFinder
  --host-profile FILE       Developer ID provisioning profile for <vendor>.palvin
  --notary-profile NAME     notarytool credentials stored with
                            `xcrun notarytool store-credentials NAME` (an app-specific
                            password or an App Store Connect API key)

Needs macOS 12 or later, Xcode 15 or later (the macOS 14 SDK) and Homebrew's cmake
and simdjson (brew install cmake simdjson).
EOF
}

die() {
  echo "macos-build: $*" >&2
  exit 1
}

team="${PALVIN_TEAM_ID:-}"
adhoc=0
release=0
identity=""
extension_profile=""
host_profile=""
notary_profile=""
vendor="org.palvin"
dest="$HOME/Applications"
config="Release"
caller="$PWD"
cd "$(dirname "$0")/.."
build="$PWD/build/mac"
while [ $# -gt 0 ]; do
  case "$1" in
    --team) team="${2:?--team needs a team ID}"; shift 2 ;;
    --adhoc) adhoc=1; shift ;;
    --vendor) vendor="${2:?--vendor needs a prefix}"; shift 2 ;;
    --dest) dest="${2:?--dest needs a folder}"; shift 2 ;;
    --config) config="${2:?--config needs Release or Debug}"; shift 2 ;;
    --build-dir) build="${2:?--build-dir needs a folder}"; shift 2 ;;
    --release) release=1; shift ;;
    --identity) identity="${2:?--identity needs a certificate name}"; shift 2 ;;
    --extension-profile) extension_profile="${2:?--extension-profile needs a file}"; shift 2 ;;
    --host-profile) host_profile="${2:?--host-profile needs a file}"; shift 2 ;;
    --notary-profile) notary_profile="${2:?--notary-profile needs a keychain profile name}"; shift 2 ;;
    -h | --help) usage; exit 0 ;;
    *) usage >&2; die "unknown argument '$1'" ;;
  esac
done

# PlistBuddy lives outside the usual PATH.
PATH="$PATH:/usr/libexec"
# Relative folders are the caller's; PlugInKit compares whole paths.
case "$build" in /*) ;; *) build="$caller/$build" ;; esac
case "$dest" in /*) ;; *) dest="$caller/$dest" ;; esac
for profile in extension_profile host_profile; do
  case "${!profile}" in /* | "") ;; *) printf -v "$profile" '%s' "$caller/${!profile}" ;; esac
done

[ "$(uname -s)" = Darwin ] || die "this script runs on macOS; on Linux, bash scripts/test.sh checks the Apple build"
version="$(sw_vers -productVersion)"
[ "${version%%.*}" -ge 12 ] || die "macOS $version is too old for the extension: update to macOS 12 or later (System Settings > General > Software Update)"
command -v xcodebuild >/dev/null || die "Xcode is missing: install it from the App Store, then run sudo xcode-select -s /Applications/Xcode.app"
sdk="$(xcrun --sdk macosx --show-sdk-version 2>/dev/null || true)"
[ "${sdk%%.*}" -ge 14 ] 2>/dev/null || die "the macOS SDK is ${sdk:-missing}, and the host app needs the macOS 14 SDK: install Xcode 15 or later, then run sudo xcode-select -s /Applications/Xcode.app"
command -v cmake >/dev/null || die "cmake is missing: brew install cmake"
command -v brew >/dev/null || die "Homebrew is missing: install it from https://brew.sh, then brew install cmake simdjson"
simdjson="$(brew --prefix simdjson 2>/dev/null || true)"
[ -f "$simdjson/lib/libsimdjson.a" ] || die "simdjson's static library is missing: brew install simdjson"

signing=()
if [ "$release" = 1 ]; then
  [ "$adhoc" = 0 ] || die "--release signs for Developer ID, --adhoc for this Mac only: pass one of them"
  [ -n "$team" ] || die "--release needs your team: pass --team TEAMID"
  case "$identity" in
    "Developer ID Application: "*) ;;
    *) die "--release signs with a Developer ID Application identity: pass --identity \"Developer ID Application: Your Name ($team)\" (security find-identity -v -p codesigning lists yours)" ;;
  esac
  for profile in "$extension_profile" "$host_profile"; do
    [ -f "$profile" ] || die "no Developer ID provisioning profile at '$profile': download the profiles for the extension and the host app (developer.apple.com > Profiles) and pass --extension-profile and --host-profile"
  done
  [ -n "$notary_profile" ] || die "--release needs notarytool credentials: store them with xcrun notarytool store-credentials NAME, then pass --notary-profile NAME"
  # Xcode signs ad hoc; the release signature replaces it below.
  signing=(-DPALVIN_ADHOC_SIGNING=ON "-DPALVIN_TEAM_ID=$team")
elif [ "$adhoc" = 1 ]; then
  signing=(-DPALVIN_ADHOC_SIGNING=ON)
  [ -n "$team" ] && signing+=("-DPALVIN_TEAM_ID=$team")
else
  [ -n "$team" ] || { usage >&2; die "no team to sign for: pass --team TEAMID, or --adhoc to sign for this Mac only"; }
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
[ -d "$appex" ] || die "the build made no $appex: see the build output above"
codesign --verify --strict --deep "$app" || die "the signature of $app does not verify: see codesign's message above"
extension_id="$(PlistBuddy -c 'Print :CFBundleIdentifier' "$appex/Contents/Info.plist")"
host_id="$(PlistBuddy -c 'Print :CFBundleIdentifier' "$app/Contents/Info.plist")"

if [ "$release" = 1 ]; then
  stage="$build/release"
  staged="$stage/PalvinHost.app"
  echo "== Signing $staged for Developer ID"
  rm -rf "$stage"
  mkdir -p "$stage" "$build/dist"
  ditto "$app" "$staged"
  # The profiles back the restricted entitlements (application identifier,
  # team, app group) for everyone's Mac, not only the team's.
  cp "$extension_profile" "$staged/Contents/PlugIns/PalvinFinder.appex/Contents/embedded.provisionprofile"
  cp "$host_profile" "$staged/Contents/embedded.provisionprofile"
  sign=(codesign --force --timestamp --options runtime --sign "$identity")
  "${sign[@]}" --entitlements "$build/generated/PalvinFinder.entitlements" "$staged/Contents/PlugIns/PalvinFinder.appex" ||
    die "codesign could not sign the extension with '$identity': check that security find-identity -v -p codesigning lists it"
  "${sign[@]}" --entitlements "$build/generated/PalvinHost.entitlements" "$staged" ||
    die "codesign could not sign the app with '$identity': check that security find-identity -v -p codesigning lists it"
  codesign --verify --strict --deep "$staged" || die "the Developer ID signature of $staged does not verify: see codesign's message above"

  echo "== Notarizing (this waits for Apple's answer)"
  upload="$stage/PalvinHost-notarization.zip"
  ditto -c -k --keepParent "$staged" "$upload"
  notarized="$(xcrun notarytool submit "$upload" --keychain-profile "$notary_profile" --wait 2>&1)" || true
  echo "$notarized"
  submission="$(printf '%s\n' "$notarized" | sed -n 's/^ *id: *//p' | head -n 1)"
  case "$(printf '%s\n' "$notarized" | sed -n 's/^ *status: *//p' | tail -n 1)" in
    Accepted) ;;
    *) die "Apple did not accept the app for notarization: read why with xcrun notarytool log ${submission:-<submission id>} --keychain-profile $notary_profile" ;;
  esac
  xcrun stapler staple "$staged" || die "stapler could not attach the ticket to $staged: run xcrun stapler staple -v $staged to see why"
  xcrun stapler validate "$staged" || die "the stapled ticket of $staged does not validate: run xcrun stapler validate -v $staged to see why"

  release_version="$(PlistBuddy -c 'Print :CFBundleShortVersionString' "$staged/Contents/Info.plist")"
  zip="$build/dist/PalvinHost-$release_version.zip"
  rm -f "$zip"
  ditto -c -k --keepParent "$staged" "$zip"
  cat <<EOF

Done: $zip
Give people this zip. Opening it in Finder (Safari does so by itself) gives
PalvinHost.app; they drag it to Applications, open it once, and turn on
PalvinFinder in System Settings > Privacy & Security > Extensions > Added Extensions.
EOF
  exit 0
fi

echo "== Placing it in $dest"
mkdir -p "$dest"
# A running copy would keep the old code; it puts unfinished requests back when asked to quit.
osascript -e "tell application id \"$host_id\" to quit" >/dev/null 2>&1 || true
rm -rf "$dest/PalvinHost.app"
ditto "$app" "$dest/PalvinHost.app"
placed="$dest/PalvinHost.app/Contents/PlugIns/PalvinFinder.appex"

echo "== Registering $extension_id with PlugInKit"
pluginkit -a "$placed" || die "pluginkit -a could not register $placed: see its message above"
# The copy in the build tree was registered too when Xcode built it; left
# there, PlugInKit lists the extension twice and may pick either.
pluginkit -r "$appex" >/dev/null 2>&1 || true
listed=""
for _ in 1 2 3 4 5 6 7 8 9 10; do
  listed="$(pluginkit -m -A -v -i "$extension_id" 2>/dev/null || true)"
  case "$listed" in *"$placed"*) break ;; esac
  sleep 1
done
case "$listed" in
  *"$placed"*) echo "PlugInKit knows the extension at $placed" ;;
  *) die "PlugInKit does not list $extension_id at $placed after pluginkit -a: run pluginkit -m -A -vvv -i $extension_id to see what it knows, and codesign --verify --deep --strict -vv $dest/PalvinHost.app" ;;
esac
# Another copy that is still registered (an older install elsewhere) competes with this one.
while IFS= read -r line; do
  other="${line##*$'\t'}"
  case "$other" in
    "$placed" | "") ;;
    *) echo "macos-build: warning: another copy of the extension is registered at $other; remove it with pluginkit -r \"$other\" and delete its app, or Finder may load that one" >&2 ;;
  esac
done < <(printf '%s\n' "$listed" | grep -F "$extension_id" || true)

cat <<EOF

Done. To turn the extension on:
  - macOS 13 or later: System Settings > Privacy & Security > Extensions > Added Extensions,
    then tick PalvinFinder; macOS 12: System Preferences > Extensions > Finder Extensions;
  - or from here: pluginkit -e use -i $extension_id
Then open the host app once, so that it installs its catalogue and shows its status:
  open "$dest/PalvinHost.app"
Right-click an image in Finder: "Convert using Palvin" lists what ImageIO can write.
EOF
