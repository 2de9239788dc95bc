#!/usr/bin/env bash
# Times 100 jackknife replicates of the 55-taxon morphological matrix (Wills2012), each
# searched with "mult=replic 5 tbr hold 5".
#   bench/resample.sh [path/to/qax] [data folder]   (default: build/qax tests/data)
set -eu
qax=$(realpath "${1:-build/qax}")
data=$(realpath "${2:-tests/data}")
work=$(mktemp -d); trap 'rm -rf "$work"' EXIT
cd "$work"
start=$(date +%s.%N)
"$qax" "proc $data/Wills2012.xread; rseed 1; resample jak replications 100 [mult=replic 5 tbr hold 5;] frequency gc; quit;" \
  >/dev/null 2>out.txt </dev/null
end=$(date +%s.%N)
grep -q "Group freqs., 100 replicates" out.txt || { echo "resampling did not complete"; tail out.txt; exit 1; }
echo "100 jackknife replicates, Wills2012 (55 taxa x 88 characters): $(echo "$end - $start" | bc) s"
