#!/usr/bin/env bash
# Swapping with suboptimal trees kept: bbreak ends (it once went back and forth
# between a suboptimal tree and an optimal one it had already), and the trees within
# the optimal score are all kept, as many as the same replication finds without
# suboptimal trees.
#   bash subopt_swap.test.sh QAX_BINARY DATA_DIR
set -u
qax=$1; data=$2
work=$(mktemp -d); trap 'rm -rf "$work"' EXIT
cd "$work" || exit 2
fail=0
for swap in tbr spr; do
  timeout 60 "$qax" "proc $data/woodmouse.xread; mult=rep 1 hold 1; subopt 1; bbreak=$swap; quit;" >/dev/null 2>err.txt </dev/null
  status=$?
  [ "$status" = 124 ] && { echo "bbreak=$swap with subopt 1 did not end"; fail=1; continue; }
  grep -q "^Best score ($(echo $swap | tr a-z A-Z)): 68-69" err.txt || { echo "bbreak=$swap: no end report"; tail -5 err.txt; fail=1; }
done
# Trees of score 68 in the table of lengths.
optimal() { tr '\r' '\n' <"$1" | awk '/^Tree lengths/ {on = 1; next} on && /^ +[0-9]+ / {for (i = 2; i <= NF; ++i) if ($i == 68) n++} END {print n + 0}'; }
timeout 60 "$qax" "proc $data/woodmouse.xread; mult=rep 1 hold 100; length; quit;" >/dev/null 2>plain.txt </dev/null
timeout 60 "$qax" "proc $data/woodmouse.xread; subopt 1; mult=rep 1 hold 100; length; quit;" >/dev/null 2>subopt.txt </dev/null
a=$(optimal plain.txt); b=$(optimal subopt.txt)
[ "$a" -ge 1 ] || { echo "no optimal trees found without suboptimal"; fail=1; }
[ "$a" = "$b" ] || { echo "optimal trees: $a without suboptimal, $b with subopt 1"; fail=1; }
exit $fail
