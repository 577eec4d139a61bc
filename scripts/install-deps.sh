#!/usr/bin/env bash
# Installs every Debian 12 package that building, running and testing Quillet needs.
# Safe to run again: apt-get skips what is already there.
set -euo pipefail

packages=(
  # toolchain
  build-essential cmake ninja-build pkg-config clang clang-format libclang-rt-14-dev
  # Qt 6 and friends
  qt6-base-dev qt6-base-dev-tools qt6-websockets-dev qt6-httpserver-dev qt6-multimedia-dev
  qt6-declarative-dev qml6-module-qtquick qml6-module-qtquick-controls qml6-module-qtquick-layouts
  qml6-module-qtquick-window qml6-module-qtqml-workerscript qml6-module-qtquick-templates
  libqt6sql6-sqlite libqt6svg6 qt6-qpa-plugins
  # colour emoji for the first-run window's step pictures
  fonts-noto-color-emoji
  qcoro-qt6-dev libsecret-1-dev
  # platform layers
  libx11-dev libxi-dev libxtst-dev libatspi2.0-dev libpulse-dev libsoxr-dev libspeexdsp-dev
  libgtk-3-dev
  # on a Wayland session: which protocols the compositor offers (clipboard, virtual keyboard)
  libwayland-dev
  # speech engine of the local backend
  libpocketsphinx-dev libsphinxbase-dev pocketsphinx pocketsphinx-en-us pocketsphinx-testdata sphinxbase-utils
  libjemalloc-dev
  # headless desktop used by the tests
  xvfb xauth x11-utils dbus dbus-x11 at-spi2-core pulseaudio pulseaudio-utils gnome-keyring libsecret-tools
  curl xdg-utils xdotool xclip xterm sox libsox-fmt-all espeak-ng
  # the headless Wayland desktop (sway with Xwayland, a virtual keyboard) and the Wayland
  # clipboard and keystroke clients Quillet runs there
  sway xwayland wtype wl-clipboard xdg-desktop-portal
  # a headless KDE desktop (KWin with Xwayland) and its portal backend, whose RemoteDesktop
  # portal takes Quillet's paste keystroke there; the backend draws through Qt 5's Wayland plugin
  kwin-wayland xdg-desktop-portal-kde qtwayland5
  # keymaps and key repeat inside the test session (setxkbmap, xkbcomp, xset)
  x11-xkb-utils x11-xserver-utils
  # a window manager for the session's --wm (the window tests run with and without one);
  # xwd and ImageMagick's import/convert to look at the session's screen by hand
  openbox x11-apps imagemagick
  # tests and benchmarks
  libbenchmark-dev libgtest-dev
  # the Debian packages: icons drawn from the SVG, manual pages from --help, and the
  # checks the package test runs (lintian, desktop-file-validate, appstreamcli)
  librsvg2-bin help2man lintian desktop-file-utils appstream
  # CPack reads each file's type with file(1) and library dependencies with dpkg-shlibdeps
  file dpkg-dev
  # NIST's sclite scores the server's transcripts against reference texts (scripts/wer.sh)
  sctk
  # replicas of the local backend: accounts in PostgreSQL through Qt's driver, HAProxy in front
  # (the tests run a private postgresql-15 cluster and HAProxy on loopback ports)
  libqt6sql6-psql postgresql-15 haproxy
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && { echo "All build and test packages are installed."; exit 0; }

SUDO=""
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "Installing packages needs root: run this script as root or install sudo." >&2; exit 1; }
  SUDO=sudo
fi
echo "Installing ${#missing[@]} packages: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
