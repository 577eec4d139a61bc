#!/usr/bin/env bash
# Word error rate of quillet-server's speech engines, scored with NIST's sclite (sctk).
#
# Every clip goes through a running quillet-server exactly as the desktop client sends it
# (sign-in through the web pages, the WebSocket stream, 1,365-sample chunks, "stop", the
# finals until the server closes), as fast as the server takes it. The same clips also go
# through pocketsphinx_continuous on its own, the engine the server embeds.
#
#   scripts/wer.sh                                   Debian's LibriVox clips, a private server
#   scripts/wer.sh --speech-url http://gpu-box:8080/v1 [--speech-model M] [--speech-key-file F]
#                                                    ... and a second private server using that endpoint
#   scripts/wer.sh --local-endpoint                  ... the openai engine against a local endpoint
#                                                    backed by pocketsphinx_continuous (tries the path)
#   scripts/wer.sh --api http://127.0.0.1:8000 --site http://127.0.0.1:3000 --label mine
#                                                    a server that is already running
#   scripts/wer.sh --clips DIR                       any directory of WAV files (16 kHz mono 16-bit) with
#                                                    references: a "transcription" file of
#                                                    "<s> words </s> (id)" lines, or ID.txt beside each ID.wav
#
# Options for the private servers: --build DIR (default build/dev), --server-args "ARGS".
# Prints one line per engine: words, WER and the substitution, deletion and insertion rates
# (percent of reference words), and keeps sclite's reports in a temporary directory it names.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
clips=$(dirname "$(dpkg -L pocketsphinx-testdata 2>/dev/null | grep -m1 '/librivox/transcription$' || true)")
[ "$clips" = "." ] && clips=/usr/share/pocketsphinx/test/data/librivox
build=$root/build/dev
api="" site="" label="server"
speech_url="" speech_model="" speech_key_file="" local_endpoint=0 server_args=""

while [ $# -gt 0 ]; do
  case "$1" in
    --clips) clips=$2; shift 2 ;;
    --build) build=$2; shift 2 ;;
    --api) api=$2; shift 2 ;;
    --site) site=$2; shift 2 ;;
    --label) label=$2; shift 2 ;;
    --speech-url) speech_url=$2; shift 2 ;;
    --speech-model) speech_model=$2; shift 2 ;;
    --speech-key-file) speech_key_file=$2; shift 2 ;;
    --local-endpoint) local_endpoint=1; shift ;;
    --server-args) server_args=$2; shift 2 ;;
    -h|--help) sed -n '2,25p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "wer.sh: unknown option $1 (see --help)" >&2; exit 2 ;;
  esac
done

find_binary() {
  local name=$1 found
  found=$(find "$build" -type f -name "$name" -perm -u+x 2>/dev/null | head -n1)
  [ -n "$found" ] || { echo "wer.sh: $name not found under $build; build it first:" \
    "cmake --build --preset dev --target quillet-server wer_stream_client transcription_endpoint" >&2; exit 1; }
  echo "$found"
}
sclite=$(command -v sclite || echo /usr/lib/sctk/bin/sclite)
[ -x "$sclite" ] || { echo "wer.sh: sclite not found (apt-get install sctk)" >&2; exit 1; }
command -v pocketsphinx_continuous >/dev/null || { echo "wer.sh: pocketsphinx_continuous not found" >&2; exit 1; }
client=$(find_binary wer_stream_client)

work=$(mktemp -d /tmp/quillet-wer.XXXXXX)
pids=()
cleanup() { for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done; wait 2>/dev/null || true; }
trap cleanup EXIT
# One line, single spaces, lower case.
squeeze() { tr 'A-Z\n\t' 'a-z  ' | sed -E 's/ +/ /g; s/^ //; s/ $//'; }

# References as trn lines "words (id)", lower case, and the list of clips that have one.
wavs=()
: > "$work/ref.trn"
if [ -f "$clips/transcription" ]; then
  while IFS= read -r line; do
    id=$(sed -nE 's/.*\(([^)]+)\)[[:space:]]*$/\1/p' <<<"$line")
    words=$(sed -E 's/\([^)]*\)[[:space:]]*$//; s#</?s>##g' <<<"$line" | squeeze)
    [ -n "$id" ] && [ -f "$clips/$id.wav" ] || continue
    echo "$words ($id)" >> "$work/ref.trn"
    wavs+=("$clips/$id.wav")
  done < "$clips/transcription"
else
  for wav in "$clips"/*.wav; do
    id=$(basename "$wav" .wav)
    [ -f "$clips/$id.txt" ] || continue
    echo "$(squeeze < "$clips/$id.txt") ($id)" >> "$work/ref.trn"
    wavs+=("$wav")
  done
fi
[ ${#wavs[@]} -gt 0 ] || { echo "wer.sh: no WAV file with a reference in $clips" >&2; exit 1; }

# Starts a private quillet-server with the given options; sets api and site.
start_server() {
  local name=$1; shift
  local server log
  server=$(find_binary quillet-server)
  log="$work/$name.log"
  : > "$log"
  # shellcheck disable=SC2086
  "$server" --api-port 0 --site-port 0 --data-dir "$work/$name-data" --max-streams 4 $server_args "$@" > "$log" 2>&1 &
  pids+=($!)
  for _ in $(seq 1 300); do
    api=$(sed -nE 's/.*API listening on (http:[^ ]+).*/\1/p' "$log" | head -n1)
    site=$(sed -nE 's/.*web site listening on (http:[^ ]+).*/\1/p' "$log" | head -n1)
    [ -n "$api" ] && [ -n "$site" ] && return 0
    sleep 0.1
  done
  echo "wer.sh: the $name server did not start:" >&2; cat "$log" >&2; exit 1
}

engines=()
run_server() {
  local name=$1
  "$client" --api "$api" --site "$site" "${wavs[@]}" > "$work/$name.trn" || true
  engines+=("$name")
}

if [ -n "$api" ]; then
  [ -n "$site" ] || { echo "wer.sh: --api needs --site (the client signs in there)" >&2; exit 2; }
  run_server "$label"
else
  start_server pocketsphinx
  run_server "server-pocketsphinx"
  if [ $local_endpoint -eq 1 ]; then
    endpoint=$(find_binary transcription_endpoint)
    "$endpoint" > "$work/endpoint.url" 2> "$work/endpoint.log" &
    pids+=($!)
    for _ in $(seq 1 100); do [ -s "$work/endpoint.url" ] && break; sleep 0.1; done
    speech_url=$(head -n1 "$work/endpoint.url")
  fi
  if [ -n "$speech_url" ]; then
    args=(--speech-url "$speech_url" --speech-timeout 60)
    [ -n "$speech_model" ] && args+=(--speech-model "$speech_model")
    [ -n "$speech_key_file" ] && args+=(--speech-key-file "$speech_key_file")
    start_server openai "${args[@]}"
    run_server "server-openai"
    grep -h "speech endpoint failed" "$work/openai.log" >&2 || true
  fi
fi

: > "$work/pocketsphinx_continuous.trn"
for wav in "${wavs[@]}"; do
  words=$(pocketsphinx_continuous -infile "$wav" -logfn /dev/null 2>/dev/null | squeeze)
  echo "$words ($(basename "$wav" .wav))" >> "$work/pocketsphinx_continuous.trn"
done
engines+=("pocketsphinx_continuous")

echo "clips: ${#wavs[@]} from $clips; sclite reports in $work"
printf '%-26s %6s %7s %7s %7s %7s\n' engine words WER sub del ins
for name in "${engines[@]}"; do
  "$sclite" -r "$work/ref.trn" trn -h "$work/$name.trn" trn -i spu_id -o sum pralign -n "$name" -O "$work" > /dev/null
  # The "Sum/Avg" row: | Sum/Avg | #snt #wrd | corr sub del ins err s.err |
  row=$(grep -m1 'Sum/Avg' "$work/$name.sys" | tr -d '|')
  read -r _ _ words _ sub del ins err _ <<<"$row"
  printf '%-26s %6s %6s%% %6s%% %6s%% %6s%%\n' "$name" "$words" "$err" "$sub" "$del" "$ins"
done
