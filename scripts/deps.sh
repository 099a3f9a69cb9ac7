#!/usr/bin/env bash
# Installs the Debian packages the build needs, only those that are missing.
set -euo pipefail

packages=(
  cmake make g++ clang clang-format libclang-rt-14-dev git pkg-config
  libsimdjson-dev libicu-dev libcli11-dev
  libgtest-dev libgmock-dev libbenchmark-dev nlohmann-json3-dev python3
  # The host locale some tests set (de_DE.UTF-8) is generated from its sources.
  locales
  # The Apple build's checks: Ninja, the LLVM tools that read Mach-O, libc++
  # and C library headers for arm64 and x86_64, shellcheck for the Mac's build
  # script (scripts/check-apple-build.py).
  ninja-build shellcheck llvm-14 libc++-14-dev libc++abi-14-dev libc6-dev-arm64-cross libc6-dev-amd64-cross
  # The Linux host app's converters (libvips with HEIC and PDF, poppler,
  # libnotify, the ffmpeg program) and what its tests use to check outputs.
  libvips-dev libheif-dev libpoppler-cpp-dev libpoppler-glib-dev libnotify-dev zlib1g-dev ffmpeg
  # The GNOME Files module and the test that runs it in a real Nautilus.
  libnautilus-extension-dev nautilus librsvg2-common xvfb xdotool dbus imagemagick
  # The Debian package: its build, lintian, and the throwaway root that its
  # test installs it into (scripts/package.sh, scripts/package-test.sh).
  debhelper dpkg-dev lintian mmdebstrap
)

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
