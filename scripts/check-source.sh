#!/usr/bin/env bash
# Checks what a reviewer should never have to point out by hand:
#   - every C and C++ file is formatted as .clang-format says;
#   - each layer of the client includes only itself and the layers below it
#     (platform <- services <- ui <- dictation <- app);
#   - the platform implementations (src/platform/<os>/) are included by nobody but
#     the platform library itself.
# Exits non-zero and names every offending file and line.
set -uo pipefail
cd "$(dirname "$0")/.."

status=0

if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
  mapfile -t sources < <(git ls-files -co --exclude-standard -- '*.h' '*.hpp' '*.cpp' '*.c' | grep -v '^build/')
else
  mapfile -t sources < <(find src server tests bench fuzz -name '*.h' -o -name '*.cpp' -o -name '*.c')
fi
# Files listed by git but deleted in the work tree are not there to check.
existing=()
for f in "${sources[@]}"; do [ -f "$f" ] && existing+=("$f"); done

if ! command -v clang-format >/dev/null; then
  echo "clang-format is not installed (scripts/install-deps.sh installs it)" >&2
  status=1
elif ! clang-format --dry-run --Werror "${existing[@]}" 2>/tmp/quillet-format.$$; then
  grep -E '^[^ ].*(warning|error):' /tmp/quillet-format.$$ | sed 's/: warning: code should be clang-formatted.*//' | sort -u |
    sed 's/^/not formatted: /'
  echo "Run: clang-format -i <file>  (or: git ls-files '*.h' '*.cpp' '*.c' | xargs clang-format -i)"
  status=1
fi
rm -f /tmp/quillet-format.$$

# The layers a layer may include, itself included.
declare -A allowed=(
  [platform]="platform"
  [services]="platform services"
  [ui]="platform services ui"
  [dictation]="platform services ui dictation"
  [app]="platform services ui dictation app"
)
for f in "${existing[@]}"; do
  case "$f" in src/*) ;; tests/*|bench/*|fuzz/*) ;; *) continue ;; esac
  layer=""
  [[ "$f" == src/* ]] && layer=$(echo "$f" | cut -d/ -f2)
  while IFS=: read -r line include; do
    target=$(echo "$include" | sed -E 's/.*#include "([^"]+)".*/\1/')
    top=${target%%/*}
    if [[ "$target" == platform/*/* && "$f" != src/platform/* ]]; then
      echo "$f:$line: includes the platform's own header $target (use the seam in src/platform)"
      status=1
    fi
    if [ -n "$layer" ] && [ -n "${allowed[$layer]:-}" ] && [ -n "${allowed[$top]:-}" ]; then
      if [[ " ${allowed[$layer]} " != *" $top "* ]]; then
        echo "$f:$line: the $layer layer includes $target from the $top layer above it"
        status=1
      fi
    fi
  done < <(grep -n -E '^[[:space:]]*#[[:space:]]*include[[:space:]]+"' "$f")
done

[ $status -eq 0 ] && echo "Source check passed: formatting and layering hold."
exit $status
