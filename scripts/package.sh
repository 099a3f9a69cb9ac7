#!/usr/bin/env bash
# Builds the Debian package, build/package/palvin-finder_<version>_<arch>.deb,
# with debhelper from a copy of the sources as they stand, then runs lintian
# on it: an error or a warning fails (each warning left is fixed, or
# overridden in debian/palvin-finder.lintian-overrides with its reason).
# The version is CMake's project(VERSION): debian/changelog is written here.
set -euo pipefail
cd "$(dirname "$0")/.."
# The package holds every file manager's module, so it builds with all their
# libraries, and with debhelper and lintian (the --tests list).
bash scripts/deps.sh --tests
out="$PWD/build/package"
version="$(sed -nE 's/^project\(PalvinFinder VERSION ([^ )]+).*/\1/p' CMakeLists.txt)"
[ -n "$version" ] || { echo "package.sh: no project(PalvinFinder VERSION ...) in CMakeLists.txt" >&2; exit 1; }
src="$out/palvin-finder-$version"
rm -rf "$out"
mkdir -p "$src"

# A copy, so that the build's own files (obj-*, debian/palvin-finder, stamps)
# stay out of the work tree.
if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
  git ls-files -z --cached --others --exclude-standard | tar --null --ignore-failed-read -T - -cf - 2>/dev/null |
    tar -C "$src" -xf -
  commit="commit $(git rev-parse --short HEAD)"
  date="$(git log -1 --format=%cD)"
else
  tar --exclude=./build --exclude=./.git -cf - . | tar -C "$src" -xf -
  commit="a source tree outside git"
  date="$(date -R)"
fi
maintainer="$(sed -n 's/^Maintainer: //p' debian/control)"
cat >"$src/debian/changelog" <<CHANGELOG
palvin-finder ($version) unstable; urgency=medium

  * PalvinFinder $version, built from $commit.

 -- $maintainer  $date
CHANGELOG

(cd "$src" && dpkg-buildpackage --build=binary --no-sign -j"$(nproc)") >"$out/build.log" 2>&1 ||
  { tail -15 "$out/build.log" >&2; echo "package.sh: the build failed; the whole log is $out/build.log" >&2; exit 1; }
deb="$out/palvin-finder_${version}_$(dpkg --print-architecture).deb"
[ -f "$deb" ] || { echo "package.sh: no $deb" >&2; exit 1; }

echo "lintian:"
lintian --fail-on error,warning --display-info --tag-display-limit 0 "$out"/palvin-finder_"$version"_*.changes |
  tee "$out/lintian.txt"
echo "built $deb ($(du -k "$deb" | cut -f1) KiB; installed size $(dpkg-deb -f "$deb" Installed-Size) KiB)"
