#!/usr/bin/env bash
# A stop file in background ends a script loop: outside a search the run stops (as any
# command does), and a search stopped inside a loop body also ends the loop, after which
# the script goes on.
#   bash loop_stop.test.sh QAX_BINARY DATA_DIR
# run alone: the stop file must come while the loop runs, which a loaded machine can delay.
# The search asks for so many replications of a large matrix that only the stop file ends
# it: the stop file is looked for every 10 s, and a short search could end first.
set -u
qax=$1; data=$2
work=$(mktemp -d); trap 'rm -rf "$work"' EXIT
cd "$work" || exit 2
fail=0
# Waits for the run to end, at most 60 s (then kills it); its exit status in $status.
finish() {
  for _ in $(seq 60); do kill -0 "$1" 2>/dev/null || break; sleep 1; done
  kill "$1" 2>/dev/null
  wait "$1"
  status=$?
}
# Waits (at most 30 s) until the log holds the text: the stop file must come once the
# loop runs, not while the data are still being read on a loaded machine.
started() {
  for _ in $(seq 300); do grep -q "$2" "$1" 2>/dev/null && return; sleep 0.1; done
}

"$qax" bground "log a.log; macro=; loop 1 2000000000 set 0 ++; stop quote never; quit;" </dev/null 2>/dev/null &
pid=$!
started a.log "Macro language is ON"
sleep 0.5
touch "stop_qax_$pid"
finish "$pid"
grep -q "User interrupt" a.log || { echo "the endless loop was not interrupted"; fail=1; }
grep -q "never" a.log && { echo "commands after the interrupted loop ran"; fail=1; }

"$qax" bground "log b.log; macro=; proc $data/Wills2012.xread; hold 20000; loop 1 50 mult=rep 100000 hold 1; stop quote after the loop; quit;" </dev/null 2>/dev/null &
pid=$!
started b.log "Matrix ("
sleep 0.5
touch "stop_qax_$pid"
finish "$pid"
[ "$status" = 0 ] || { echo "search loop run: exit status $status, expected 0"; fail=1; }
grep -q "Loop interrupted" b.log || { echo "the loop did not end with the stopped search"; fail=1; }
grep -q "after the loop" b.log || { echo "the script did not go on after the loop"; fail=1; }
[ "$(grep -c 'Random seed' b.log)" -le 1 ] || { echo "more than one search ran"; fail=1; }
[ "$fail" = 0 ] || { echo "--- a.log"; tail -5 a.log; echo "--- b.log"; tail -12 b.log; }
exit $fail
