#!/usr/bin/env bash
# The line editor on a real terminal: qax runs in a detached tmux session with a
# private HOME; keys are sent to it and the screen is read back. Checks cursor
# editing, word jumps, ESC, TAB completion from a history file written beforehand,
# up-arrow recall, and that the history file is written at quit and at end of input
# and read back by the next run.
#   bash line_editor.test.sh QAX_BINARY DATA_DIR
set -u
unset TMUX
qax=$(cd "$(dirname "$1")" && pwd)/$(basename "$1")
[ -x "$qax" ] || { echo "FAIL: no qax binary at $1"; exit 1; }
if ! command -v tmux >/dev/null 2>&1; then
  echo "SKIP: tmux not installed"
  exit 0
fi
work=$(mktemp -d)
# One tmux server per run of qax, so that a server going down cannot race the next.
sock="$work/tmux1.sock"
cleanup() {
  local s
  for s in "$work"/tmux*.sock; do tmux -S "$s" kill-server >/dev/null 2>&1; done
  rm -rf "$work"
}
trap cleanup EXIT
export HOME="$work/home"
mkdir -p "$HOME"
term=tmux-256color
infocmp "$term" >/dev/null 2>&1 || term=screen

fail() {
  echo "FAIL: $*"
  echo "--- screen ---"
  screen_text
  echo "--- history file ---"
  cat -v "$HOME/.qax_history" 2>/dev/null
  echo
  exit 1
}
screen_text() { tmux -S "$sock" capture-pane -p -t qx -S -200 2>/dev/null; }
keys() { tmux -S "$sock" send-keys -t qx "$@"; }
# Types literal text (tmux reads a final ";" as a command separator unless escaped).
type_text() {
  local t=$1
  [[ $t == *";" ]] && t="${t%;}\\;"
  tmux -S "$sock" send-keys -t qx -l "$t"
}

# Polls the screen until the extended regular expression matches (5 s at most).
wait_for() {
  local i
  for ((i = 0; i < 100; i++)); do
    if screen_text | grep -Eq -- "$1"; then return 0; fi
    sleep 0.05
  done
  fail "no match for /$1/ on the screen"
}
# Polls until the last non-blank line of the screen (the line being edited) is
# exactly the prompt followed by the text.
wait_line() {
  local i last
  for ((i = 0; i < 100; i++)); do
    last=$(screen_text | grep -v '^ *$' | tail -n 1 | sed 's/ *$//')
    [ "$last" = "qax*>$1" ] && return 0
    sleep 0.05
  done
  fail "the line being edited is not \"qax*>$1\""
}
# Polls until the number of lines matching the expression reaches n.
wait_count() {
  local i
  for ((i = 0; i < 100; i++)); do
    if [ "$(screen_text | grep -Ec -- "$1")" -ge "$2" ]; then return 0; fi
    sleep 0.05
  done
  fail "fewer than $2 lines match /$1/"
}
# Waits until the run has ended (the status file appears).
wait_end() {
  local i
  for ((i = 0; i < 100; i++)); do
    [ -s "$work/status" ] && return 0
    sleep 0.05
  done
  fail "qax did not end"
}

start_qax() {
  sock="$work/tmux$1.sock"
  rm -f "$work/status"
  tmux -S "$sock" -f /dev/null new-session -d -s qx -x 100 -y 40 \
    "cd '$work' && TERM=$term HOME='$HOME' '$qax'; echo \"exit=\$?\" > '$work/status'; sleep 30"
  wait_for 'qax\*>'
}

printf '2 quote alpha one;\001quote beta two;\001' >"$HOME/.qax_history"

# --- First run ---
start_qax 1
# Left-arrow editing: "quote wrld;" becomes "quote world;".
type_text 'quote wrld;'
keys Left Left Left Left
type_text 'o'
keys Enter
wait_for '^world *$'

# TAB completes from the history file.
type_text 'quote a'
keys Tab
wait_line 'quote alpha one;'
keys Enter
wait_for '^alpha one *$'

# A further TAB looks further back: newest "quote world;", then "quote beta two;".
type_text 'quote '
keys Tab
wait_line 'quote world;'
keys Tab
wait_line 'quote beta two;'
keys Enter
wait_for '^beta two *$'

# Up-arrow recall: after re-running "quote beta two;" the cursor sits after it, so two
# steps up give "quote alpha one;"; edit it before the semicolon.
keys Up Up
wait_line 'quote alpha one;'
keys End Left
type_text '!'
keys Enter
wait_for '^alpha one! *$'

# ESC clears the line.
type_text 'garbage here'
keys Escape
sleep 0.2
type_text 'quote esc ok;'
keys Enter
wait_for '^esc ok *$'
screen_text | grep -q 'garbage' && fail "ESC left text behind"

# Shift-left word jump: insert a word before the last one.
type_text 'quote one three;'
keys S-Left
type_text 'two '
keys Enter
wait_for '^one two three *$'

# Backspace and Delete in the middle of the line.
type_text 'quote abXcYd;'
keys Left Left Left DC Left BSpace
keys Enter
wait_for '^abcd *$'

type_text 'quit;'
keys Enter
wait_end
grep -q 'exit=0' "$work/status" || fail "quit status: $(cat "$work/status")"
want=$(printf '8 quote alpha one;\001quote beta two;\001quote world;\001quote alpha one!;\001quote esc ok;\001quote one two three;\001quote abcd;\001quit;\001')
got=$(cat "$HOME/.qax_history")
[ "$got" = "$want" ] || fail "history after quit: $(printf '%s' "$got" | cat -v)"

# --- Second run: the file is read back; end of input (Ctrl-D) writes it too. ---
start_qax 2
keys Up
wait_line 'quit;'
keys Up
wait_line 'quote abcd;'
keys Enter
wait_count '^abcd *$' 1
type_text 'quote second run;'
keys Enter
wait_for '^second run *$'
keys C-d
wait_end
want=$(printf '9 quote alpha one;\001quote beta two;\001quote world;\001quote alpha one!;\001quote esc ok;\001quote one two three;\001quote abcd;\001quit;\001quote second run;\001')
got=$(cat "$HOME/.qax_history")
[ "$got" = "$want" ] || fail "history after end of input: $(printf '%s' "$got" | cat -v)"
echo "PASS"
exit 0
