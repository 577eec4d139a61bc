#!/usr/bin/env bash
# The two things a newcomer does first:
#   scripts/dev.sh run    install what is missing, build, start the local backend and the client
#                         (inside a headless desktop when there is no display)
#   scripts/dev.sh test   install what is missing, build, run every test
# Other commands: build [preset], bench, fuzz [seconds per target], package.
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc 2>/dev/null || echo 2)

build() {
  local preset=$1
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j"$jobs"
}

case "${1:-}" in
  run)
    scripts/install-deps.sh
    cmake --preset release >/dev/null
    # Only the programs, not the tests and benchmarks.
    cmake --build --preset release -j"$jobs" --target quillet-server quillet
    bin=build/release/bin
    if [ -z "${DISPLAY:-}" ] && [ -z "${WAYLAND_DISPLAY:-}" ]; then
      # No desktop to show the program on (a server, a container, CI): bring up the
      # same headless desktop the tests use, so the program still starts for real.
      echo "No display found: running Quillet inside a headless desktop (Xvfb, PulseAudio with a virtual"
      echo "microphone named vmic, a keyring). Ctrl+C ends it. On a desktop, run this from a terminal there."
      exec scripts/desktop-session.sh -- scripts/dev.sh run-programs "$bin"
    fi
    exec scripts/dev.sh run-programs "$bin"
    ;;
  run-programs)
    # The local backend unless one already answers, then the client in the foreground.
    bin=${2:-build/release/bin}
    server=""
    if ! curl -fsS --max-time 2 http://127.0.0.1:8000/health >/dev/null 2>&1; then
      "$bin/quillet-server" &
      server=$!
      trap '[ -n "$server" ] && kill $server 2>/dev/null || true' EXIT
      for _ in $(seq 1 50); do
        curl -fsS --max-time 1 http://127.0.0.1:8000/health >/dev/null 2>&1 && break
        sleep 0.2
      done
    fi
    echo "Quillet runs. Sign in from its tray menu (Sign in…), then hold the hotkey (fn: the Menu key"
    echo "on most PC keyboards; change it in Settings…), speak, and let go."
    "$bin/quillet"
    ;;
  test)
    scripts/install-deps.sh
    build dev
    # Integration tests bring up their own headless desktop (scripts/desktop-session.sh).
    ctest --preset dev -j2 --timeout 300
    ;;
  build)
    scripts/install-deps.sh
    build "${2:-dev}"
    ;;
  bench)
    scripts/install-deps.sh
    build release
    for b in build/release/bin/bench_*; do
      [ -x "$b" ] || continue
      echo "== $(basename "$b")"
      case "$(basename "$b")" in
        # Those that need a desktop (X, sound, keyring, accessibility) get the headless one;
        # the Wayland ones get headless sway, the KWin ones headless KWin.
        *wayland*) scripts/desktop-session.sh --wayland -- "$b" ;;
        *kwin*) scripts/desktop-session.sh --kwin -- "$b" ;;
        *insertion*|*capture*|*hud*|*hotkey*|*token_read*|*program*|*session*) scripts/desktop-session.sh -- "$b" ;;
        *) "$b" ;;
      esac
    done
    ;;
  package)
    # The two Debian packages, quillet and quillet-server, from the release build of the
    # programs alone, installed under /usr: build/package/*.deb.
    scripts/install-deps.sh
    build package
    rm -f build/package/*.deb
    (cd build/package && cpack -G DEB >/dev/null)
    ls build/package/*.deb
    ;;
  fuzz)
    # Every fuzz target for [seconds] each (60 by default), two at a time on two cores,
    # starting from its seeds and dictionary; new inputs go to build/fuzz/corpus/<target>,
    # crashes to build/fuzz/findings/<target>. Prints a table at the end.
    scripts/install-deps.sh
    build fuzz
    seconds=${2:-60}
    exec scripts/fuzz-all.sh build/fuzz "$seconds"
    ;;
  *)
    echo "usage: scripts/dev.sh run|test|build [preset]|bench|fuzz [seconds]|package" >&2
    exit 2
    ;;
esac
