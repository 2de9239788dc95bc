#!/usr/bin/env bash
# Ctrl-C at a terminal acts as ESC: a running search ends with the trees it has and the
# session goes on; the trees stay in memory.
#   bash ctrl_c.test.sh QAX_BINARY DATA_DIR
set -u
unset TMUX
qax=$(cd "$(dirname "$1")" && pwd)/$(basename "$1")
data=$(cd "$2" && pwd)
if ! command -v tmux >/dev/null 2>&1; then
  echo "SKIP: tmux not installed"
  exit 0
fi
work=$(mktemp -d)
sock="$work/tmux.sock"
trap 'tmux -S "$sock" kill-server >/dev/null 2>&1; rm -rf "$work"' EXIT
export HOME="$work"
term=tmux-256color
infocmp "$term" >/dev/null 2>&1 || term=screen
screen_text() { tmux -S "$sock" capture-pane -p -t qx -S -200 2>/dev/null; }
fail() { echo "FAIL: $*"; echo "--- screen ---"; screen_text; exit 1; }
wait_for() {
  local i
  for ((i = 0; i < ${2:-100}; i++)); do
    if screen_text | grep -Eq -- "$1"; then return 0; fi
    sleep 0.1
  done
  fail "no match for /$1/ on the screen"
}
type_line() { tmux -S "$sock" send-keys -t qx -l "${1%;}"; tmux -S "$sock" send-keys -t qx '\;' Enter; }

tmux -S "$sock" -f /dev/null new-session -d -s qx -x 100 -y 40 \
  "cd '$work' && TERM=$term HOME='$HOME' '$qax'; echo \"exit=\$?\" > '$work/status'; sleep 30"
wait_for 'qax\*>'
type_line "proc $data/rbcl500.xread;"
wait_for 'Matrix \(' 300
# The next prompt: keys typed before it (while the data are checked) could be lost.
for ((i = 0; i < 600; i++)); do
  [ "$(screen_text | grep -c 'qax\*>')" -ge 2 ] && break
  sleep 0.1
done
sleep 0.5
type_line "mult=rep 100000 hold 1;"
# On a loaded machine the search may not have started after a few seconds: a Ctrl-C at the
# prompt does nothing, so it is sent again (more than a second apart, or two would quit).
found=0
for ((attempt = 0; attempt < 6 && !found; attempt++)); do
  sleep 3
  tmux -S "$sock" send-keys -t qx C-c
  for ((i = 0; i < 100; i++)); do
    if screen_text | grep -Eq -- 'Best score'; then found=1; break; fi
    sleep 0.1
  done
done
[ "$found" = 1 ] || fail "no match for /Best score/ on the screen"
type_line "quote still here with trees;"
wait_for '^still here with trees' 100
type_line "tsize;"
wait_for 'trees? in memory|Tree buffer|trees' 100
[ -s "$work/status" ] && fail "qax ended"
type_line "quit;"
for ((i = 0; i < 100; i++)); do [ -s "$work/status" ] && break; sleep 0.1; done
grep -q "exit=0" "$work/status" || fail "qax did not end normally after quit: $(cat "$work/status" 2>/dev/null)"
exit 0
