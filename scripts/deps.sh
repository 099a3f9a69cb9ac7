#!/usr/bin/env bash
# Installs the Debian packages the build needs, only those that are missing.
# With --tests, also what the whole suite builds and runs besides: the demo
# installs only the first list, so that a newcomer's first command stays short.
set -euo pipefail

# The tool, the Linux host app and the test programs.
packages=(
  cmake make g++ git pkg-config
  libsimdjson-dev libicu-dev libcli11-dev
  libgtest-dev libgmock-dev python3
  # The Linux host app's converters (libvips with HEIC and PDF, poppler, the
  # ffmpeg program), GIO for its desktop notifications, and what its test
  # builds with to make fixtures and check outputs (cairo draws a PDF).
  libvips-dev libheif-dev libpoppler-cpp-dev libpoppler-glib-dev libglib2.0-dev zlib1g-dev ffmpeg
  libcairo2-dev
)

# The rest of the suite: the format check, benchmarks, sanitizer and fuzzing
# runs, the Apple build's checks, and the file managers' modules with the
# tests that run them in the real programs.
test_packages=(
  clang clang-format libclang-rt-14-dev libbenchmark-dev nlohmann-json3-dev
  # The host locale some tests set (de_DE.UTF-8) is generated from its sources.
  locales
  # The Apple build's checks: Ninja, ld64.lld and the LLVM tools that write and
  # read Mach-O, libc++'s headers, dpkg-source for simdjson's source package,
  # shellcheck for the Mac's build script (scripts/check-apple-build.py).
  ninja-build shellcheck lld-14 llvm-14 libc++-14-dev libc++abi-14-dev dpkg-dev
  # The real-program tests' display, session and accessibility buses, keyboard
  # and screenshots; pdftotext reads the host app's PDFs back.
  xvfb xdotool x11-utils dbus imagemagick python3-pyatspi at-spi2-core poppler-utils
  # The file managers' modules (GNOME Files, Nemo, Caja, Thunar) and the file
  # managers themselves, for their real-program tests.
  libnautilus-extension-dev nautilus libnemo-extension-dev nemo libcaja-extension-dev caja
  libthunarx-3-dev thunar librsvg2-common
  # The Dolphin plugin (KIO, Qt 5) and Dolphin for its real-program test;
  # Adwaita's symbolic icons (SVG) are the ones the plugin test draws.
  libkf5kio-dev dolphin adwaita-icon-theme libqt5svg5
  # The Debian package: its build, lintian, and the throwaway root that its
  # test installs it into (scripts/package.sh, scripts/package-test.sh).
  debhelper lintian mmdebstrap
)
if [ "${1:-}" = "--tests" ]; then
  packages+=("${test_packages[@]}")
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "Missing packages (${missing[*]}) and not root: install them first." >&2; exit 1; }
  sudo=sudo
fi
echo "Installing: ${missing[*]}" >&2
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -q
$sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
