#!/usr/bin/env bash
# Negative constraints on pairs of taxa can always be met: searches under several of
# them end with trees, and in every tree kept no forbidden pair forms a group.
#   bash negative_pairs.test.sh QAX_BINARY DATA_DIR
set -u
qax=$1; data=$2
work=$(mktemp -d); trap 'rm -rf "$work"' EXIT
cd "$work" || exit 2
fail=0
check() {  # check "force text" "search" a b c d
  local force=$1 search=$2; shift 2
  rm -f t.tre
  "$qax" "proc $data/Wills2012.xread; $force rseed 3; $search tsave *t.tre; save; tsave/; quit;" >/dev/null 2>err.txt </dev/null
  if grep -q "Sorry, cannot build" err.txt || [ ! -s t.tre ]; then echo "[$force $search] refused or no trees"; fail=1; return; fi
  python3 - "$@" <<'PY' || { echo "[$force $search] a forbidden pair is a group"; fail=1; }
import re, sys
pairs = [(int(sys.argv[i]), int(sys.argv[i + 1])) for i in range(1, len(sys.argv), 2)]
text = open("t.tre").read().split("\n", 1)[1]
trees = [t for t in text.split("*") if "(" in t]
assert trees
for t in trees:
    stack, groups = [], []
    for tok in re.findall(r"\(|\)|\d+", t):
        if tok == "(":
            stack.append(set())
        elif tok == ")":
            g = stack.pop()
            groups.append(g)
            if stack:
                stack[-1] |= g
        else:
            stack[-1].add(int(tok))
    for a, b in pairs:
        assert {a, b} not in groups, (a, b)
PY
}
check "force - [1 2] - [3 4];" "mult=rep 2 hold 1;" 1 2 3 4
check "force - [45 47] - [37 38];" "mult=rep 3 hold 1;" 45 47 37 38
check "force - [1 2] - [3 29];" "mult=rep 3 spr hold 1;" 1 2 3 29
check "force - [1 2] - [3 4] - [5 6];" "mult=rep 3 wagner;" 1 2 3 4 5 6
exit $fail
