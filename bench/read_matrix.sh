#!/usr/bin/env bash
# Times xread of a generated 4000-taxon x 10000-character DNA matrix.
#   bench/read_matrix.sh [path/to/qax]   (default: build/qax)
set -eu
qax=$(realpath "${1:-build/qax}")
work=$(mktemp -d); trap 'rm -rf "$work"' EXIT
ntax=4000; nchar=10000
python3 - "$work/big.xread" $ntax $nchar <<'PY'
import random, sys
path, ntax, nchar = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
random.seed(1)
base = ''.join(random.choice('ACGT') for _ in range(nchar))
with open(path, 'w') as f:
    f.write("nstates dna;\nxread\n'bench'\n%d %d\n&[dna nogaps]\n" % (nchar, ntax))
    for t in range(ntax):
        row = list(base)
        for _ in range(nchar // 20):
            row[random.randrange(nchar)] = random.choice('ACGT-?')
        f.write("t%d %s\n" % (t, ''.join(row)))
    f.write(";\nproc/;\n")
PY
cd "$work"
echo "xread of ${ntax} taxa x ${nchar} characters:"
if [ -x /usr/bin/time ]; then
  /usr/bin/time -v "$qax" proc big.xread, quit 2>time.txt >/dev/null || true
  grep -E "Elapsed|Maximum resident" time.txt
else
  start=$(date +%s.%N); "$qax" proc big.xread, quit >/dev/null 2>&1 || true; end=$(date +%s.%N)
  echo "seconds: $(echo "$end - $start" | bc)"
fi
