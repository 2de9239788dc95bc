#!/usr/bin/env bash
# The replications of qnelsen are different searches (each from its own seed), the
# user's seed and auto-collapsing come back afterwards, and the turning off of
# auto-collapsing is said.
#   bash qnelsen_replications.test.sh QAX_BINARY DATA_DIR
set -u
qax=$1; data=$2
work=$(mktemp -d); trap 'rm -rf "$work"' EXIT
cd "$work" || exit 2
"$qax" "proc $data/Wills2012.xread; rseed 5; collapse [; qnelsen rep 6 [mult1=ho1 tb norat; length;]; rseed; collapse; quit;" \
  >/dev/null 2>err.txt </dev/null
fail=0
grep -q "^Auto-collapse searches will be turned off to estimate consensus" err.txt || { echo "no note on auto-collapsing"; fail=1; }
n=$(grep -c "^Tree lengths" err.txt)
[ "$n" = 6 ] || { echo "$n replications, 6 expected"; fail=1; }
# The first tree of each replication: its score and its place differ between searches
# that really differ; six identical searches give one value.
distinct=$(grep -A2 "^Tree lengths" err.txt | awk '$1 == "0" {print $2}' | sort -u | wc -l)
[ "$distinct" -ge 2 ] || { echo "all replications found the same score: the searches repeat"; fail=1; }
[ "$(grep -c '^Random seed is 5' err.txt)" = 2 ] || { echo "the seed was not given back"; fail=1; }
grep -q "Estimated consensus" err.txt || { echo "no estimate"; fail=1; }
[ "$fail" = 0 ] || cat err.txt | tail -20
exit $fail
