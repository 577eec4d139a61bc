#!/usr/bin/env bash
# Runs inside scripts/desktop-session.sh (a temporary HOME, Xvfb, PulseAudio with the
# virtual microphone, a keyring): the installed quillet-server on its default ports, the
# installed quillet on its built-in addresses, sign-in through the site and a quillet://
# link opened with xdg-open, the Menu key held while LibriVox speech plays into the
# microphone, and the words read back from a GTK entry and from `quillet --history`.
# Usage: installed-dictation.sh GTK_FIELDS_APP
set -euo pipefail
fields=$1
clip=/usr/share/pocketsphinx/test/data/librivox/sense_and_sensibility_01_austen_64kb-0880.wav
work=$(mktemp -d)
pids=()
cleanup() { for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done; wait 2>/dev/null || true; rm -rf "$work"; }
trap cleanup EXIT
fail() { echo "FAIL: $*" >&2; echo "--- quillet:" >&2; cat "$work/quillet.log" >&2 || true; exit 1; }
wait_for() { # seconds, command...
  local n=$(($1 * 10)); shift
  for _ in $(seq 1 "$n"); do "$@" && return 0; sleep 0.1; done
  return 1
}
logged() { grep -qF -- "$1" "$work/quillet.log"; }

if curl -fsS --max-time 1 http://127.0.0.1:8000/health >/dev/null 2>&1; then
  fail "something answers on 127.0.0.1:8000 already; the installed server needs its default ports"
fi
/usr/bin/quillet-server --data-dir "$work/server" >"$work/server.log" 2>&1 &
pids+=($!)
wait_for 20 curl -fs --max-time 1 http://127.0.0.1:8000/health -o /dev/null || fail "quillet-server did not start"

config=${XDG_CONFIG_HOME:-$HOME/.config}
mkdir -p "$config/Quillet"
printf '[General]\nhotkey=fn\nonboarding.complete=true\n' >"$config/Quillet/Quillet.conf"
/usr/bin/quillet >"$work/quillet.log" 2>&1 &
pids+=($!)
wait_for 20 logged "✅ [Quillet] Event tap created" || fail "quillet did not start"

# The first start turns on start at login; the installed desktop entry takes quillet: links.
[ -f "$config/autostart/app.quillet.Quillet.desktop" ] || fail "no autostart entry after the first start"
wait_for 10 bash -c '[ "$(xdg-mime query default x-scheme-handler/quillet)" = app.quillet.Quillet.desktop ]' \
  || fail "the quillet: handler is $(xdg-mime query default x-scheme-handler/quillet)"

# Sign in as a browser would, and open the link the page offers the way the browser does.
page=$(curl -fsS 'http://127.0.0.1:3000/signin?source=mac-app')
form=$(sed -n 's/.*name="form" value="\([^"]*\)".*/\1/p' <<<"$page" | head -n 1)
[ -n "$form" ] || fail "the sign-in page has no form token"
answer=$(curl -fsS --data-urlencode "form=$form" --data-urlencode source=mac-app http://127.0.0.1:3000/signin)
link=$(sed -n 's/.*id="open-app" href="\([^"]*\)".*/\1/p' <<<"$answer" | head -n 1 | sed 's/&amp;/\&/g')
case "$link" in quillet://auth\?*) ;; *) fail "no sign-in link in the site's answer" ;; esac
xdg-open "$link"

# A GTK window with its entry focused, where the words are meant to land.
coproc FIELDS { "$fields"; }
pids+=($FIELDS_PID)
read -r -t 20 ready xid <&"${FIELDS[0]}" || fail "the GTK window did not start"
[ "$ready" = ready ] || fail "the GTK window said: $ready"
xdotool windowfocus --sync "$xid"

# The installed client stores the tokens the link carried (it asks the backend's
# health once it has them); then dictate.
sleep 1
from=$(wc -l <"$work/quillet.log")
xdotool keydown Menu
wait_for 15 bash -c "tail -n +$((from + 1)) '$work/quillet.log' | grep -qF '🎤 [Quillet] audio capture started'" \
  || { xdotool keyup Menu; fail "no audio capture after the key went down"; }
paplay -d mic_feed "$clip"
xdotool keyup Menu
wait_for 30 bash -c "tail -n +$((from + 1)) '$work/quillet.log' | grep -qF '🏁 [Quillet] transcriptionDidEnd'" \
  || fail "the transcript did not end"

text=""
wait_for 15 bash -c "/usr/bin/quillet --history | grep -qv '^No dictations'" || fail "nothing in the history"
text=$(/usr/bin/quillet --history | head -n 1 | sed -E 's/^[0-9-]{10} [0-9:]{8}  //')
[ -n "$text" ] || fail "an empty text in the history"
echo "dictated: $text"
shown=""
for _ in $(seq 1 50); do
  echo "get entry" >&"${FIELDS[1]}"
  while read -r -t 5 kind name b64 rest <&"${FIELDS[0]}"; do
    [ "$kind" = text ] && break
  done
  shown=$( [ "$b64" = - ] && echo "" || base64 -d <<<"$b64")
  [ "$shown" = "$text" ] && break
  sleep 0.2
done
[ "$shown" = "$text" ] || fail "the entry shows \"$shown\", the history \"$text\""
words=0
for w in was not young man; do grep -qiw "$w" <<<"$text" && words=$((words + 1)); done
[ "$words" -ge 2 ] || fail "the clip's words are not in \"$text\""
echo "PASS: the installed programs dictated into a GTK entry"
