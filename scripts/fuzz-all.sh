#!/usr/bin/env bash
# Runs every fuzz target of a fuzz build for a while and prints, per target: executions,
# edges covered (in the whole target, and in the parser's own source file against all of
# that file's edges), corpus size and findings.
# Usage: scripts/fuzz-all.sh BUILD_DIR SECONDS [TARGET...]
# FUZZ_RUNS=N stops a target after N executions if that comes first (the fast targets
# reach ten million long before ten minutes); FUZZ_JOBS=N runs N targets at once
# (default: one per core).
set -euo pipefail
cd "$(dirname "$0")/.."
build=$1 seconds=$2
shift 2
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for f in "$build"/bin/fuzz_*; do targets+=("$(basename "$f")"); done
fi

# The source file whose parser each target is about.
parser_of() {
  case "$1" in
    fuzz_http_framer) echo HttpFramer.cpp ;;
    fuzz_http_gate) echo HttpGate.cpp ;;
    fuzz_jwt) echo Jwt.cpp ;;
    fuzz_server_stream_message) echo StreamProtocol.cpp ;;
    fuzz_database_url) echo DatabaseUrl.cpp ;;
    fuzz_text_engine) echo RuleTextEngine.cpp ;;
    fuzz_stream_message) echo TranscriptionService.cpp ;;
    fuzz_token_expiry) echo KeychainHelper.cpp ;;
    fuzz_signin_link) echo SignInLink.cpp ;;
    fuzz_history) echo HistoryManager.cpp ;;
    *) echo "" ;;
  esac
}

run_one() {
  local t=$1 corpus="$build/corpus/$1" findings="$build/findings/$1/" log="$build/fuzz-logs/$1.log"
  mkdir -p "$corpus" "$findings" "$(dirname "$log")"
  local dict=()
  [ -f "fuzz/dict/$t.dict" ] && dict=(-dict="fuzz/dict/$t.dict")
  # New inputs are written to the first folder; the seeds stay as they are.
  "$build/bin/$t" -max_total_time="$seconds" -runs="${FUZZ_RUNS:--1}" -print_final_stats=1 -artifact_prefix="$findings" \
    "${dict[@]}" "$corpus" "fuzz/corpus/$t" >"$log" 2>&1 || true
  # Coverage of the parser's own file, replaying everything found.
  "$build/bin/$t" -runs=0 -print_coverage=1 "$corpus" "fuzz/corpus/$t" >"$log.coverage" 2>&1 || true
}

running=0
for t in "${targets[@]}"; do
  echo "fuzzing $t for ${seconds}s"
  run_one "$t" &
  running=$((running + 1))
  if [ "$running" -ge "${FUZZ_JOBS:-$(nproc 2>/dev/null || echo 2)}" ]; then
    wait -n || true
    running=$((running - 1))
  fi
done
wait

printf '\n%-28s %14s %7s %18s %8s %9s\n' target executions edges "parser's edges" corpus findings
status=0
for t in "${targets[@]}"; do
  log="$build/fuzz-logs/$t.log"
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  edges=$(grep -oE 'cov: [0-9]+' "$log" | tail -n 1 | grep -oE '[0-9]+' || true)
  corpus=$(find "$build/corpus/$t" "fuzz/corpus/$t" -type f 2>/dev/null | wc -l)
  findings=$(find "$build/findings/$t" -type f 2>/dev/null | wc -l)
  file=$(parser_of "$t")
  own="-"
  if [ -n "$file" ]; then
    own=$(grep -E "^(UN)?COVERED_FUNC: .* edges: [0-9]+/[0-9]+ .*/$file:" "$log.coverage" \
      | sed -E 's/.* edges: ([0-9]+)\/([0-9]+) .*/\1 \2/' \
      | awk '{ c += $1; a += $2 } END { if (a) printf "%d/%d", c, a; else print "-" }')
  fi
  printf '%-28s %14s %7s %18s %8s %9s\n' "$t" "${execs:-?}" "${edges:-?}" "$own" "$corpus" "$findings"
  [ "$findings" -eq 0 ] || status=1
done
[ "$status" -eq 0 ] || echo "Findings are in $build/findings/<target>/; reproduce one with $build/bin/<target> <file>."
exit $status
