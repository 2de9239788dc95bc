#!/usr/bin/env bash
# TBR on step-matrix characters against the same matrix as nonadditive characters.
# Generates a matrix of 100 taxa and 300 six-state characters (changes along a random
# tree), then runs Wagner tree + TBR replications twice: all characters with one step
# matrix of unequal costs (wide Sankoff columns), and all nonadditive. Prints the
# rearrangements examined per CPU second of each and their ratio.
#   bench/sankoff.sh [path/to/qax] [replications]
set -eu
qax=$(realpath "${1:-build/qax}")
reps=${2:-2}
work=$(mktemp -d); trap 'rm -rf "$work"' EXIT
python3 - "$work/m.xread" <<'PY'
import random, sys
random.seed(7)
ntax, nchar, k = 100, 300, 6
# A random tree by successive splits; each character changes along its branches.
nodes = [[random.randrange(k) for _ in range(nchar)]]
rows = []
while nodes:
    anc = nodes.pop()
    if len(rows) + len(nodes) + 1 >= ntax:
        rows.append(anc); continue
    for _ in range(2):
        kid = [s if random.random() > 0.12 else random.randrange(k) for s in anc]
        nodes.insert(0, kid)
rows = (rows + nodes)[:ntax]
while len(rows) < ntax: rows.append([random.randrange(k) for _ in range(nchar)])
with open(sys.argv[1], 'w') as f:
    f.write("xread %d %d\n" % (nchar, ntax))
    for t, r in enumerate(rows): f.write("t%d %s\n" % (t, ''.join(map(str, r))))
    f.write(";\n")
PY
# Step matrix: neighbouring states 1, two apart 2, farther 3, and 0<->5 costs 2.
defs=""
for i in 0 1 2 3 4 5; do for j in 0 1 2 3 4 5; do
  [ $i -lt $j ] || continue
  d=$((j - i)); c=$(( d > 3 ? 3 : d )); [ $i = 0 ] && [ $j = 5 ] && c=2
  defs="$defs $i/$j $c"
done; done
run() {  # label, extra commands, replications
  local out total secs
  out=$( { /usr/bin/time -f "CPU %U" "$qax" "mxram 1000, proc $work/m.xread, $2 hold 100, rseed 1, mult=replic $3 tbr hold 1, quit," ; } 2>&1 )
  total=$(sed -n 's/^Total rearrangements examined: \([0-9]*\)\./\1/p' <<<"$out")
  secs=$(sed -n 's/^CPU \([0-9.]*\)$/\1/p' <<<"$out")
  best=$(sed -n 's/^Best score (TBR): \([0-9.]*\)\..*/\1/p' <<<"$out")
  rate=$(echo "$total / ($secs + 0.001)" | bc -l)
  printf "%-14s best %8s  rearrangements %12s  CPU %7.2f s  rate %12.0f /s\n" "$1" "$best" "$total" "$secs" "$rate" >&2
  echo "$rate"
}
r1=$(run "step matrix" "cost . =$defs;" "$reps")
r0=$(run "nonadditive" "" "$((reps * 40))")
printf "step matrix / nonadditive rate: 1 : %.1f\n" "$(echo "$r0 / $r1" | bc -l)" >&2
