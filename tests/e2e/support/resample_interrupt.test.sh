#!/usr/bin/env bash
# A resampling stopped by the control file keeps the replicates done: it summarises them,
# with their number in the titles, and the run goes on. The auto-save meanwhile writes
# the replicates' consensus trees.
#   bash resample_interrupt.test.sh QAX_BINARY DATA_DIR
set -u
qax=$1; data=$2
work=$(mktemp -d); trap 'rm -rf "$work"' EXIT
cd "$work" || exit 2
fail=0
"$qax" bground "log r.log; proc $data/Wills2012.xread; rseed 1; tsave !1 auto; resample jak replications 100000 [mult=replic 5 tbr hold 5;] frequency gc; quote after the resampling; quit;" \
  </dev/null 2>err.txt >out.txt &
pid=$!
# The stop file is named by the process id of qax itself (not of a wrapper like timeout);
# a watchdog ends a run that would not stop.
sleep 3
touch "stop_qax_$pid"
for _ in $(seq 100); do kill -0 "$pid" 2>/dev/null || break; sleep 1; done
kill "$pid" 2>/dev/null
wait "$pid"
status=$?
[ "$status" = 0 ] || { echo "exit status $status, expected 0"; fail=1; }
line=$(grep -o "Resampling interrupted: summarising [0-9]* replicates" r.log)
n=$(echo "$line" | grep -o "[0-9]*")
[ -n "$n" ] && [ "$n" -gt 0 ] || { echo "no replicates kept after the stop"; fail=1; }
grep -q "Group freqs., $n replicates, cut=50 (tree 0) - Jacknifing (P=36)" r.log || { echo "no frequency summary of the $n replicates"; fail=1; }
grep -q "GC values, $n replicates, cut=50 (tree 1) - Jacknifing (P=36)" r.log || { echo "no GC summary of the $n replicates"; fail=1; }
grep -q "after the resampling" r.log || { echo "the commands after the resampling did not run"; fail=1; }
# The auto-save wrote the consensus trees of the replicates done so far.
trees=$(cat auto-1 auto-2 2>/dev/null | grep -c '^(')
[ "$trees" -gt 0 ] || { echo "no replicate trees auto-saved"; fail=1; }
grep -q "^'partial results for resampling ([0-9]* reps.)'" auto-1 || { echo "auto-save title"; fail=1; }
[ "$fail" = 0 ] || tail -20 r.log
exit $fail
