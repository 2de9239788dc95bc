#!/usr/bin/env bash
# A background run is stopped by a file stop_qax_PID: the long pause ends within the
# polling interval, the run ends with status 255 and the log tells why.
#   bash stop_file.test.sh QAX_BINARY DATA_DIR
set -u
qax=$1
work=$(mktemp -d); trap 'rm -rf "$work"' EXIT
cd "$work" || exit 2

start=$(date +%s)
"$qax" bground 'log x.log; quote before the pause; pause 60; quote after the pause: never;' \
  </dev/null 2>err.txt >out.txt &
pid=$!
sleep 1
touch "stop_qax_$pid"
wait "$pid"
status=$?
elapsed=$(( $(date +%s) - start ))

fail=0
if [ "$status" != 255 ]; then echo "exit status $status, expected 255"; fail=1; fi
if [ "$elapsed" -gt 15 ]; then echo "run took $elapsed s to stop"; fail=1; fi
if [ -e "stop_qax_$pid" ]; then echo "stop file was not removed"; fail=1; fi
grep -q "before the pause" x.log || { echo "log lacks the text before the pause"; fail=1; }
grep -q "User interrupt\.\.\." x.log || { echo "log lacks User interrupt..."; fail=1; }
grep -q "SOME ERROR OCCURED, QUITTING" x.log || { echo "log lacks the quitting line"; fail=1; }
if grep -q "never" x.log; then echo "commands after the pause ran"; fail=1; fi
if [ -s err.txt ]; then echo "background run wrote to standard error:"; cat err.txt; fail=1; fi
[ "$fail" = 0 ] || { echo "--- x.log"; cat x.log; }
exit $fail
