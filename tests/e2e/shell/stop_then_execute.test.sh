#!/usr/bin/env bash
# In background the control files act during searches whatever "break" says: a stop
# file ends the search, which reports what it has, and the run goes on. A stop outside
# a search takes up a waiting execute_qax_PID file instead of ending the run.
#   bash stop_then_execute.test.sh QAX_BINARY DATA_DIR
set -u
qax=$1; data=$2
work=$(mktemp -d); trap 'rm -rf "$work"' EXIT
cd "$work" || exit 2
fail=0

# A long search stopped by the file: the commands after it run, status 0.
start=$(date +%s)
timeout 120 "$qax" bground "log s.log; proc $data/rbcl500.xread; mult=replic 5000 hold 1; quote after the search; quit;" \
  </dev/null 2>err.txt >out.txt &
pid=$!
sleep 2
touch "stop_qax_$pid"
wait "$pid"
status=$?
elapsed=$(( $(date +%s) - start ))
[ "$status" = 0 ] || { echo "search run: exit status $status, expected 0"; fail=1; }
[ "$elapsed" -le 40 ] || { echo "search run took $elapsed s to stop"; fail=1; }
grep -q "after the search" s.log || { echo "the commands after the stopped search did not run"; fail=1; }

# A stop during a pause with an execute file waiting: the file is run.
"$qax" bground 'log x.log; quote before the pause; pause 60; quote after the pause: never;' \
  </dev/null 2>err.txt >out.txt &
pid=$!
printf 'quote from the execute file;\nquit;\n' > tmp_exec
mv tmp_exec "execute_qax_$pid"
sleep 1
touch "stop_qax_$pid"
wait "$pid"
status=$?
[ "$status" = 0 ] || { echo "pause run: exit status $status, expected 0 (quit in the execute file)"; fail=1; }
grep -q "from the execute file" x.log || { echo "the execute file was not taken up"; fail=1; }
grep -q "never" x.log && { echo "commands after the pause ran"; fail=1; }
[ "$fail" = 0 ] || { echo "--- s.log"; tail -5 s.log; echo "--- x.log"; cat x.log; }
exit $fail
