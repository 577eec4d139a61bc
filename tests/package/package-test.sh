#!/usr/bin/env bash
# The Debian packages as a user meets them: builds quillet and quillet-server with
# `scripts/dev.sh package`, checks them with Debian's own tools, installs them on this
# machine with apt, uses the installed programs only (their versions and help, one whole
# dictation in the headless desktop, a sign-in link through xdg-open), then purges both
# and checks that nothing of them is left under /usr and /etc.
# Usage: tests/package/package-test.sh GTK_FIELDS_APP   (as root, or with sudo)
set -euo pipefail
cd "$(dirname "$0")/../.."
src=$PWD
fields=$1

fail() { echo "FAIL: $*" >&2; exit 1; }
SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO=sudo

for p in quillet quillet-server; do
  if dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed"; then
    fail "$p is installed on this machine already; this test installs and purges it itself (apt purge $p)"
  fi
done

echo "== building the packages"
scripts/dev.sh package
client=$(ls build/package/quillet_*.deb)
server=$(ls build/package/quillet-server_*.deb)

echo "== lintian"
# Errors fail the test; the warnings that remain are explained in the README.
lintian --tag-display-limit 0 "$client" "$server" | tee build/package/lintian.log
if grep -q '^E:' build/package/lintian.log; then fail "lintian reports errors"; fi

echo "== desktop entry and AppStream data, as the packages hold them"
tree=$(mktemp -d)
trap 'rm -rf "$tree"' EXIT
dpkg-deb -x "$client" "$tree"
dpkg-deb -x "$server" "$tree"
desktop-file-validate "$tree/usr/share/applications/app.quillet.Quillet.desktop"
grep -qx 'MimeType=x-scheme-handler/quillet;' "$tree/usr/share/applications/app.quillet.Quillet.desktop" \
  || fail "the desktop entry does not declare the quillet: scheme"
for f in "$tree"/usr/share/metainfo/*.xml; do appstreamcli validate --no-net "$f"; done
for size in scalable 16x16 32x32 48x48 128x128 256x256; do
  ls "$tree/usr/share/icons/hicolor/$size/apps/app.quillet.Quillet."* >/dev/null || fail "no $size icon"
done
if grep -rIl -- "$src" "$tree" >/dev/null; then
  fail "a path of the build tree is in an installed file: $(grep -rIl -- "$src" "$tree" | head -n 3)"
fi

echo "== installing with apt"
purge() { $SUDO apt-get purge -y -qq quillet quillet-server >/dev/null 2>&1 || true; }
trap 'purge; rm -rf "$tree"' EXIT
$SUDO env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "$src/$client" "$src/$server"
files=$(dpkg -L quillet quillet-server | sort -u)

echo "== the installed programs"
[ "$(command -v quillet)" = /usr/bin/quillet ] || fail "quillet is not /usr/bin/quillet"
[ "$(command -v quillet-server)" = /usr/bin/quillet-server ] || fail "quillet-server is not /usr/bin/quillet-server"
version=$(sed -n 's/^project(Quillet VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
# (grep reads to the end in these pipelines: with pipefail, a grep -q that stops at the
# match can leave the writer a broken pipe, and the pipeline fails on a match.)
/usr/bin/quillet --version | grep -x "Quillet $version" >/dev/null || fail "quillet --version: $(/usr/bin/quillet --version)"
/usr/bin/quillet-server --help | grep -- '--api-port' >/dev/null || fail "quillet-server --help says nothing of --api-port"
# The manual pages say what --help says: every option it lists is in the page.
for program in quillet quillet-server; do
  page=$(zcat "/usr/share/man/man1/$program.1.gz" | sed 's/\\-/-/g')
  for option in $("/usr/bin/$program" --help | grep -oE -- '--[a-z][a-z0-9-]+' | sort -u); do
    grep -qF -- "$option" <<<"$page" || fail "$program.1 does not mention $option"
  done
done
[ -f /usr/lib/systemd/user/quillet-server.service ] || [ -f /lib/systemd/user/quillet-server.service ] \
  || fail "no systemd user unit for quillet-server"
grep -q '^ExecStart=/usr/bin/quillet-server$' /usr/lib/systemd/user/quillet-server.service \
  || fail "the user unit does not start /usr/bin/quillet-server"

echo "== one dictation with the installed programs"
scripts/desktop-session.sh -- tests/package/installed-dictation.sh "$fields"

echo "== purging"
$SUDO apt-get purge -y -qq quillet quillet-server
left=""
while IFS= read -r f; do
  case "$f" in /usr/*|/etc/*) ;; *) continue ;; esac
  # Folders shared with other packages (/usr/share/applications, …) stay, of course.
  if [ -e "$f" ] && ! [ -d "$f" ]; then left="$left $f"; fi
  if [ -d "$f" ] && ! dpkg -S "$f" >/dev/null 2>&1 && [ -z "$(ls -A "$f" 2>/dev/null)" ]; then left="$left $f"; fi
done <<<"$files"
[ -z "$left" ] || fail "left behind after purge:$left"
ls /etc | grep -i quillet >/dev/null && fail "something of Quillet is left in /etc"
echo "PASS: both packages built, validated, installed, used and purged"
