#!/usr/bin/env bash
# Times strict (nelsen) and majority rule consensus of 10000 trees of 500 taxa, in two
# sets: trees that differ by a few moved terminals (like the trees of a search), and
# independent random binary trees (randtrees; the worst case for the group table).
#   bench/consensus.sh [path/to/qax] [ntrees] [ntax]   (default: build/qax 10000 500)
set -eu
qax=$(realpath "${1:-build/qax}")
ntrees=${2:-10000}; ntax=${3:-500}
work=$(mktemp -d); trap 'rm -rf "$work"' EXIT
python3 - "$work" $ntrees $ntax <<'PY'
import random, sys
work, ntrees, ntax = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
random.seed(5)
with open(work + "/data.xread", "w") as f:
    f.write("xread 1 %d\n" % ntax)
    for t in range(ntax):
        f.write("t%d %d\n" % (t, t % 2))
    f.write(";\n")
# A rooted binary tree as child lists; moves prune a terminal and regraft it on the
# branch above another terminal.
def random_tree():
    parent = {0: 'r', 1: 'r'}
    children = {'r': [0, 1]}
    nxt = 0
    for t in range(2, ntax):
        x = random.randrange(t)
        p = parent[x]
        nxt += 1
        n = 'n%d' % nxt
        children[p][children[p].index(x)] = n
        parent[n] = p
        children[n] = [x, t]
        parent[x] = n
        parent[t] = n
    return parent, children, nxt
def move(parent, children, nxt):
    a, b = random.sample(range(ntax), 2)
    p = parent[a]
    if p == 'r' or parent[b] == p:
        return nxt
    sib = [c for c in children[p] if c != a][0]
    g = parent[p]
    children[g][children[g].index(p)] = sib
    parent[sib] = g
    del children[p]
    q = parent[b]
    nxt += 1
    n = 'n%d' % nxt
    children[q][children[q].index(b)] = n
    parent[n] = q
    children[n] = [b, a]
    parent[b] = n
    parent[a] = n
    return nxt
def text(children, v):
    if not isinstance(v, str):
        return str(v)
    return "(" + " ".join(text(children, c) for c in children[v]) + ")"
import copy
parent, children, nxt = random_tree()
with open(work + "/near.tre", "w") as f:
    f.write("tread\n")
    for k in range(ntrees):
        p2, c2 = dict(parent), {key: list(v) for key, v in children.items()}
        n2 = nxt
        for _ in range(5):
            n2 = move(p2, c2, n2)
        f.write(text(c2, 'r') + ("*\n" if k + 1 < ntrees else ";\n"))
PY
cd "$work"
run() {  # prints wall seconds of one qax run of the given commands
  local start end
  start=$(date +%s.%N)
  "$qax" "$1" </dev/null >/dev/null 2>err.txt || true
  [ -n "${BENCH_DEBUG:-}" ] && tail -3 err.txt >&2
  end=$(date +%s.%N)
  if grep -q "rror" err.txt; then cat err.txt >&2; fi
  echo "$end - $start" | bc
}
hold="mxram 1000, hold $((ntrees + 10))"
for set in near random; do
  if [ $set = near ]; then load="$hold, proc data.xread, proc near.tre,"
  else load="$hold, proc data.xread, randtrees $ntrees 0,"; fi
  base=$(run "$load quit")
  strict=$(run "$load nelsen, quit")
  major=$(run "$load majority, quit")
  s=$(echo "$strict - $base" | bc); m=$(echo "$major - $base" | bc)
  echo "$set trees ($ntrees trees of $ntax taxa): loading ${base}s; nelsen ${s}s ($(echo "scale=4; $s * 1000 / $ntrees" | bc)s per 1000 trees); majority ${m}s ($(echo "scale=4; $m * 1000 / $ntrees" | bc)s per 1000 trees)"
done
