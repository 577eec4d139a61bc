#!/usr/bin/env bash
# The two things a newcomer does first:
#   scripts/dev.sh run    install what is missing, build, start the local backend and the client
#   scripts/dev.sh test   install what is missing, build, run every test
# Other commands: build [preset], bench, fuzz [seconds].
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
    targets=()
    for t in quillet-server quillet; do
      cmake --build --preset release --target help | grep -q "^$t:" && targets+=("$t")
    done
    [ ${#targets[@]} -gt 0 ] && cmake --build --preset release -j"$jobs" --target "${targets[@]}"
    bin=build/release/bin
    if [ ! -x "$bin/quillet-server" ]; then
      echo "quillet-server is not part of this build yet; nothing to run." >&2
      exit 1
    fi
    if [ ! -x "$bin/quillet" ]; then
      echo "The desktop client (quillet) is not built yet: only the local backend starts."
      echo "The backend listens on http://127.0.0.1:8000 (API) and http://127.0.0.1:3000 (sign-in). Ctrl+C stops it."
      exec "$bin/quillet-server"
    fi
    "$bin/quillet-server" &
    server=$!
    trap 'kill $server 2>/dev/null || true' EXIT
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
        *insertion*|*capture*) scripts/desktop-session.sh "$b" ;;
        *) "$b" ;;
      esac
    done
    ;;
  fuzz)
    scripts/install-deps.sh
    build fuzz
    seconds=${2:-60}
    for f in build/fuzz/bin/fuzz_*; do
      echo "== $(basename "$f") for ${seconds}s"
      mkdir -p "build/fuzz/corpus/$(basename "$f")"
      "$f" -max_total_time="$seconds" -print_final_stats=1 "build/fuzz/corpus/$(basename "$f")"
    done
    ;;
  *)
    echo "usage: scripts/dev.sh run|test|build [preset]|bench|fuzz [seconds]" >&2
    exit 2
    ;;
esac
